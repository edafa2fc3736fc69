// Sums of blocks of 1024 values in one fixed pairing tree, one text for both devices: neighbours are added first,
// then pairs of pairs, so that the bits of a sum depend neither on timing nor on the number of cores.
#pragma once

#include "platform/launch.h"

constexpr unsigned long kSumBlock = 1024;

#ifdef KESTRIX_CUDA
#define BLOCK_DEVICE __device__ inline
#define BLOCK_SHARED __shared__
#define BLOCK_FOR(t, begin, end) if (const int t = static_cast<int>(threadIdx.x); t >= (begin) && t < (end))
#define BLOCK_BARRIER __syncthreads()
#else
#define BLOCK_DEVICE KERNEL_LOOP
#define BLOCK_SHARED
// NOLINTBEGIN(bugprone-macro-parentheses): a loop's head
#define BLOCK_FOR(t, begin, end) _Pragma("omp simd") for (int t = (begin); t < (end); t++)
// NOLINTEND(bugprone-macro-parentheses)
#define BLOCK_BARRIER static_cast<void>(0)
#endif

/// Sums Load(i, args...) over the i of one block that are below n, missing values counting 0, and stores it at
/// out[block]. out is nothing that Load reads.
template <auto Load, class... Args>
BLOCK_DEVICE void sum_one_block(unsigned long block, float* out, unsigned long n, Args... args) {
  BLOCK_SHARED float slots[2][kSumBlock];
  const unsigned long first = block * kSumBlock;
  const int count = static_cast<int>(n - first < kSumBlock ? n - first : kSumBlock);
  BLOCK_FOR(t, 0, count) slots[0][t] = Load(first + static_cast<unsigned long>(t), args...);
  BLOCK_FOR(t, count, static_cast<int>(kSumBlock)) slots[0][t] = 0.0f;
  BLOCK_BARRIER;
  int from = 0;
  for (int pairs = kSumBlock / 2; pairs >= 1; pairs /= 2) {
    const float* values = slots[from];
    float* sums = slots[1 - from];
    BLOCK_FOR(t, 0, pairs) sums[t] = values[2 * t + 1] + values[2 * t];
    BLOCK_BARRIER;
    from = 1 - from;
  }
  BLOCK_FOR(t, 0, 1) out[block] = slots[from][t];
}

#undef BLOCK_SHARED
#undef BLOCK_FOR
#undef BLOCK_BARRIER

#ifdef KESTRIX_CUDA

namespace launch_detail {
template <auto Load, class... Args>
__global__ void grid_block_sums(float* out, unsigned long n, Args... args) {
  sum_one_block<Load>(blockIdx.x, out, n, args...);
}
}  // namespace launch_detail

/// One pass of a sum: out[b] = the sum of block b of the n values Load(i, args...), for all ceil(n / 1024) blocks.
template <auto Load, class... Args>
cudaError_t launch_block_sums(float* out, unsigned long n, Args... args) {
  const auto blocks = static_cast<unsigned>((n + kSumBlock - 1) / kSumBlock);
  if (blocks == 0) return cudaSuccess;
  launch_detail::grid_block_sums<Load><<<blocks, static_cast<unsigned>(kSumBlock)>>>(out, n, args...);
  return launch_detail::wait_for_launch();
}

#else

/// One pass of a sum: out[b] = the sum of block b of the n values Load(i, args...), for all ceil(n / 1024) blocks.
template <auto Load, class... Args>
cudaError_t launch_block_sums(float* out, unsigned long n, Args... args) {
  const unsigned long blocks = (n + kSumBlock - 1) / kSumBlock;
#pragma omp parallel for schedule(static) if (n >= kParallelFrom)
  for (unsigned long b = 0; b < blocks; b++) sum_one_block<Load>(b, out, n, args...);
  return launch_detail::wait_for_launch();
}

#endif
