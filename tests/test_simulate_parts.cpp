#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "simulate/ctf.h"
#include "simulate/phantom.h"
#include "simulate/random.h"
#include "simulate/scene.h"
#include "test_support_phantom.h"

namespace {

constexpr double kPi = 3.141592653589793;

using Matrix = std::vector<std::vector<double>>;

Matrix times(const Matrix& a, const Matrix& b) {
  Matrix c(3, std::vector<double>(3, 0));
  for (size_t i = 0; i < 3; i++)
    for (size_t j = 0; j < 3; j++)
      for (size_t k = 0; k < 3; k++) c[i][j] += a[i][k] * b[k][j];
  return c;
}

Matrix about_z(double degrees) {
  const double c = std::cos(degrees * kPi / 180), s = std::sin(degrees * kPi / 180);
  return {{c, s, 0}, {-s, c, 0}, {0, 0, 1}};
}

Matrix about_y(double degrees) {
  const double c = std::cos(degrees * kPi / 180), s = std::sin(degrees * kPi / 180);
  return {{c, 0, -s}, {0, 1, 0}, {s, 0, c}};
}

/// The integral of the density along the view through a point of the projection, by the trapezoid rule.
double integrate_along_view(const Phantom& phantom, const Orientation& o, double x, double y, int reach) {
  const Matrix turn = times(about_z(o.psi), times(about_y(o.tilt), about_z(o.rot)));
  double sum = 0;
  for (int z = -reach; z <= reach; z += 1) {
    double point[3];
    for (size_t i = 0; i < 3; i++) point[i] = turn[0][i] * x + turn[1][i] * y + turn[2][i] * z;
    sum += phantom_density(phantom, point[0], point[1], point[2]);
  }
  return sum;
}

/// Pearson's chi-square of Poisson counts against the distribution, and the number of classes it was taken
/// over.
double poisson_chi_square(double mean, int draws, int* classes) {
  Random random = random_stream(11, Stream::noise, 0, static_cast<uint64_t>(mean * 10));
  std::vector<double> counts(400, 0);
  for (int i = 0; i < draws; i++) counts[static_cast<size_t>(std::min(399L, random_poisson(&random, mean)))]++;
  double chi_square = 0;
  *classes = 0;
  for (int k = 0; k < 399; k++) {
    const double expected = draws * std::exp(k * std::log(mean) - mean - std::lgamma(k + 1.0));
    if (expected < 10) continue;
    chi_square += std::pow(counts[static_cast<size_t>(k)] - expected, 2) / expected;
    ++*classes;
  }
  return chi_square;
}

}  // namespace

TEST(Phantom, ProjectionIsTheIntegralOfTheDensityAlongTheView) {
  const Phantom phantom = make_phantom(260);
  for (const Orientation& o : {Orientation{0, 0, 0}, Orientation{30, 70, 200}, Orientation{211, 155, 16}}) {
    Spot spots[kBlobs];
    project_phantom(phantom, o, 0, spots);
    for (const double x : {-80.0, -20.0, 0.0, 45.0})
      for (const double y : {-60.0, 5.0, 90.0}) {
        const double integral = integrate_along_view(phantom, o, x, y, 250);
        EXPECT_NEAR(integral, sum_of_spots(spots, x, y), 1e-6 * std::max(1.0, integral)) << x << " " << y;
      }
  }
}

TEST(Phantom, DrawingPutsTheCentreOnItsPixelAndAppliesThePixelSize) {
  const Phantom phantom = make_phantom(260);
  Spot spots[kBlobs];
  project_phantom(phantom, {10, 20, 30}, 0, spots);
  std::vector<float> image(90 * 70, 0);
  add_projection(spots, 40.25, 33.5, 4, image.data(), 88, 70, 90);
  for (const int x : {25, 40, 50})
    for (const int y : {20, 33, 45})
      EXPECT_NEAR(sum_of_spots(spots, (x - 40.25) * 4, (y - 33.5) * 4), image[static_cast<size_t>(y * 90 + x)], 2e-3)
          << "floats, and spots end at 5 sigma";
}

