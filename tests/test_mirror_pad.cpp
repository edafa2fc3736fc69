// What is computed of an image that is mirrored without end: band-passed images and local maps, in each way of
// transforming it that this build has.
#include <algorithm>

#include "conditioning/conditioning.h"
#include "img_filter.h"
#include "test_numeric.h"

namespace {

const std::vector<PadWay> kPadWays =
    kOnGpu ? std::vector<PadWay>{kPaddedTransforms} : std::vector<PadWay>{kPaddedTransforms, kHostCosines};

struct MirroredImage : testing::TestWithParam<PadWay> {
  void SetUp() override { REQUIRE_DEVICE(); }
};

INSTANTIATE_TEST_SUITE_P(Ways, MirroredImage, testing::ValuesIn(kPadWays),
                         [](const testing::TestParamInfo<PadWay>& way) {
                           return way.param == kHostCosines ? "HostCosines" : "PaddedTransforms";
                         });

/// What one filter call is given; soft is negative for the filter of two Gaussians.
struct Band {
  float apix, res1, res2, soft;
};

/// Weight of the radius r (Fourier pixels) in a transform of P by P, by definition.
double weight(double r, int P, const Band& band) {
  const float length = P * band.apix;
  const float low = length / std::max(band.res1, band.res2), high = length / std::min(band.res1, band.res2);
  if (r < low || (band.soft < 0 && r > high)) return 0;
  if (band.soft >= 0) return soft_disc(r, high, band.soft, kNormalDensity);
  const double deviation = high / 3.0, H = P / 2 + 1, other = (H - low) / 3, x = H - r;
  return kNormalDensity * kNormalDensity * std::exp(-r * r / (2 * deviation * deviation) - x * x / (2 * other * other));
}

/// The mirrored image's transform, weighted and transformed back unnormalised; its top-left quadrant.
std::vector<double> filtered_by_definition(const std::vector<float>& image, int N, const Band& band) {
  const int P = 2 * N;
  std::vector<Complex> padded;
  for (int i = 0; i < P * P; i++) padded.emplace_back(image[pixel_index(mirrored(i % P, N), mirrored(i / P, N), N)]);
  std::vector<Complex> spectrum = fourier_sums(padded, P, P, -1);
  for (int i = 0; i < P * P; i++)
    spectrum[i] *= weight(std::hypot(std::min(i % P, P - i % P), std::min(i / P, P - i / P)), P, band);
  const std::vector<Complex> back = fourier_sums(spectrum, P, P, 1);
  std::vector<double> out;
  for (int i = 0; i < N * N; i++) out.push_back(back[pixel_index(i % N, i / N, P)].real());
  return out;
}

/// Filters in place where in is null.
void filter(MirrorPad* pad, const float* in, float* out, const Band& b) {
  if (b.soft < 0 && !in) hcuda_2d_bandpass_guas_mpad_inplace(pad, out, b.apix, b.res1, b.res2);
  if (b.soft < 0 && in) hcuda_2d_bandpass_guas_mpad(pad, in, out, b.apix, b.res1, b.res2);
  if (b.soft >= 0 && !in) hcuda_2d_bandpass_softR_mpad_inplace(pad, out, b.apix, b.res1, b.res2, b.soft);
  if (b.soft >= 0 && in) hcuda_2d_bandpass_softR_mpad(pad, in, out, b.apix, b.res1, b.res2, b.soft);
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

TEST_P(MirroredImage, IsBandPassedAsDefinedInTheFrequencyDomainInPlaceTooAndInBuffersUsedBefore) {
  for (const int N : {10, 15, 16, 22, 24, 40}) {
    const std::vector<float> image = random_values(pixel_index(0, N, N), static_cast<unsigned>(N));
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
      filter(&pad, nullptr, d.get(), {band.apix, band.res2, band.res1, band.soft});
      EXPECT_TRUE(same_bits(to_host(d, image.size()), got)) << "in place, with the limits in the other order";
    }
    mirror_pad_free(&pad);
  }
}

TEST_P(MirroredImage, HasLocalMapsThatAreItsDirectWindowedMeansWindowAfterWindow) {
  const int sizes[][2] = {{22, 22}, {15, 15}, {26, 14}, {9, 20}, {24, 40}, {20, 12}};
  for (const auto& [nx, ny] : sizes) {
    const std::vector<float> image = random_values(pixel_index(0, ny, nx), 1, -2, 3);
    const size_t n = image.size();
    MirrorPad pad = mirror_pad_new(nx, ny, GetParam());
    const auto in = to_device(image), out = unwritten(n), scratch = unwritten(n);
    const float radii[] = {2.3f, 6.1f, 14.2f};  // the last one larger than some images
    std::vector<DiscWindow> windows;            // each made before the transform, whose buffers it uses
    for (const float R : radii) windows.push_back(disc_window_new(&pad, R, 4.0f));
    hcuda_2d_mpad_transform(&pad, in.get());
    for (size_t i = 0; i < windows.size(); i++) {
      SCOPED_TRACE(testing::Message() << nx << " x " << ny << ", radius " << radii[i]);
      const std::vector<double> mean = windowed_mean(widened(image), nx, ny, radii[i], 4);
      // Means of values of about 1 by float transforms; the root doubles what the squares' mean is off by.
      hcuda_2d_local_ave_softR_mpad(&pad, &windows[i], out.get());
      EXPECT_TRUE(all_near(to_host(out, n), mean, 3e-6));
      hcuda_2d_local_sigma_softR_mpad(&pad, &windows[i], in.get(), out.get(), scratch.get());
      EXPECT_TRUE(all_near(to_host(out, n), windowed_sigma(widened(image), nx, ny, radii[i], 4), 1e-5));
      hcuda_2d_bg_mpad(&pad, &windows[i], out.get());
      EXPECT_TRUE(all_near(to_host(out, n), mean, 3e-6));
      disc_window_free(&windows[i]);
    }
    EXPECT_TRUE(same_bits(to_host(in, n), image)) << "the maps changed their input";
    mirror_pad_free(&pad);
  }
}
