// Whole runs of the program on small simulated micrographs.
#pragma once

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "common/truth_file.h"
#include "score/matching.h"
#include "score/picks.h"
#include "test_numeric.h"
#include "test_support.h"

/// A folder in which micrographs are simulated and picked: 1024 x 900 pixels of 4 Å with some 45 particles of 260 Å,
/// clear to see, unless options say otherwise. Programs run on one thread.
class WholeRun : public FolderTest {
 protected:
  void SetUp() override { REQUIRE_DEVICE(); }

  /// Writes sim_001.mrc and the files that belong to it; later options of the same name override.
  void simulate(const std::string& options = "") const {
    const ProgramRun run = run_program(path("."), "OMP_NUM_THREADS=1 " KESTRIX_SIMULATE
                                                  " --nx 1024 --ny 900 --apix 4 --dose 10 --snr 0.03 --seed 3"
                                                  " --templates 0 " +
                                                      options);
    ASSERT_EQ(0, run.status) << run.errors;
  }

  /// Runs the program with the arguments as they are, in the folder. A sanitizer's finding counts as a failure, as
  /// does a run of more than four minutes (one takes seconds, a device that is emulated a minute and more).
  ProgramRun kestrix(const std::string& arguments, const std::string& environment = "OMP_NUM_THREADS=1") const {
    const std::string sanitizers = "ASAN_OPTIONS=exitcode=99 UBSAN_OPTIONS=exitcode=99 ";
    ProgramRun run = run_program(path("."), sanitizers + environment + " timeout 240 " KESTRIX_PROGRAM " " + arguments);
    EXPECT_LT(run.status, 99) << arguments << ": " << run.errors;
    EXPECT_GE(run.status, 0) << arguments << ": " << run.errors;
    return run;
  }

  /// The same with the micrographs' pixel size and particle diameter, on sim_001.mrc; must succeed.
  ProgramRun pick(const std::string& options, const std::string& environment = "OMP_NUM_THREADS=1") const {
    ProgramRun run = kestrix("--apixM 4 --diameter 260 --cc_cutoff 0.25 sim_001.mrc " + options, environment);
    EXPECT_EQ(0, run.status) << options << ": " << run.output << run.errors;
    return run;
  }

  bool exists(const std::string& name) const { return std::filesystem::exists(path(name)); }
  void remove_file(const std::string& name) const { std::filesystem::remove(path(name)); }
  void copy_file(const std::string& from, const std::string& to) const {
    std::filesystem::copy_file(path(from), path(to));
  }
  std::string content(const std::string& name) const { return read_file(path(name)); }
  std::vector<Pick> picks(const std::string& name) const { return read_picks(path(name).c_str()); }
  Image image(const std::string& suffix) const { return read_image(path("sim_001" + suffix)); }

  /// The numbers of a list's lines.
  std::vector<std::vector<double>> rows(const std::string& list) const {
    std::istringstream lines(content(list));
    std::vector<std::vector<double>> all;
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      all.emplace_back(std::istream_iterator<double>(words), std::istream_iterator<double>());
    }
    return all;
  }

  /// The names of the files of sim_001.mrc that runs have written, less "sim_001", each followed by a blank.
  std::string outputs() const {
    std::string found;
    for (const char* suffix : {"_bg.mrc", "_bgfree.mrc", "_ccmax.mrc", "_lsigma.mrc", "_mask.mrc", "_nonunique.box",
                               "_particles.mrcs", "_pref.mrc", "_quorlin.box", "_quorlin.star", "_rejected.box",
                               "_rejected.star", "_quorlin.box~", "_quorlin.star~"})
      if (exists(std::string("sim_001") + suffix)) found += std::string(suffix) + " ";
    return found;
  }

  /// How the picks of a list agree with the truth about sim_001.mrc, within half a particle's radius.
  Score score(const std::string& list = "sim_001_quorlin.star") const {
    const std::vector<TrueParticle> truth = read_truth(path("sim_001_truth.star").c_str());
    const std::vector<Pick> found = picks(list);
    const bool has_areas = exists("sim_001_areas.star");
    const std::vector<Area> areas = has_areas ? read_areas(path("sim_001_areas.star").c_str()) : std::vector<Area>();
    return score_matching(truth, found, match_picks(truth, found, 0.5 * 130 / 4), has_areas ? &areas : nullptr);
  }
};

/// Runs of micrographs of 300 x 280 pixels of 8 Å.
class SmallRun : public WholeRun {
 protected:
  void simulate_small(const std::string& options = "") const {
    simulate("--nx 300 --ny 280 --apix 8 --dose 2 " + options);
  }

  ProgramRun run(const std::string& options) const { return kestrix("--apixM 8 --diameter 260 " + options); }

  /// The run must end with status 1 by a line that holds the words. Returns what is before that line.
  std::string expect_fatal(const std::string& options, const std::string& words) const {
    const ProgramRun result = run(options);
    EXPECT_EQ(1, result.status) << options;
    EXPECT_TRUE(ends_with(result.output, "! Exit now!\n")) << options << ": " << result.output;
    const size_t line = std::min(result.output.rfind("Error in function "), result.output.rfind("Cannot "));
    EXPECT_TRUE(holds(result.output.substr(std::min(line, result.output.size())), words)) << options << result.output;
    return result.output.substr(0, line);
  }
};
