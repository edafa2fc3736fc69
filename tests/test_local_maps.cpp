#include "conditioning/conditioning.h"
#include "test_numeric.h"
#include "test_support_pad_ways.h"

namespace {

struct Size {
  int nx, ny;
};

}  // namespace

struct LocalMaps : PadWayTest {};
INSTANTIATE_TEST_SUITE_P(Ways, LocalMaps, testing::ValuesIn(kPadWays), pad_way_name);

TEST_P(LocalMaps, AgreeWithDirectWindowedMeansOfTheMirroredImageWindowAfterWindow) {
  for (const Size size : {Size{22, 22}, Size{15, 15}, Size{26, 14}, Size{9, 20}, Size{24, 40}, Size{20, 12}}) {
    const std::vector<float> image = random_values(static_cast<size_t>(size.nx) * size.ny, 1, -2, 3);
    const size_t n = image.size();
    MirrorPad pad = mirror_pad_new(size.nx, size.ny, GetParam());
    const auto in = to_device(image), out = unwritten(n), scratch = unwritten(n);
    const float radii[] = {2.3f, 6.1f, 14.2f};  // the last one larger than some images
    std::vector<DiscWindow> windows;            // each made before the transform, whose buffers it uses
    for (const float R : radii) windows.push_back(disc_window_new(&pad, R, 4.0f));
    hcuda_2d_mpad_transform(&pad, in.get());
    for (size_t i = 0; i < windows.size(); i++) {
      const float R = radii[i];
      SCOPED_TRACE(testing::Message() << size.nx << " x " << size.ny << ", radius " << R);
      const double radius = static_cast<double>(R);
      const std::vector<double> mean = windowed_mean(widened(image), size.nx, size.ny, radius, 4);
      // Means of values of about 1 by float transforms; the root doubles what the squares' mean is off by.
      hcuda_2d_local_ave_softR_mpad(&pad, &windows[i], out.get());
      EXPECT_TRUE(all_near(to_host(out, n), mean, 3e-6));
      hcuda_2d_local_sigma_softR_mpad(&pad, &windows[i], in.get(), out.get(), scratch.get());
      EXPECT_TRUE(all_near(to_host(out, n), windowed_sigma(image, size.nx, size.ny, radius, 4), 1e-5));
      hcuda_2d_bg_mpad(&pad, &windows[i], out.get());
      EXPECT_TRUE(all_near(to_host(out, n), mean, 3e-6));
      disc_window_free(&windows[i]);
    }
    EXPECT_TRUE(same_bits(to_host(in, n), image)) << "the maps changed their input";
    mirror_pad_free(&pad);
  }
}
