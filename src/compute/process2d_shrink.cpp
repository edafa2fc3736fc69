// Block averages on the host, and the even square that a micrograph becomes.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/failure.h"
#include "platform/loops.h"
#include "process2d_raw.h"

namespace {

constexpr char unit[] = "process2d_raw";

// Row of block averages: out[x] is the mean of the shrink by shrink block whose first pixel is rows[x * shrink], rows
// being nx pixels apart. Sums run in float, row by row, as the factor's own loop so that the compiler unrolls it.
template <int Shrink>
KERNEL_LOOP void average_blocks(float* out, const float* rows, size_t nx, int count) {
  for (int x = 0; x < count; x++) {
    float sum = 0.0f;
    for (int j = 0; j < Shrink; j++)
      for (int i = 0; i < Shrink; i++) sum += rows[static_cast<size_t>(j) * nx + static_cast<size_t>(x) * Shrink + i];
    out[x] = sum / static_cast<float>(Shrink * Shrink);
  }
}

void average_blocks_any(float* out, const float* rows, size_t nx, int count, int shrink) {
  for (int x = 0; x < count; x++) {
    float sum = 0.0f;
    for (int j = 0; j < shrink; j++)
      for (int i = 0; i < shrink; i++) sum += rows[static_cast<size_t>(j) * nx + static_cast<size_t>(x) * shrink + i];
    out[x] = sum / static_cast<float>(shrink * shrink);
  }
}

void average_row(float* out, const float* rows, size_t nx, int count, int shrink) {
  switch (shrink) {
    case 1:
      memcpy(out, rows, static_cast<size_t>(count) * sizeof(float));
      break;
    case 2:
      average_blocks<2>(out, rows, nx, count);
      break;
    case 4:
      average_blocks<4>(out, rows, nx, count);
      break;
    case 6:
      average_blocks<6>(out, rows, nx, count);
      break;
    case 8:
      average_blocks<8>(out, rows, nx, count);
      break;
    default:
      average_blocks_any(out, rows, nx, count, shrink);
  }
}

// cpu_2d_average_rows on all cores.
void average_image(float* out, size_t stride, const float* in, size_t nx, int width, int height, int shrink) {
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    cpu_2d_average_rows(out + static_cast<size_t>(y) * stride, stride, in + static_cast<size_t>(y) * shrink * nx, nx,
                        width, 1, shrink);
}

}  // namespace

int even_side(int n, int shrink) { return n / (2 * shrink) * 2; }

void cpu_2d_average_rows(float* out, size_t stride, const float* in, size_t nx, int width, int height, int shrink) {
  for (int y = 0; y < height; y++)
    average_row(out + static_cast<size_t>(y) * stride, in + static_cast<size_t>(y) * shrink * nx, nx, width, shrink);
}

int get_max_extended_square_even_size(int nx, int ny, int shrink) { return even_side(std::max(nx, ny), shrink); }

void cpu_2d_extend_to_square_mirror_inplace(float* data, int nx, int ny) {
  if (nx == ny) return;
  if (nx >= 2L * ny || ny >= 2L * nx) KESTRIX_FATAL("Make sure: Ny/2 < Nx < 2Ny");
  const auto side = static_cast<size_t>(std::max(nx, ny));
  for (int y = ny; y < nx; y++)
    memcpy(data + static_cast<size_t>(y) * side, data + static_cast<size_t>(2 * ny - y - 1) * side,
           side * sizeof(float));
  for (int y = 0; nx < ny && y < ny; y++) {
    float* row = data + static_cast<size_t>(y) * side;
    for (int x = nx; x < ny; x++) row[x] = row[2 * nx - x - 1];
  }
}

void cpu_2d_extend_even(float* data, int nx, int ny, int shrink) {
  cpu_2d_extend_to_square_mirror_inplace(data, even_side(nx, shrink), even_side(ny, shrink));
}

void cpu_2d_meanshrink_extended_even_square(float* out, const float* in, int nx, int ny, int shrink) {
  const int width = even_side(nx, shrink);
  const int height = even_side(ny, shrink);
  const auto side = static_cast<size_t>(std::max(width, height));
  average_image(out, side, in, static_cast<size_t>(nx), width, height, shrink);
  cpu_2d_extend_even(out, nx, ny, shrink);
}

void cpu_2d_meanshrink(float* out, const float* in, int nx, int ny, int shrink) {
  if (shrink < 1) {
    printf("Error in function %s(), file %s on line %d: Wrong value of shrink_factor. Must be >=1!\n", __func__, unit,
           __LINE__);
    return;
  }
  const int width = nx / shrink;
  average_image(out, static_cast<size_t>(width), in, static_cast<size_t>(nx), width, ny / shrink, shrink);
}

void cpu_2ds_meanshrink(float* out, const float* in, int nx, int ny, int nz, int shrink) {
  if (shrink < 1) {
    cpu_2d_meanshrink(out, in, nx, ny, shrink);  // says what is wrong, once
    return;
  }
  const size_t in_pixels = static_cast<size_t>(nx) * ny;
  const size_t out_pixels = static_cast<size_t>(nx / shrink) * (ny / shrink);
  for (int z = 0; z < nz; z++) cpu_2d_meanshrink(out + z * out_pixels, in + z * in_pixels, nx, ny, shrink);
}
