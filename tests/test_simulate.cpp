// kestrix_simulate: its images as a whole, then what they are made of.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "simulate/ctf.h"
#include "simulate/random.h"
#include "test_support_runs.h"

namespace {

/// Runs kestrix_simulate on a small micrograph, later options of the same name overriding.
struct Simulate : FolderTest {
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
  return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
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

  const MRC_HEAD& head = movie.head;
  EXPECT_TRUE(head.nx == 500 && head.ny == 380);
  EXPECT_FLOAT_EQ(2.68F, head.xlen / head.mx);
  EXPECT_FLOAT_EQ(2.68F, head.ylen / head.my);
  EXPECT_NEAR(mean(widened(movie.data)), head.amean, 1e-4);
  EXPECT_NEAR(std::sqrt(variance(widened(movie.data))), head.rms, 1e-4);
  const auto [least, most] = std::minmax_element(movie.data.begin(), movie.data.end());
  EXPECT_TRUE(head.amin == *least && head.amax == *most);
}

TEST_F(Simulate, RefusesWhatItCannotDoWithAMessageThatNamesTheOption) {
  for (const auto& [options, words] : golden_cases("refused_by_simulate.txt")) expect_refused(run(options), words);
  EXPECT_EQ(0, run("--help").status);
  EXPECT_TRUE(holds(run("--help").output, "--snr"));
}

// --- What they are made of ---

TEST(Ctf, HasTheValuesOfItsFormInPhaseAndAmplitudeContrast) {
  const Optics optics = {300, 15000, 2.7, 0.1, 0};
  EXPECT_DOUBLE_EQ(-0.1, ctf_value(optics, 0)) << "density is dark";
  EXPECT_NEAR(-1, ctf_value(optics, 1 / 25.0), 0.02) << "first maximum";
  EXPECT_NEAR(0.67299, ctf_value(optics, 1 / 4.1), 2e-4) << "five digits of lambda";
}

TEST(Random, PoissonCountsHaveTheMomentsOfTheDistributionByEitherMethod) {
  constexpr int n = 200000;
  for (const double lambda : {0.4, 4.0, 9.5, 10.5, 72.0, 180.0}) {
    Random random = random_stream(11, Stream::noise, 0, static_cast<uint64_t>(lambda * 10));
    std::vector<double> counts, cubes;
    for (int i = 0; i < n; i++) counts.push_back(static_cast<double>(random_poisson(&random, lambda)));
    for (const double count : counts) cubes.push_back(std::pow(count - lambda, 3));
    // Mean, variance and third central moment are all lambda; within five deviations of such estimates.
    EXPECT_NEAR(lambda, mean(counts), 5 * std::sqrt(lambda / n));
    EXPECT_NEAR(lambda, variance(counts), 5 * std::sqrt((lambda + 2 * lambda * lambda) / n));
    EXPECT_NEAR(lambda, mean(cubes), 5 * std::sqrt(variance(cubes) / n));
  }
}
