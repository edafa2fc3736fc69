#include "picture/shrunk_image.h"

#include <algorithm>
#include <cmath>

namespace {

// Adds the rows of one block row up, column by column. Returns whether all values are finite.
bool add_rows(const float* rows, int nx, int count, float* sums) {
  std::copy(rows, rows + nx, sums);
  for (int y = 1; y < count; y++) {
    const float* row = rows + static_cast<size_t>(y) * static_cast<size_t>(nx);
    for (int x = 0; x < nx; x++) sums[x] += row[x];
  }
  float check = 0;
  for (int x = 0; x < nx; x++) check += sums[x] * 0.0f;
  return check == 0.0f;
}

float careful_mean(const float* rows, int nx, int x0, int bin) {
  double sum = 0;
  long number = 0;
  for (int y = 0; y < bin; y++)
    for (int x = x0; x < x0 + bin; x++) {
      const float v = rows[static_cast<size_t>(y) * static_cast<size_t>(nx) + static_cast<size_t>(x)];
      if (!std::isfinite(v)) continue;
      sum += static_cast<double>(v);
      number++;
    }
  return number > 0 ? static_cast<float>(sum / static_cast<double>(number)) : 0.0f;
}

}  // namespace

int bin_for_side(const MicrographFile& file, int most) { return (std::max(file.nx(), file.ny()) + most - 1) / most; }

ShrunkImage read_shrunk_image(const MicrographFile& file, int bin) {
  bin = std::clamp(bin, 1, std::min(file.nx(), file.ny()));
  const int nx = file.nx();
  ShrunkImage image{nx / bin, file.ny() / bin, bin, {}};
  image.values.resize(static_cast<size_t>(image.nx) * static_cast<size_t>(image.ny));
  std::vector<float> rows(static_cast<size_t>(nx) * static_cast<size_t>(bin)), sums(static_cast<size_t>(nx));
  const float share = 1.0f / (static_cast<float>(bin) * static_cast<float>(bin));
  for (int y = 0; y < image.ny; y++) {
    file.read_rows(y * bin, bin, rows.data());
    const bool finite = add_rows(rows.data(), nx, bin, sums.data());
    float* out = &image.values[static_cast<size_t>(y) * static_cast<size_t>(image.nx)];
    for (int x = 0; x < image.nx; x++) {
      float sum = 0;
      for (int i = 0; i < bin; i++)
        sum += sums[static_cast<size_t>(x) * static_cast<size_t>(bin) + static_cast<size_t>(i)];
      out[x] = finite ? sum * share : careful_mean(rows.data(), nx, x * bin, bin);
    }
  }
  return image;
}

std::vector<float> image_quantiles(const ShrunkImage& image, const std::vector<double>& shares) {
  constexpr size_t kSample = 1 << 15;
  const size_t step = std::max<size_t>(1, image.values.size() / kSample) | 1;  // odd: meets every column
  std::vector<float> sample;
  for (size_t i = 0; i < image.values.size(); i += step) sample.push_back(image.values[i]);
  std::sort(sample.begin(), sample.end());
  std::vector<float> quantiles;
  quantiles.reserve(shares.size());
  for (const double share : shares)
    quantiles.push_back(sample.empty() ? 0
                                       : sample[static_cast<size_t>(share * static_cast<double>(sample.size() - 1))]);
  return quantiles;
}

std::vector<uint8_t> grey_levels(const ShrunkImage& image, float low, float high) {
  std::vector<uint8_t> levels(image.values.size(), 128);
  if (!(high > low)) return levels;
  const float scale = 255.0f / (high - low);
  for (size_t i = 0; i < levels.size(); i++)
    levels[i] = static_cast<uint8_t>(std::lround(std::clamp((image.values[i] - low) * scale, 0.0f, 255.0f)));
  return levels;
}
