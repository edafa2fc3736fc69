// From the file of a micrograph to the even square working image.
#include <omp.h>

#include <algorithm>
#include <cstdlib>

#include "conditioning/conditioning.h"
#include "platform/host_memory.h"
#include "process2d_raw.h"

void read_shrunk_micrograph(const ImageFile& image, int shrink, const ValueLimits& limits, float* out) {
  const MRC_HEAD* head = &image.head();
  // As many samples at a time as the second-level cache holds beside all else.
  constexpr size_t kChunkFloats = size_t{1} << 16;
  const auto nx = static_cast<size_t>(head->nx);
  const int width = even_side(head->nx, shrink);
  const int height = even_side(head->ny, shrink);
  const auto side = static_cast<size_t>(std::max(width, height));
  const size_t block_row = nx * static_cast<size_t>(shrink);
  const int rows = static_cast<int>(std::max<size_t>(1, kChunkFloats / block_row));
  auto* chunks = host_new<float>(static_cast<size_t>(omp_get_max_threads()) * static_cast<size_t>(rows) * block_row);
#pragma omp parallel for schedule(dynamic)
  for (int y = 0; y < height; y += rows) {
    float* chunk = chunks + static_cast<size_t>(omp_get_thread_num()) * static_cast<size_t>(rows) * block_row;
    const int count = std::min(rows, height - y);
    image.read_rows(0, y * shrink, count * shrink, chunk);
    if (limits.low <= limits.high) clip_values(chunk, static_cast<size_t>(count) * block_row, limits);
    cpu_2d_average_rows(out + static_cast<size_t>(y) * side, side, chunk, nx, width, count, shrink);
  }
  free(chunks);
}
