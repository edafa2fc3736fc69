// Scans of small scenes: a micrograph, its mask and a template, and the maps or peaks that a scan finds.
#pragma once

#include "quorlin56.h"
#include "test_numeric.h"
#include "test_support.h"

struct Scene {
  int nx, ny, T_nx, T_ny;
  std::vector<float> mic, mask, T;
  float radius = 4.5f;

  size_t pixels() const { return mic.size(); }
};

struct Maps {
  std::vector<float> ccmax, psi;
};

/// Angles of a scan, degrees.
struct Angles {
  float start, stop, step;
  int count() const { return count_scan_angles(start, stop, step); }
};

constexpr float kUntouched = -77;

/// A random scene, a quarter of it masked. With a rim of zeros around the template it doesn't matter on which side of
/// the template's edge a rounded source position falls.
inline Scene random_scene(int nx, int ny, int T_nx, int T_ny, bool zero_rim) {
  const auto seed = static_cast<unsigned>(nx + 7 * T_nx + 13 * T_ny);
  const size_t n = pixel_index(0, ny, nx);
  Scene scene{nx,
              ny,
              T_nx,
              T_ny,
              random_values(n, seed),
              std::vector<float>(n, 1.0f),
              random_values(pixel_index(0, T_ny, T_nx), seed + 1, -0.5f, 1)};
  std::fill_n(scene.mask.begin(), n / 4, 0.0f);
  for (int y = 0; zero_rim && y < T_ny; y++)
    for (int x = 0; x < T_nx; x++)
      if (x == 0 || y == 0 || x == T_nx - 1 || y == T_ny - 1) scene.T[pixel_index(x, y, T_nx)] = 0;
  return scene;
}

/// What scan() prints must be a dot for each angle.
template <class Code>
void expect_dots(const Angles& angles, Code scan) {
  EXPECT_EQ(std::string(static_cast<size_t>(angles.count()), '.') + "\n", output_of(scan));
}

inline Maps maps_of(ScanWorkspace* ws, const Scene& scene, const Angles& angles, int keep_psi = 1) {
  const auto mic = to_device(scene.mic), mask = to_device(scene.mask), T = to_device(scene.T);
  const auto ccmax = unwritten(scene.pixels()), psi = to_device(std::vector<float>(scene.pixels(), kUntouched));
  expect_dots(angles, [&] {
    quorlin_transform_micrograph(ws, mic.get());
    EXPECT_EQ(0, quorlin_ccmax_psi_by_one_template(ws, mic.get(), mask.get(), ccmax.get(), psi.get(), keep_psi, T.get(),
                                                   scene.radius, angles.start, angles.stop, angles.step));
  });
  EXPECT_TRUE(same_bits(to_host(mic, scene.pixels()), scene.mic)) << "the scan changed the micrograph";
  EXPECT_TRUE(same_bits(to_host(T, scene.T.size()), scene.T)) << "the scan changed the template";
  return {to_host(ccmax, scene.pixels()), to_host(psi, scene.pixels())};
}
