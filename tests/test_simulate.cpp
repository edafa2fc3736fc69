#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/truth_file.h"
#include "simulate/phantom.h"
#include "test_support_image.h"
#include "test_support_phantom.h"
#include "test_support_programs.h"

namespace {

class Simulate : public FolderTest {
 protected:
  /// Runs kestrix_simulate on a small micrograph, later options of the same name overriding.
  ProgramRun run(const std::string& options, const std::string& environment = "") const {
    return run_program(path("."),
                       environment + " " KESTRIX_SIMULATE " --nx 500 --ny 380 --apix 2.68 --templates 0 " + options);
  }
  void simulate(const std::string& options, const std::string& environment = "") const {
    const ProgramRun result = run(options, environment);
    ASSERT_EQ(0, result.status) << result.errors;
  }
};

double variance(const std::vector<double>& values) {
  double sum = 0, square = 0;
  for (const double value : values) {
    sum += value;
    square += value * value;
  }
  const auto n = static_cast<double>(values.size());
  return square / n - sum / n * (sum / n);
}

/// The values of an image within a distance of any of the particles.
std::vector<double> values_near(const Image& image, const std::vector<TrueParticle>& particles, double radius) {
  std::vector<double> values;
  for (long y = 0; y < image.head.ny; y++)
    for (long x = 0; x < image.head.nx; x++)
      for (const TrueParticle& p : particles)
        if (std::hypot(static_cast<double>(x) - p.x, static_cast<double>(y) - p.y) <= radius)
          values.push_back(image.at(x, y));
  return values;
}

}  // namespace

TEST_F(Simulate, HasTheSignalToNoiseRatioAskedForAndDarkParticles) {
  const std::string options = "--snr 0.05 --gradient 0 --nx 800 --count 7 ";
  simulate(options + "--prefix noisy");
  simulate(options + "--prefix clean --noise_free");
  const Image noisy = read_image(path("noisy001.mrc")), clean = read_image(path("clean001.mrc"));
  const std::vector<TrueParticle> truth = read_truth(path("clean001_truth.star").c_str());
  ASSERT_EQ(7U, truth.size());
  std::vector<double> noise;
  for (size_t i = 0; i < noisy.data.size(); i++) noise.push_back(noisy.data[i] - clean.data[i]);
  const double measured = variance(values_near(clean, truth, 130 / 2.68)) / variance(noise);
  EXPECT_NEAR(0.05, measured, 0.05 * 0.03) << "the variance of the noise is measured to 0.3 %";

  double inside = 0, all = 0;
  for (const double value : values_near(clean, truth, 80 / 2.68)) inside += value;
  for (const float value : clean.data) all += value;
  inside /= static_cast<double>(values_near(clean, truth, 80 / 2.68).size());
  EXPECT_LT(inside, all / static_cast<double>(clean.data.size()) - 1) << "electrons per pixel";
  EXPECT_NEAR(40 * 2.68 * 2.68, all / static_cast<double>(clean.data.size()), 2);
}

TEST_F(Simulate, TruthIsWhereTheParticlesAre) {
  simulate("--no_ctf --noise_free --gradient 0 --coverage 0.2 --min_spacing 340");
  const Image image = read_image(path("sim_001.mrc"));
  const double background = 40 * 2.68 * 2.68;
  for (const TrueParticle& p : read_truth(path("sim_001_truth.star").c_str())) {
    double mass = 0, x_moment = 0, y_moment = 0;
    for (long y = 0; y < image.head.ny; y++)
      for (long x = 0; x < image.head.nx; x++) {
        const double dx = static_cast<double>(x) - p.x, dy = static_cast<double>(y) - p.y;
        if (std::hypot(dx, dy) > 58) continue;
        const double depth = background - image.at(x, y);
        mass += depth;
        x_moment += depth * dx;
        y_moment += depth * dy;
      }
    EXPECT_GT(mass, 0);
    EXPECT_NEAR(0, x_moment / mass, 0.02);
    EXPECT_NEAR(0, y_moment / mass, 0.02);
  }
}

