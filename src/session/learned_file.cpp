#include "session/learned_file.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "formats/star_blocks.h"
#include "platform/failure.h"
#include "platform/host_memory.h"
#include "platform/outputs.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "learned_file";
constexpr char kFacts[] = "kestrix_learned";
constexpr char kProfile[] = "kestrix_learned_profile";

// Radii of a profile at the most: templates are smaller than working images.
constexpr size_t kMostRadii = 1 << 20;

// No value of a whole file comes near it, and it fits an int.
constexpr double kMost = 1e9;

constexpr struct {
  CutoffRule rule;
  const char* word;
} kRules[] = {{kNoParticles, "none"}, {kValley, "valley"}, {kMostSigmas, "counts"}};

const char* word_of(CutoffRule rule) {
  for (const auto& known : kRules)
    if (known.rule == rule) return known.word;
  return kRules[0].word;
}

[[noreturn]] void refuse(const std::string& name, const std::string& what) {
  KESTRIX_FATAL(
      "--learned %s can't be used: %s. Name another file, or remove this one and give --learn_from N to learn anew",
      name.c_str(), what.c_str());
}

/// A file's blocks, whose values are there and numbers, or the run ends.
class LearnedReader {
 public:
  explicit LearnedReader(const std::string& name) : name_(name) {
    std::ifstream text(name);
    if (!text) refuse(name_, std::string("it can't be read, ") + strerror(errno));
    blocks_ = read_star_blocks(text);
  }

  LearnedPicks read() const {
    LearnedPicks learned{};
    learned.diameter = number("_kestrixDiameter", 0);
    learned.apix = number("_kestrixPixelSize", 0);
    learned.bright = word("_kestrixBrightParticles") == "1";
    learned.rule = rule();
    learned.micrographs = static_cast<int>(number("_kestrixMicrographs", -1));
    learned.peaks = static_cast<int>(number("_kestrixPeaks", -1));
    if (learned.rule == kNoParticles) return learned;
    learned.share = share();
    learned.mean = word("_kestrixTemplate") == "mean";
    learned.band_size = number("_kestrixBandSize", 0);
    learned.cutoff = number("_kestrixCutoff", 0);
    learned.least = number("_kestrixLeastScore", -kMost);
    learned.decoys = value(word("_kestrixDecoys"), "_kestrixDecoys", 0);
    learned.found = profile(number("_kestrixRadiusStep", 0));
    return learned;
  }

 private:
  const StarBlock& block(const char* name) const {
    for (const StarBlock& one : blocks_)
      if (one.name == name) return one;
    refuse(name_, std::string("it has no block data_") + name);
  }

  std::string word(const char* label) const {
    const StarBlock& facts = block(kFacts);
    const int column = facts.column(label);
    if (column < 0 || facts.rows.size() != 1) refuse(name_, std::string("it is damaged, there is no ") + label);
    return facts.rows[0][static_cast<size_t>(column)];
  }

  double value(const std::string& text, const char* label, double above) const {
    char* end = nullptr;
    const double read = strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !std::isfinite(read) || !(read > above) || read > kMost)
      refuse(name_, std::string("it is damaged, ") + label + " is " + text);
    return read;
  }

  float number(const char* label, double above) const { return static_cast<float>(value(word(label), label, above)); }

  CutoffRule rule() const {
    const std::string text = word("_kestrixRule");
    for (const auto& known : kRules)
      if (text == known.word) return known.rule;
    refuse(name_, "it is damaged, _kestrixRule is " + text);
  }

  float share() const {
    const float read = number("_kestrixSizeShare", 0);
    for (const float known : kSizeShares)
      if (std::fabs(read - known) < 1e-4f) return known;
    refuse(name_, "it is damaged, _kestrixSizeShare is " + word("_kestrixSizeShare"));
  }

  RoundTemplate profile(float step) const {
    const StarBlock& values = block(kProfile);
    const int column = values.column("_kestrixValue");
    const auto n = values.rows.size();
    if (column < 0 || n < 2 || n > kMostRadii || static_cast<float>(n) != number("_kestrixRadii", 0))
      refuse(name_, "it is damaged, its profile isn't whole");
    RoundTemplate t{host_new<float>(n), static_cast<int>(n), step};
    for (size_t i = 0; i < n; i++)
      t.values[i] = static_cast<float>(value(values.rows[i][static_cast<size_t>(column)], "_kestrixValue", -kMost));
    return t;
  }

  std::string name_;
  std::vector<StarBlock> blocks_;
};

bool differ(float a, float b) { return std::fabs(a - b) > 1e-4f * b; }

std::string text_of(float diameter, float apix, bool bright) {
  char text[160];
  snprintf(text, sizeof text, "--diameter %g, --apixM %g and %s particles", static_cast<double>(diameter),
           static_cast<double>(apix), bright ? "bright" : "dark");
  return text;
}

}  // namespace

std::string learned_file(const Kestrix_Para& para) {
  if (!is_str_null(para.learned)) return para.learned;
  const std::string folder = is_str_null(para.odir) ? "" : para.odir;
  return (std::filesystem::path(folder) / "kestrix_learned.star").lexically_normal().string();
}

void write_learned_file(const std::string& name, const LearnedPicks& learned) {
  FILE* file = KESTRIX_OUTPUT_OPEN(name.c_str());
  fprintf(file, "\ndata_%s\n\n", kFacts);
  fprintf(file, "_kestrixDiameter %.9g\n_kestrixPixelSize %.9g\n_kestrixBrightParticles %d\n",
          static_cast<double>(learned.diameter), static_cast<double>(learned.apix), learned.bright ? 1 : 0);
  fprintf(file, "_kestrixMicrographs %d\n_kestrixPeaks %d\n_kestrixRule %s\n", learned.micrographs, learned.peaks,
          word_of(learned.rule));
  if (learned.rule != kNoParticles) {
    fprintf(file, "_kestrixSizeShare %.9g\n_kestrixTemplate %s\n_kestrixBandSize %.9g\n",
            static_cast<double>(learned.share), learned.mean ? "mean" : "ball", static_cast<double>(learned.band_size));
    fprintf(file, "_kestrixCutoff %.9g\n_kestrixLeastScore %.9g\n_kestrixDecoys %.17g\n",
            static_cast<double>(learned.cutoff), static_cast<double>(learned.least), learned.decoys);
    const RoundTemplate& t = learned.found;
    fprintf(file, "_kestrixRadii %d\n_kestrixRadiusStep %.9g\n", t.n, static_cast<double>(t.step));
    fprintf(file, "\ndata_%s\n\nloop_\n_kestrixRadius #1\n_kestrixValue #2\n", kProfile);
    for (int i = 0; i < t.n; i++)
      fprintf(file, "%10.4f %.9g\n", static_cast<double>(t.step) * i, static_cast<double>(t.values[i]));
  }
  KESTRIX_OUTPUT_CLOSE(file);
}

LearnedPicks read_learned_file(const std::string& name, const Kestrix_Para& para) {
  const LearnedPicks learned = LearnedReader(name).read();
  const bool bright = para.dont_invertT != 0;
  if (differ(learned.diameter, para.diameter) || differ(learned.apix, para.apixM) || learned.bright != bright)
    refuse(name, "it was learned with " + text_of(learned.diameter, learned.apix, learned.bright) +
                     ", and this run has " + text_of(para.diameter, para.apixM, bright));
  return learned;
}
