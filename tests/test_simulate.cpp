// kestrix_simulate: its images as a whole, then what they are made of.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "simulate/ctf.h"
#include "simulate/random.h"
#include "test_support_runs.h"

namespace {

constexpr double kPi = 3.141592653589793;

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

double mean(const std::vector<double>& values) {
  double sum = 0;
  for (const double value : values) sum += value;
  return sum / static_cast<double>(values.size());
}

double variance(std::vector<double> values) {
  const double centre = mean(values);
  for (double& value : values) value = (value - centre) * (value - centre);
  return mean(values);
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

  const double all = mean(widened(clean.data));
  EXPECT_LT(mean(values_near(clean, truth, 80 / 2.68)), all - 1) << "electrons per pixel";
  EXPECT_NEAR(40 * 2.68 * 2.68, all, 2);
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

TEST_F(Simulate, MovieShowsTheSameParticlesInNewNoiseAndItsHeaderTellsItsStatistics) {
  simulate("--frames 3 --dose 2 --mode 1 --prefix movie");
  simulate("--dose 2 --prefix single");
  const Image movie = read_image(path("movie001.mrc")), single = read_image(path("single001.mrc"));
  const size_t n = single.data.size();
  ASSERT_EQ(3 * n, movie.data.size());
  EXPECT_TRUE(std::equal(single.data.begin(), single.data.end(), movie.data.begin()));
  std::vector<double> difference;
  for (size_t i = 0; i < n; i++) difference.push_back(movie.data[n + i] - movie.data[2 * n + i]);
  const double count = 2 * 2.68 * 2.68;
  EXPECT_NEAR(2 * count, variance(difference), 0.02 * 2 * count) << "the particles cancel, two noises add";

  EXPECT_EQ(500, movie.head.nx);
  EXPECT_EQ(380, movie.head.ny);
  EXPECT_FLOAT_EQ(2.68F, movie.head.xlen / static_cast<float>(movie.head.mx));
  EXPECT_FLOAT_EQ(2.68F, movie.head.ylen / static_cast<float>(movie.head.my));
  EXPECT_NEAR(mean(widened(movie.data)), movie.head.amean, 1e-4);
  EXPECT_NEAR(std::sqrt(variance(widened(movie.data))), movie.head.rms, 1e-4);
  EXPECT_EQ(*std::min_element(movie.data.begin(), movie.data.end()), movie.head.amin);
  EXPECT_EQ(*std::max_element(movie.data.begin(), movie.data.end()), movie.head.amax);
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

// --- What they are made of ---

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

TEST(Random, PoissonCountsFollowTheDistributionByEitherMethod) {
  for (const double mean_count : {0.4, 4.0, 9.5, 10.5, 72.0, 180.0}) {
    Random random = random_stream(11, Stream::noise, 0, static_cast<uint64_t>(mean_count * 10));
    std::vector<double> counts(400, 0);
    for (int i = 0; i < 200000; i++) counts[static_cast<size_t>(std::min(399L, random_poisson(&random, mean_count)))]++;
    double chi_square = 0, classes = 0;  // Pearson's, and over how many classes
    for (size_t k = 0; k < 399; k++) {
      const auto n = static_cast<double>(k);
      const double expected = 200000 * std::exp(n * std::log(mean_count) - mean_count - std::lgamma(n + 1));
      if (expected < 10) continue;
      chi_square += std::pow(counts[k] - expected, 2) / expected;
      classes++;
    }
    // chi-square has mean n and deviation sqrt(2n); five deviations leave no room for a wrong distribution
    EXPECT_LT(chi_square, classes + 5 * std::sqrt(2 * classes)) << mean_count;
    EXPECT_GT(classes, 3);
  }
}