TEST(Phantom, LiesWithinItsDiameterAndHasNoSymmetry) {
  const Phantom phantom = make_phantom(100);
  double all = 0, beyond = 0, reach = 0;
  for (int x = -70; x <= 70; x += 2)
    for (int y = -70; y <= 70; y += 2)
      for (int z = -70; z <= 70; z += 2) {
        const double r = std::sqrt(1.0 * (x * x + y * y + z * z)), density = phantom_density(phantom, x, y, z);
        all += density;
        if (r > 50) beyond += density;
        if (density > 0.25) reach = std::max(reach, r);
      }
  EXPECT_LT(beyond, 0.01 * all);
  EXPECT_GT(reach, 40) << "fills its diameter";

  Spot spots[kBlobs];
  project_phantom(phantom, {0, 0, 0}, 0, spots);
  const auto likeness = [&](double xx, double xy, double yx, double yy) {
    double product = 0, first = 0, second = 0;
    for (int x = -60; x <= 60; x += 3)
      for (int y = -60; y <= 60; y += 3) {
        const double a = sum_of_spots(spots, x, y), b = sum_of_spots(spots, xx * x + xy * y, yx * x + yy * y);
        product += a * b;
        first += a * a;
        second += b * b;
      }
    return product / std::sqrt(first * second);
  };
  EXPECT_NEAR(1, likeness(1, 0, 0, 1), 1e-12);
  EXPECT_LT(likeness(-1, 0, 0, -1), 0.95) << "half turn";
  EXPECT_LT(likeness(-1, 0, 0, 1), 0.95) << "mirrored";
}

TEST(Phantom, LowPassHalvesTheAmplitudeAtItsResolutionAndKeepsTheMass) {
  const Phantom phantom = make_phantom(260);
  Spot sharp[kBlobs], smooth[kBlobs];
  project_phantom(phantom, {50, 60, 70}, 0, sharp);
  project_phantom(phantom, {50, 60, 70}, 30, smooth);
  const auto amplitude = [](const Spot* spots, double k) {
    double re = 0, im = 0;
    for (int x = -260; x <= 260; x += 4)
      for (int y = -260; y <= 260; y += 4) {
        re += sum_of_spots(spots, x, y) * std::cos(2 * kPi * k * x);
        im += sum_of_spots(spots, x, y) * std::sin(2 * kPi * k * x);
      }
    return std::hypot(re, im);
  };
  EXPECT_NEAR(1, amplitude(smooth, 0) / amplitude(sharp, 0), 1e-6);
  EXPECT_NEAR(0.5, amplitude(smooth, 1.0 / 30) / amplitude(sharp, 1.0 / 30), 1e-4);
}

TEST(Ctf, WavelengthIsThatOfRelativisticElectrons) {
  EXPECT_NEAR(0.037014, electron_wavelength(100), 2e-6);
  EXPECT_NEAR(0.025079, electron_wavelength(200), 2e-6);
  EXPECT_NEAR(0.019687, electron_wavelength(300), 2e-6);
}

TEST(Ctf, AgreesWithTheFormInPhaseAndAmplitudeContrastInMetres) {
  const Optics optics = {300, 15000, 2.7, 0.1, 0};
  const double lambda = 1.96875e-12, cs = 2.7e-3, defocus = 1.5e-6;
  for (const double resolution : {1000.0, 60.0, 25.0, 12.0, 7.0, 4.1}) {
    const double g = 1e10 / resolution;
    const double chi = kPi * lambda * g * g * (defocus - 0.5 * lambda * lambda * g * g * cs);
    const double expected = -std::sqrt(1 - 0.01) * std::sin(chi) - 0.1 * std::cos(chi);
    EXPECT_NEAR(expected, ctf_value(optics, 1 / resolution), 2e-4) << resolution << " Å: five digits of lambda";
  }
  EXPECT_DOUBLE_EQ(-0.1, ctf_value(optics, 0)) << "density is dark";
  EXPECT_NEAR(-1, ctf_value(optics, 1 / 25.0), 0.02) << "first maximum";
}

TEST(Ctf, ScalesAWaveByItsValueAtThatFrequencyAndLeavesItsPhase) {
  const Optics optics = {300, 12000, 2.7, 0.1, 0};
  Canvas canvas;
  ASSERT_TRUE(canvas_new(&canvas, 60, 42));
  const double apix = 3, kx = 4 / (60 * apix), ky = -3 / (42 * apix), k = std::hypot(kx, ky);
  const auto wave = [&](int x, int y) { return std::cos(2 * kPi * apix * (kx * x + ky * y) + 0.7); };
  for (int y = 0; y < 42; y++)
    for (int x = 0; x < 60; x++) canvas.image[y * canvas.stride + x] = static_cast<float>(wave(x, y));
  canvas_apply_ctf(&canvas, apix, optics, 1 / k);
  double worst = 0;
  for (int y = 0; y < 42; y++)
    for (int x = 0; x < 60; x++) {
      const double expected = 0.5 * ctf_value(optics, k) * wave(x, y);
      worst = std::max(worst, std::fabs(canvas.image[y * canvas.stride + x] - expected));
    }
  EXPECT_LT(worst, 2e-6) << "single precision";
  canvas_free(&canvas);
}

