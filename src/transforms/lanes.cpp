#include "transforms/lanes.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/host_memory.h"
#include "platform/loops.h"
#include "transforms/lane_transpose.h"

LaneValue* lane_values_if_any(size_t n) {
  constexpr size_t kCacheLine = 64;
  constexpr size_t kHugePage = size_t{2} << 20;
  static_assert(sizeof(LaneValue) % kCacheLine == 0, "a value fills whole cache lines");
  const size_t needed = std::max<size_t>(n, 1) * sizeof(LaneValue);
  const size_t unit = needed < kHugePage ? kCacheLine : kHugePage;
  const size_t bytes = (needed + unit - 1) / unit * unit;
  void* memory = aligned_alloc(unit, bytes);
  if (!memory) return nullptr;
  // Rows are gathered from places far apart: with small pages each would cost a walk through the page table.
  if (unit == kHugePage) madvise(memory, bytes, MADV_HUGEPAGE);
  memset(memory, 0, bytes);
  return static_cast<LaneValue*>(memory);
}

LaneValue* lane_values_new(size_t n) {
  LaneValue* values = lane_values_if_any(n);
  if (!values) host_malloc(SIZE_MAX, 1);  // reports the failure and ends the run
  return values;
}

KERNEL_LOOP void lane_transpose(const Lane* from, size_t from_stride, Lane* to, size_t to_stride) {
  Lane block[kLanes];
#pragma GCC unroll 8
  for (size_t i = 0; i < kLanes; i++) block[i] = from[i * from_stride];
  lane_transpose_block(block);
#pragma GCC unroll 8
  for (size_t i = 0; i < kLanes; i++) to[i * to_stride] = block[i];
}
