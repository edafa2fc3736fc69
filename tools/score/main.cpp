// kestrix_score: how well a list of picks agrees with the true particles of a simulated micrograph.
#include <cstdio>

#include "common/options.h"
#include "common/truth_file.h"
#include "score/matching.h"
#include "score/picks.h"

namespace {

constexpr char kPurpose[] =
    "Compares picks with the true particles of a simulated micrograph. A pick is right if it lies within "
    "the\n"
    "tolerance of a particle; one pick per particle, closest pairs first. Picks of particles on ice or "
    "carbon\n"
    "count as wrong, and such particles not as missed.\n\n"
    "With --brief one line of 13 columns: particles, picks, matched, precision, recall, F1, mean offset x "
    "and y\n"
    "and mean distance in pixels, particles on ice or carbon, picks of these, picks within the outlines (-1\n"
    "without --areas), tolerance in pixels.";

void print_score(const Score& score, const char* truth, const char* picks, double tolerance, double apix) {
  printf("Particles       %ld, and %ld on ice or carbon (%s)\n", score.particles, score.flagged, truth);
  printf("Picks           %ld (%s)\n", score.picks, picks);
  printf("Matched         %ld, within %.1f pixels (%.1f Å)\n", score.matched, tolerance, tolerance * apix);
  printf("Precision       %.3f\n", score.precision);
  printf("Recall          %.3f\n", score.recall);
  printf("F1              %.3f\n", score.f1);
  if (score.matched > 0) {
    printf("Mean offset     %+.2f %+.2f pixels (pick - particle)\n", score.dx, score.dy);
    printf("Mean distance   %.2f pixels\n", score.distance);
  }
  printf("On ice, carbon  %ld picks of such particles", score.matched_flagged);
  if (score.in_areas >= 0) printf(", %ld picks within the outlines", score.in_areas);
  printf("\n");
}

void print_brief(const Score& score, double tolerance) {
  printf("%ld %ld %ld %.4f %.4f %.4f %.3f %.3f %.3f %ld %ld %ld %.2f\n", score.particles, score.picks, score.matched,
         score.precision, score.recall, score.f1, score.dx, score.dy, score.distance, score.flagged,
         score.matched_flagged, score.in_areas, tolerance);
}

}  // namespace

int main(int argc, char** argv) {
  double diameter = 260, apix = 1.34, tolerance = 0.5;
  const char* areas_name = nullptr;
  int brief = 0;
  const Option options[] = {
      {"diameter", OptionKind::real, &diameter, 10, 10000, nullptr, "particle diameter, Å"},
      {"apix", OptionKind::real, &apix, 0.1, 100, nullptr, "pixel size of the micrograph, Å"},
      {"tolerance", OptionKind::real, &tolerance, 0.01, 2, nullptr, "largest distance, in particle radii"},
      {"areas", OptionKind::file, &areas_name, 0, 0, "none", "outlines of ice and carbon, a _areas.star file"},
      {"brief", OptionKind::flag, &brief, 0, 0, nullptr, "print one line of numbers"},
  };
  constexpr size_t kOptions = sizeof options / sizeof options[0];
  const char* names[2];
  const int found = parse_options(argc, argv, options, kOptions, names, 2);
  if (found < 0) {
    print_help("[options] TRUTH.star PICKS.box|PICKS.star", kPurpose, options, kOptions);
    return 0;
  }
  if (found != 2) refuse("needs two files, the truth and the picks; --help tells the usage");
  const std::vector<TrueParticle> truth = read_truth(names[0]);
  const std::vector<Pick> picks = read_picks(names[1]);
  std::vector<Area> areas;
  if (areas_name) areas = read_areas(areas_name);
  const double pixels = tolerance * diameter / 2 / apix;
  const Score score = score_matching(truth, picks, match_picks(truth, picks, pixels), areas_name ? &areas : nullptr);
  if (brief)
    print_brief(score, pixels);
  else
    print_score(score, names[0], names[1], pixels, apix);
  return 0;
}
