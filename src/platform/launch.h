// Launching kernel bodies: a grid of guarded threads on a CUDA device, loops over all cores on the host.
// A kernel is a KERNEL function, given as a template argument so that its body is inlined into the loop:
//     launch_2d<cuda_2d_divide_inplace>(nx, ny, d, v)
// Each launch is waited for and returns the device's status, to be checked by CHECK_DEVICE (cuda_general.h).
#pragma once

#include "platform/device.h"
#include "platform/loops.h"

namespace launch_detail {

// A launch tells of its own failure by the last error, where any earlier call leaves its own too.
inline cudaError_t wait_for_launch() {
  const cudaError_t launched = cudaGetLastError();
  const cudaError_t finished = cudaThreadSynchronize();
  return launched != cudaSuccess ? launched : finished;
}

}  // namespace launch_detail

#ifdef KESTRIX_CUDA

// CMake gives nvcc the sources that include this header in their own text, and the others to the host compiler.
#ifndef __CUDACC__
#error "include platform/launch.h in the source itself, not by way of another header, and run cmake again"
#endif

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

template <auto Kernel, class... Args>
__global__ void grid_2d_times(int nx, int ny, int times, Args... args) {
  const int x = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
  const int y = static_cast<int>(blockIdx.y * blockDim.y + threadIdx.y);
  if (x < nx && y < ny)
    for (int k = 0; k < times; k++) Kernel(x, y, k, args...);
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

/// Runs Kernel(gx, gy, args...) for every cell of a grid; for kernels that do much work in few cells. In blocks of one
/// warp: a thousand cells would make a single block of 32 by 32 and leave all multiprocessors but one idle.
template <auto Kernel, class... Args>
cudaError_t launch_cells(int grid_nx, int grid_ny, Args... args) {
  if (grid_nx <= 0 || grid_ny <= 0) return cudaSuccess;
  const dim3 grid(static_cast<unsigned>((grid_nx + 7) / 8), static_cast<unsigned>((grid_ny + 3) / 4));
  launch_detail::grid_2d<Kernel><<<grid, dim3(8, 4)>>>(grid_nx, grid_ny, args...);
  return launch_detail::wait_for_launch();
}

/// Runs Kernel(x, y, k, args...) for every pixel of nx by ny and, at each pixel, for k = 0 .. times - 1 in this order.
template <auto Kernel, class... Args>
cudaError_t launch_2d_times(int nx, int ny, int times, Args... args) {
  if (nx <= 0 || ny <= 0) return cudaSuccess;
  const dim3 grid(static_cast<unsigned>((nx + 31) / 32), static_cast<unsigned>((ny + 31) / 32));
  launch_detail::grid_2d_times<Kernel><<<grid, dim3(32, 32)>>>(nx, ny, times, args...);
  return launch_detail::wait_for_launch();
}

#else

/// Fewer elements than this run on one core: waking the others would cost more than they save.
constexpr unsigned long kParallelFrom = 32768;

namespace launch_detail {

constexpr unsigned long kChunk = 8192;

template <auto Kernel, class... Args>
KERNEL_LOOP void loop_1d(unsigned long begin, unsigned long end, Args... args) {
#pragma omp simd
  for (unsigned long i = begin; i < end; i++) Kernel(i, args...);
}

template <auto Kernel, class... Args>
KERNEL_LOOP void loop_row(int y, int nx, Args... args) {
#pragma omp simd
  for (int x = 0; x < nx; x++) Kernel(x, y, args...);
}

template <auto Kernel, class... Args>
KERNEL_LOOP void loop_row_once(int y, int k, int nx, Args... args) {
#pragma omp simd
  for (int x = 0; x < nx; x++) Kernel(x, y, k, args...);
}

template <auto Kernel, class... Args>
KERNEL_LOOP void loop_cells(int gy, int grid_nx, Args... args) {
  for (int gx = 0; gx < grid_nx; gx++) Kernel(gx, gy, args...);
}

}  // namespace launch_detail

/// Runs Kernel(i, args...) for every i below n, in chunks shared among the cores, each chunk vectorised.
template <auto Kernel, class... Args>
cudaError_t launch_1d(unsigned long n, Args... args) {
  using launch_detail::kChunk;
  const unsigned long chunks = (n + kChunk - 1) / kChunk;
#pragma omp parallel for schedule(static) if (n >= kParallelFrom)
  for (unsigned long c = 0; c < chunks; c++) {
    const unsigned long end = (c + 1) * kChunk < n ? (c + 1) * kChunk : n;
    launch_detail::loop_1d<Kernel>(c * kChunk, end, args...);
  }
  return launch_detail::wait_for_launch();
}

/// Runs Kernel(x, y, args...) for every pixel of nx by ny, rows shared among the cores, each row vectorised.
template <auto Kernel, class... Args>
cudaError_t launch_2d(int nx, int ny, Args... args) {
#pragma omp parallel for schedule(static) if (static_cast <unsigned long>(nx) * ny >= kParallelFrom)
  for (int y = 0; y < ny; y++) launch_detail::loop_row<Kernel>(y, nx, args...);
  return launch_detail::wait_for_launch();
}

/// Runs Kernel(gx, gy, args...) for every cell of a grid; for kernels that do much work in few cells.
template <auto Kernel, class... Args>
cudaError_t launch_cells(int grid_nx, int grid_ny, Args... args) {
#pragma omp parallel for schedule(static)
  for (int gy = 0; gy < grid_ny; gy++) launch_detail::loop_cells<Kernel>(gy, grid_nx, args...);
  return launch_detail::wait_for_launch();
}

/// Runs Kernel(x, y, k, args...) for every pixel of nx by ny and, at each pixel, for k = 0 .. times - 1 in this order.
/// A row stays in the cache while its k go by.
template <auto Kernel, class... Args>
cudaError_t launch_2d_times(int nx, int ny, int times, Args... args) {
#pragma omp parallel for schedule(static) if (static_cast <unsigned long>(nx) * ny >= kParallelFrom)
  for (int y = 0; y < ny; y++)
    for (int k = 0; k < times; k++) launch_detail::loop_row_once<Kernel>(y, k, nx, args...);
  return launch_detail::wait_for_launch();
}

#endif
