#include <algorithm>

#include "conditioning/conditioning.h"
#include "img_filter.h"
#include "test_numeric.h"
#include "test_support_pad_ways.h"

namespace {

/// What one filter call is given; soft is negative for the filter of two Gaussians.
struct Band {
  float apix, res1, res2, soft;
};

double gaussian(double x, double sigma) { return 0.39894228 * std::exp(-x * x / (2 * sigma * sigma)); }

/// Weight of the radius r (Fourier pixels) in a transform of P by P, by definition.
double weight(double r, int P, const Band& band) {
  const float length = static_cast<float>(P) * band.apix;
  const float low = length / std::max(band.res1, band.res2), high = length / std::min(band.res1, band.res2);
  if (r < low) return 0;
  if (band.soft < 0) {
    const int H = P / 2 + 1;
    return r > high ? 0 : gaussian(r, high / 3.0) * gaussian(H - r, (H - low) / 3);
  }
  if (r <= high) return 1;
  return r <= high + band.soft ? gaussian(r - high, band.soft / 3.0) : 0;
}

/// The mirrored image's transform, weighted and transformed back unnormalised; its top-left quadrant.
std::vector<double> filtered_by_definition(const std::vector<float>& image, int N, const Band& band) {
  const int P = 2 * N;
  std::vector<Complex> padded;
  for (int y = 0; y < P; y++)
    for (int x = 0; x < P; x++) padded.emplace_back(image[static_cast<size_t>(mirrored(y, N)) * N + mirrored(x, N)]);
  std::vector<Complex> spectrum = fourier_sums(padded, P, P, -1);
  for (int v = 0; v < P; v++)
    for (int u = 0; u < P; u++)
      spectrum[static_cast<size_t>(v) * P + u] *= weight(std::hypot(std::min(u, P - u), std::min(v, P - v)), P, band);
  const std::vector<Complex> back = fourier_sums(spectrum, P, P, 1);
  std::vector<double> out;
  for (int y = 0; y < N; y++)
    for (int x = 0; x < N; x++) out.push_back(back[static_cast<size_t>(y) * P + x].real());
  return out;
}

/// Filters in place where in is out.
void filter(MirrorPad* pad, const float* in, float* out, const Band& band) {
  const bool in_place = in == out;
  if (band.soft < 0 && in_place) hcuda_2d_bandpass_guas_mpad_inplace(pad, out, band.apix, band.res1, band.res2);
  if (band.soft < 0 && !in_place) hcuda_2d_bandpass_guas_mpad(pad, in, out, band.apix, band.res1, band.res2);
  if (band.soft >= 0 && in_place)
    hcuda_2d_bandpass_softR_mpad_inplace(pad, out, band.apix, band.res1, band.res2, band.soft);
  if (band.soft >= 0 && !in_place)
    hcuda_2d_bandpass_softR_mpad(pad, in, out, band.apix, band.res1, band.res2, band.soft);
}

const Band kBands[] = {
    {1.5f, 7, 40, 3},      // both limits inside the transform
    {1.5f, 3, 25, 8},      // the Nyquist period and a roll-off into the corners
    {1.5f, 11, 11, 2},     // limits that coincide: the roll-off alone
    {1.5f, 7, 40, -1},     // the same for the two Gaussians
    {1.5f, 2, 200, -1},    // beyond Nyquist, and next to everything else
    {0.5f, 4, 2.5f, 100},  // limits in the other order, a roll-off beyond the corners
    // Of a side of 10, 10, 4 and 2.5 Å lie at the radii 2, 5 and 8 exactly, which (2,0), (3,4), (5,0) and (8,0) have.
    {1, 4, 10, 3},
    {1, 10, 4, -1},
    {1, 4, 4, -1},
};

}  // namespace

struct BandPass : PadWayTest {};
INSTANTIATE_TEST_SUITE_P(Ways, BandPass, testing::ValuesIn(kPadWays), pad_way_name);

TEST_P(BandPass, AgreesWithItsDefinitionInTheFrequencyDomainInPlaceTooAndInBuffersUsedBefore) {
  for (const int N : {10, 15, 16, 22, 24, 40}) {
    const std::vector<float> image = random_values(static_cast<size_t>(N) * N, static_cast<unsigned>(N));
    const auto in = to_device(image), out = unwritten(image.size());
    MirrorPad pad = mirror_pad_new(N, N, GetParam());
    for (const Band& band : kBands) {
      SCOPED_TRACE(testing::Message() << N << ": " << band.res1 << " to " << band.res2 << ", " << band.soft);
      filter(&pad, in.get(), out.get(), band);
      EXPECT_TRUE(same_bits(to_host(in, image.size()), image)) << "the filter changed its input";
      const std::vector<float> got = to_host(out, image.size());
      // The output is (2N)^2 times the image; float transforms and weights are off by some 1e-7 of that.
      EXPECT_TRUE(all_near(got, filtered_by_definition(image, N, band), 1e-6 * 4 * N * N));
      const auto d = to_device(image);
      filter(&pad, d.get(), d.get(), {band.apix, band.res2, band.res1, band.soft});
      EXPECT_TRUE(same_bits(to_host(d, image.size()), got)) << "in place, with the limits in the other order";
    }
    mirror_pad_free(&pad);
  }
}