TEST_F(Simulate, SameSeedGivesTheSameBytesOnAnyNumberOfThreadsAndAnotherSeedOthers) {
  const std::string options = "--ice 2 --carbon 0.2 --number 2 --templates 2 ";
  simulate(options + "--prefix a", "OMP_NUM_THREADS=1");
  simulate(options + "--prefix b", "OMP_NUM_THREADS=3");
  simulate(options + "--prefix c --seed 2");
  for (const char* suffix : {"001.mrc", "002.mrc", "001_truth.star", "001_areas.star", "templates.mrcs"}) {
    const std::string bytes = read_file(path("a") + suffix);
    ASSERT_FALSE(bytes.empty());
    EXPECT_TRUE(bytes == read_file(path("b") + suffix)) << suffix;
    EXPECT_EQ(strcmp(suffix, "templates.mrcs") == 0, bytes == read_file(path("c") + suffix)) << suffix;
  }
  EXPECT_FALSE(read_file(path("a001.mrc")) == read_file(path("a002.mrc")));
}

TEST_F(Simulate, EverySampleTypeHoldsTheSameImage) {
  const std::string options = "--dose 12 --ice 1 ";
  simulate(options + "--prefix m2");
  simulate(options + "--noise_free --prefix f");
  const Image floats = read_image(path("m2001.mrc")), exact = read_image(path("f001.mrc"));
  for (const char* mode : {"0", "1", "6"}) {
    simulate(options + "--mode " + mode + " --prefix m" + mode);
    const Image other = read_image(path(std::string("m") + mode + "001.mrc"));
    EXPECT_EQ(atoi(mode), other.head.mode);
    EXPECT_TRUE(floats.data == other.data) << "counts are whole numbers";
    simulate(options + "--noise_free --mode " + mode + " --prefix n");
    const Image rounded = read_image(path("n001.mrc"));
    for (size_t i = 0; i < exact.data.size(); i++) ASSERT_NEAR(exact.data[i], rounded.data[i], 0.5001);
  }
}

TEST_F(Simulate, HeaderTellsSizesPixelSizeAndStatistics) {
  simulate("--frames 3 --dose 2 --mode 1");
  const Image image = read_image(path("sim_001.mrc"));
  EXPECT_EQ(500, image.head.nx);
  EXPECT_EQ(380, image.head.ny);
  EXPECT_EQ(3, image.head.nz);
  EXPECT_FLOAT_EQ(2.68F, image.head.xlen / static_cast<float>(image.head.mx));
  EXPECT_FLOAT_EQ(2.68F, image.head.ylen / static_cast<float>(image.head.my));
  const std::vector<double> samples(image.data.begin(), image.data.end());
  double sum = 0;
  for (const double sample : samples) sum += sample;
  EXPECT_NEAR(sum / static_cast<double>(samples.size()), image.head.amean, 1e-4);
  EXPECT_NEAR(std::sqrt(variance(samples)), image.head.rms, 1e-4);
  EXPECT_EQ(*std::min_element(image.data.begin(), image.data.end()), image.head.amin);
  EXPECT_EQ(*std::max_element(image.data.begin(), image.data.end()), image.head.amax);
}

TEST_F(Simulate, SectionsOfAMovieShowTheSameParticlesInNewNoise) {
  simulate("--frames 3 --dose 2 --prefix movie");
  simulate("--dose 2 --prefix single");
  const Image movie = read_image(path("movie001.mrc")), single = read_image(path("single001.mrc"));
  const size_t n = single.data.size();
  EXPECT_TRUE(std::equal(single.data.begin(), single.data.end(), movie.data.begin()));
  std::vector<double> difference;
  for (size_t i = 0; i < n; i++) difference.push_back(movie.data[n + i] - movie.data[2 * n + i]);
  const double count = 2 * 2.68 * 2.68;
  EXPECT_NEAR(2 * count, variance(difference), 0.02 * 2 * count) << "the particles cancel, two noises add";
}