TEST(Ctf, TransformSizesAreEvenAndHaveSmallFactors) {
  EXPECT_EQ(16, transform_size(16));
  EXPECT_EQ(18, transform_size(17));
  EXPECT_EQ(24, transform_size(22));
  EXPECT_EQ(4116, transform_size(4100));
}

TEST(Random, PoissonCountsFollowTheDistributionByEitherMethod) {
  for (const double mean : {0.4, 4.0, 9.5, 10.5, 72.0, 180.0}) {
    int classes = 0;
    const double chi_square = poisson_chi_square(mean, 200000, &classes);
    // chi-square has mean n and deviation sqrt(2n); five deviations leave no room for a wrong distribution
    EXPECT_LT(chi_square, classes + 5 * std::sqrt(2.0 * classes)) << mean << " in " << classes << " classes";
    EXPECT_GT(classes, 3);
  }
  Random random = random_stream(1, Stream::noise, 0, 0);
  EXPECT_EQ(0, random_poisson(&random, 0));
}

TEST(Random, GaussHasMomentsOfTheNormalDistributionAndStreamsDiffer) {
  Random random = random_stream(3, Stream::scene, 0, 0);
  double moment[5] = {0, 0, 0, 0, 0};
  constexpr int kDraws = 200000;
  for (int i = 0; i < kDraws; i++) {
    const double value = random_gauss(&random);
    for (int k = 1; k <= 4; k++) moment[k] += std::pow(value, k) / kDraws;
  }
  EXPECT_NEAR(0, moment[1], 0.012);  // five deviations of each mean
  EXPECT_NEAR(1, moment[2], 0.016);
  EXPECT_NEAR(0, moment[3], 0.044);
  EXPECT_NEAR(3, moment[4], 0.11);

  Random one = random_stream(3, Stream::scene, 0, 1), two = random_stream(3, Stream::scene, 1, 0);
  EXPECT_NE(random_bits(&one), random_bits(&two));
}

TEST(Scene, ParticlesKeepTheirDistancesAndKnowWhatTheyLieOn) {
  Settings settings = {};
  settings.nx = 1200;
  settings.ny = 900;
  settings.apix = 4;
  settings.diameter = 200;
  settings.count = 60;
  settings.min_spacing = 220;
  settings.margin = 140;
  settings.ice = 12;
  settings.carbon = 0.25;
  const Scene scene = make_scene(settings, 1);
  ASSERT_EQ(60U, scene.particles.size());
  int flagged = 0;
  double tilt_cosine = 0;
  for (size_t i = 0; i < scene.particles.size(); i++) {
    const TrueParticle& p = scene.particles[i];
    EXPECT_GE(std::min({p.x, p.y, 1199 - p.x, 899 - p.y}), 34.5);
    for (size_t j = 0; j < i; j++) EXPECT_GE(std::hypot(p.x - scene.particles[j].x, p.y - scene.particles[j].y), 55);
    bool on_ice = false;
    for (const IceCrystal& crystal : scene.ice) on_ice |= ice_depth(crystal, p.x, p.y, 4) > 0.01;
    EXPECT_EQ(on_ice, (p.contamination & kOnIce) != 0);
    EXPECT_EQ(carbon_depth(scene.carbon, p.x, p.y, 4) > 0.01, (p.contamination & kOnCarbon) != 0);
    flagged += p.contamination != kClean;
    tilt_cosine += std::cos(p.tilt * kPi / 180) / 60;
  }
  EXPECT_GT(flagged, 5);
  EXPECT_LT(flagged, 55);
  EXPECT_NEAR(0, tilt_cosine, 0.38) << "uniform on [-1, 1], five deviations of the mean";
}

TEST(Scene, CarbonCoversItsShareAndIceIsOfTheSizeTold) {
  Settings settings = {};
  settings.nx = 1500;
  settings.ny = 1000;
  settings.apix = 2;
  settings.ice = 40;
  settings.carbon = 0.3;
  const Scene scene = make_scene(settings, 7);
  int covered = 0;
  for (int y = 5; y < 1000; y += 10)
    for (int x = 5; x < 1500; x += 10) covered += contamination_at({scene.areas[0]}, x, y) == kOnCarbon;
  EXPECT_NEAR(0.3, covered / 15000.0, 0.01);
  for (const IceCrystal& crystal : scene.ice) {
    double across = 0;
    for (int i = 0; i < 180; i++)
      across = std::max(across, ice_outline(crystal, i * kPi / 180) + ice_outline(crystal, (i + 180) * kPi / 180));
    EXPECT_GT(across * 2, 110);
    EXPECT_LE(across * 2, 400.001);
  }
}
