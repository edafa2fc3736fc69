#include "conditioning.h"
#include "test_numeric.h"
#include "test_support_pad_ways.h"

namespace {

struct Size {
  int nx, ny;
};

struct Maps {
  std::vector<float> average, sigma;
};

/// Both maps of an image, the average under one window and then the sigma under another.
Maps maps_of(PadWay way, const std::vector<float>& image, Size size, float R_average, float R_sigma, float soft) {
  MirrorPad pad = mirror_pad_new(size.nx, size.ny, way);
  DiscWindow for_average = disc_window_new(&pad, R_average, soft), for_sigma = disc_window_new(&pad, R_sigma, soft);
  const size_t n = image.size();
  const auto in = to_device(image), average = unwritten(n), sigma = unwritten(n), scratch = unwritten(n);
  hcuda_2d_mpad_transform(&pad, in.get());
  hcuda_2d_local_ave_softR_mpad(&pad, &for_average, average.get());
  hcuda_2d_local_sigma_softR_mpad(&pad, &for_sigma, in.get(), sigma.get(), scratch.get());
  EXPECT_TRUE(same_bits(to_host(in, n), image)) << "the maps changed their input";
  disc_window_free(&for_average);
  disc_window_free(&for_sigma);
  mirror_pad_free(&pad);
  return {to_host(average, n), to_host(sigma, n)};
}

}  // namespace

struct LocalMaps : PadWayTest {};
INSTANTIATE_TEST_SUITE_P(Ways, LocalMaps, testing::ValuesIn(kPadWays), pad_way_name);

TEST_P(LocalMaps, AgreeWithDirectWindowedMeansOfTheMirroredImage) {
  for (const Size size : {Size{22, 22}, Size{15, 15}, Size{26, 14}, Size{9, 20}, Size{24, 40}, Size{20, 12}}) {
    const std::vector<float> image = random_values(static_cast<size_t>(size.nx) * size.ny, 1, -2, 3);
    for (const float R : {2.3f, 6.1f, 14.2f}) {  // the last one larger than some images
      SCOPED_TRACE(testing::Message() << size.nx << " x " << size.ny << ", radius " << R);
      const Maps got = maps_of(GetParam(), image, size, R, R + 1, 4.0f);
      const double radius = static_cast<double>(R);
      // Means of values of about 1 by float transforms; the root doubles what the squares' mean is off by.
      EXPECT_TRUE(all_near(got.average, windowed_mean(widened(image), size.nx, size.ny, radius, 4), 3e-6));
      EXPECT_TRUE(all_near(got.sigma, windowed_sigma(image, size.nx, size.ny, static_cast<double>(R + 1), 4), 1e-5));
    }
  }
}

TEST_P(LocalMaps, LeaveTheTransformForTheNextWindow) {
  const Size size{22, 16};
  const size_t n = 352;
  const std::vector<float> image = random_values(n, 3);
  MirrorPad pad = mirror_pad_new(size.nx, size.ny, GetParam());
  DiscWindow small = disc_window_new(&pad, 2.2f, 1.0f), large = disc_window_new(&pad, 5.2f, 3.0f);
  const auto in = to_device(image), first = unwritten(n), other = unwritten(n), sigma = unwritten(n),
             again = unwritten(n);
  hcuda_2d_mpad_transform(&pad, in.get());
  hcuda_2d_bg_mpad(&pad, &small, first.get());
  hcuda_2d_bg_mpad(&pad, &large, other.get());
  hcuda_2d_local_sigma_softR_mpad(&pad, &large, in.get(), sigma.get(), again.get());
  hcuda_2d_bg_mpad(&pad, &small, again.get());
  EXPECT_TRUE(same_bits(to_host(again, n), to_host(first, n)));
  EXPECT_TRUE(
      all_near(to_host(other, n), windowed_mean(widened(image), size.nx, size.ny, static_cast<double>(5.2f), 3), 3e-6));
  disc_window_free(&small);
  disc_window_free(&large);
  mirror_pad_free(&pad);
}