TEST_F(Simulate, IceAndCarbonAreDarkAndTextured) {
  simulate("--nx 700 --carbon 0.3 --ice 6 --count 0 --gradient 0 --noise_free --seed 4");
  const Image image = read_image(path("sim_001.mrc"));
  const std::vector<Area> areas = read_areas(path("sim_001_areas.star").c_str());
  ASSERT_EQ(7U, areas.size());
  std::vector<double> values[4];
  for (long y = 0; y < image.head.ny; y += 2)
    for (long x = 0; x < image.head.nx; x += 2)
      values[contamination_at(areas, static_cast<double>(x), static_cast<double>(y))].push_back(image.at(x, y));
  const auto mean = [](const std::vector<double>& v) {
    double sum = 0;
    for (const double value : v) sum += value;
    return sum / static_cast<double>(v.size());
  };
  const double clean = mean(values[kClean]);
  EXPECT_NEAR(0.92, mean(values[kOnCarbon]) / clean, 0.03);
  EXPECT_NEAR(0.85, mean(values[kOnIce]) / clean, 0.06);
  EXPECT_GT(std::sqrt(variance(values[kOnCarbon])), 0.05 * clean);
  EXPECT_GT(std::sqrt(variance(values[kOnIce])), 0.08 * clean);
  EXPECT_LT(std::sqrt(variance(values[kClean])), 0.02 * clean) << "fringes of the edges only";
}

TEST_F(Simulate, TemplatesAreBrightProjectionsOnZeroAtTheirOwnPixelSize) {
  simulate("--number 0 --templates 5 --apix 1.34");
  const Image stack = read_image(path("sim_templates.mrcs"));
  EXPECT_EQ(122, stack.head.nx);
  EXPECT_EQ(122, stack.head.ny);
  EXPECT_EQ(5, stack.head.nz);
  EXPECT_FLOAT_EQ(2.68F, stack.head.xlen / static_cast<float>(stack.head.mx));
  Spot spots[kBlobs];
  // the first of five directions: a fifth of the sphere's caps, cos(tilt) = 0.8, rot 0
  project_phantom(make_phantom(260), {0, 36.86989764584402, 0}, 20, spots);
  for (const int x : {0, 40, 60, 61, 75})
    for (const int y : {0, 45, 61, 80})
      EXPECT_NEAR(sum_of_spots(spots, (x - 60.5) * 2.68, (y - 60.5) * 2.68), stack.at(x, y), 0.02);
  EXPECT_LT(stack.at(0, 0), 1e-3F);
  EXPECT_GT(stack.at(60, 60), 1.0F);
}

TEST_F(Simulate, RefusesWhatItCannotDoWithAMessageThatNamesTheOption) {
  const char* const cases[][2] = {{"--nx 0", "--nx is 0"},
                                  {"--nx ten", "--nx is 'ten'"},
                                  {"--nx 99999999999999999999", "--nx is 9999"},
                                  {"--nx 60000 --ny 60000", "too many"},
                                  {"--apix nan", "--apix is 'nan'"},
                                  {"--apix 0", "--apix is 0"},
                                  {"--apix 1e300", "--apix is 1e300"},
                                  {"--mode 3", "--mode is 3"},
                                  {"--mode 0 --dose 100", "lower --dose"},
                                  {"--snr -1", "--snr is -1"},
                                  {"--snr 900 --dose 1", "raise the dose"},
                                  {"--count 5000", "find room"},
                                  {"--margin 5000 --count 1", "find room"},
                                  {"--diameter 12", "--diameter is 12"},
                                  {"--prefix nowhere/x", "cannot write nowhere/x001.mrc"},
                                  {"--wrong 1", "no option --wrong"},
                                  {"stray.mrc", "'stray.mrc'"},
                                  {"--seed", "--seed lacks its value"}};
  for (const auto& one : cases) {
    const ProgramRun result = run(one[0]);
    EXPECT_EQ(1, result.status) << one[0];
    EXPECT_NE(std::string::npos, result.errors.find(one[1])) << one[0] << ": " << result.errors;
  }
  EXPECT_EQ(0, run("--help").status);
  EXPECT_NE(std::string::npos, run("--help").output.find("--snr"));
}
