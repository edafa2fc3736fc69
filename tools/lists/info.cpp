// kestrix_lists info: how many picks there are, and the histogram of their scores as text.
#include <algorithm>
#include <cmath>
#include <map>

#include "common/micrograph_names.h"
#include "common/options.h"
#include "lists/commands.h"
#include "lists/pick_list.h"

namespace {

constexpr char kPurpose[] =
    "Counts the picks of lists and shows the histogram of all their scores. Lists are named themselves, or by their\n"
    "micrographs; of several the micrographs with the fewest and the most picks are named.";

struct Settings {
  const char* micrographs = nullptr;
  const char* list = "_quorlin";
  const char* odir = "";
  double bin = 0.05;
  int each = 0, strict = 0;
};

struct Counts {
  long lists = 0, picks = 0, scored = 0;
  double sum = 0, least = HUGE_VAL, most = -HUGE_VAL;
  std::map<long, long> histogram;  // picks by score / bin
  long fewest = -1, largest = -1;
  std::string fewest_name, largest_name;
};

void count_score(Counts* counts, float score, double bin) {
  if (!std::isfinite(score)) return;
  counts->scored++;
  counts->sum += score;
  counts->least = std::min<double>(counts->least, score);
  counts->most = std::max<double>(counts->most, score);
  counts->histogram[std::lround(std::floor(score / bin))]++;
}

void count_list(Counts* counts, const std::string& name, const std::vector<ListPick>& picks, double bin) {
  const auto number = static_cast<long>(picks.size());
  counts->lists++;
  counts->picks += number;
  for (const ListPick& pick : picks) count_score(counts, pick.score, bin);
  if (counts->fewest < 0 || number < counts->fewest) {
    counts->fewest = number;
    counts->fewest_name = name;
  }
  if (number > counts->largest) {
    counts->largest = number;
    counts->largest_name = name;
  }
}

void print_histogram(const Counts& counts, double bin) {
  constexpr long kWidth = 60;
  long highest = 1;
  for (const auto& [place, number] : counts.histogram) highest = std::max(highest, number);
  for (const auto& [place, number] : counts.histogram) {
    const long marks = (number * kWidth + highest - 1) / highest;
    printf("%8.3f %9ld  %s\n", static_cast<double>(place) * bin, number,
           std::string(static_cast<size_t>(marks), '#').c_str());
  }
}

void print_counts(const Counts& counts, double bin) {
  printf("Lists           %ld\n", counts.lists);
  printf("Picks           %ld\n", counts.picks);
  if (counts.lists > 1)
    printf("Per list        %.1f, from %ld (%s) to %ld (%s)\n",
           static_cast<double>(counts.picks) / static_cast<double>(counts.lists), counts.fewest,
           counts.fewest_name.c_str(), counts.largest, counts.largest_name.c_str());
  if (counts.scored == 0) return;
  printf("Scores          %.6f to %.6f, mean %.6f\n\n", counts.least, counts.most,
         counts.sum / static_cast<double>(counts.scored));
  printf("   score     picks\n");
  print_histogram(counts, bin);
}

}  // namespace

int run_info(int argc, char** argv) {
  Settings s;
  const Option options[] = {
      {"bin", OptionKind::real, &s.bin, 1e-6, 1e6, nullptr, "width of the histogram's bins"},
      {"each", OptionKind::flag, &s.each, 0, 0, nullptr, "a line for each list before all others"},
      {"micrographs", OptionKind::file, &s.micrographs, 0, 0, "none", "more micrographs, a text or STAR file"},
      {"list", OptionKind::text, &s.list, 0, 0, nullptr, "suffix of the lists to read"},
      {"odir", OptionKind::folder, &s.odir, 0, 0, "beside", "folder of the lists"},
      {"strict", OptionKind::flag, &s.strict, 0, 0, nullptr, "end at the first line or file that can't be read"},
  };
  constexpr size_t kOptions = sizeof options / sizeof options[0];
  std::vector<const char*> given(static_cast<size_t>(argc));
  const int found = parse_options(argc, argv, options, kOptions, given.data(), argc);
  if (found < 0) {
    print_help("info [options] [MICROGRAPH | LIST]...", kPurpose, options, kOptions);
    return 0;
  }
  given.resize(static_cast<size_t>(found));
  const std::vector<std::string> names = gather_micrographs(given, s.micrographs);
  if (names.empty()) refuse("which lists? Name some, or give --micrographs");
  BrokenLines broken(s.strict != 0);
  Counts counts;
  std::vector<ListPick> picks;
  for (const std::string& name : names) {
    const std::string list = list_kind(name) == ListKind::none ? find_list(name, {s.odir, s.list}) : name;
    if (!read_pick_list(list, &broken, &picks)) continue;
    if (s.each) printf("%8zu %s\n", picks.size(), list.c_str());
    count_list(&counts, list, picks, s.bin);
  }
  print_counts(counts, s.bin);
  return broken.finish();
}
