// Launching kernel bodies: a grid of guarded threads on a CUDA device, loops over all cores on the host.
// A kernel is a KERNEL function, given as a template argument so that its body is inlined into the loop:
//     launch_2d<cuda_2d_divide_inplace>(nx, ny, d, v)
// Each launch is waited for and returns the device's status, to be checked by CHECK_DEVICE (cuda_general.h).
#pragma once

#include "platform/device.h"

#ifdef KESTRIX_CUDA

namespace launch_detail {

template <auto Kernel, class... Args>
__global__ void grid_1d(unsigned long n, Args... args) {
  const unsigned long i = blockIdx.x * static_cast<unsigned long>(blockDim.x) + threadIdx.x;
  if (i < n) Kernel(i, args...);
}

template <auto Kernel, class... Args>
__global__ void grid_2d(int nx, int ny, Args... args) {
  const int x = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
  const int y = static_cast<int>(blockIdx.y * blockDim.y + threadIdx.y);
  if (x < nx && y < ny) Kernel(x, y, args...);
}

inline cudaError_t wait_for_launch() {
  const cudaError_t launched = cudaGetLastError();
  const cudaError_t finished = cudaThreadSynchronize();
  return launched != cudaSuccess ? launched : finished;
}

}  // namespace launch_detail

/// Runs Kernel(i, args...) for every i below n, in blocks of 1024 threads.
template <auto Kernel, class... Args>
cudaError_t launch_1d(unsigned long n, Args... args) {
  if (n == 0) return cudaSuccess;
  launch_detail::grid_1d<Kernel><<<static_cast<unsigned>((n + 1023) / 1024), 1024>>>(n, args...);
  return launch_detail::wait_for_launch();
}

/// Runs Kernel(x, y, args...) for every pixel of nx by ny, in blocks of 32 by 32 threads.
template <auto Kernel, class... Args>
cudaError_t launch_2d(int nx, int ny, Args... args) {
  if (nx <= 0 || ny <= 0) return cudaSuccess;
  const dim3 grid(static_cast<unsigned>((nx + 31) / 32), static_cast<unsigned>((ny + 31) / 32));
  launch_detail::grid_2d<Kernel><<<grid, dim3(32, 32)>>>(nx, ny, args...);
  return launch_detail::wait_for_launch();
}

#else

/// Fewer elements than this run on one core: waking the others would cost more than they save.
constexpr unsigned long kParallelFrom = 32768;

/// Runs Kernel(i, args...) for every i below n, shared among the cores; i in order within a core, vectorised.
template <auto Kernel, class... Args>
cudaError_t launch_1d(unsigned long n, Args... args) {
#pragma omp parallel for simd schedule(static) if (n >= kParallelFrom)
  for (unsigned long i = 0; i < n; i++) Kernel(i, args...);
  return cudaThreadSynchronize();
}

/// Runs Kernel(x, y, args...) for every pixel of nx by ny, rows shared among the cores, each row vectorised.
template <auto Kernel, class... Args>
cudaError_t launch_2d(int nx, int ny, Args... args) {
#pragma omp parallel for schedule(static) if (static_cast<unsigned long>(nx) * ny >= kParallelFrom)
  for (int y = 0; y < ny; y++) {
#pragma omp simd
    for (int x = 0; x < nx; x++) Kernel(x, y, args...);
  }
  return cudaThreadSynchronize();
}

#endif
