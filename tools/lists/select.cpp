// kestrix_lists select: the picks that limits, or a selection saved by the page, keep.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <set>

#include "common/map_values.h"
#include "common/micrograph_file.h"
#include "common/options.h"
#include "common/output_file.h"
#include "lists/commands.h"
#include "lists/pick_list.h"
#include "lists/reselect.h"
#include "lists/selection_file.h"

namespace {

constexpr char kPurpose[] =
    "Writes of each micrograph's list the picks within the limits, as NAME_selected.box and NAME_selected.star.\n"
    "Micrographs are named themselves, or by their lists. With --cc_cutoff or --min_dist the picks are first chosen\n"
    "anew from NAME_nonunique.box, as kestrix itself would have done with them; a cutoff below the run's own finds\n"
    "nothing more. Then picks go that pass a limit; then, best first, those nearer than --thin to a better one; then\n"
    "all but the best --most. The lists of a micrograph left out are empty.\n"
    "Lines and files that can't be read are named and passed over, and the exit status is 3.";

struct Settings {
  const char* selection = nullptr;
  const char* micrographs = nullptr;
  const char* leave_out = nullptr;
  const char* list = "_quorlin";
  const char* odir = "";
  const char* suffix = "_selected";
  double min_score = NAN, max_score = NAN, lave_min = NAN, lave_max = NAN, lsigma_min = NAN, lsigma_max = NAN;
  double thin = 0;
  long most = -1;
  ReselectSettings reselect;
  double cc_cutoff = NAN, min_dist = NAN;
  int overwrite = 0, strict = 0;
};

/// What the work on all micrographs goes by, and what came of it.
struct Work {
  ListPlace place;
  std::string out_suffix;
  bool reselects = false;
  ReselectSettings reselect;
  SelectionFile selection;
  std::set<std::string> left_out;
  BrokenLines broken;
  long micrographs = 0, empty = 0, picks = 0, kept = 0;
};

std::vector<Option> option_table(Settings* s) {
  constexpr double kMost = 1e9;
  return {
      {"selection", OptionKind::file, &s->selection, 0, 0, "none", "a selection.json that the page saved"},
      {"min_score", OptionKind::real, &s->min_score, -kMost, kMost, "none", "least score"},
      {"max_score", OptionKind::real, &s->max_score, -kMost, kMost, "none", "largest score"},
      {"thin", OptionKind::real, &s->thin, 0, kMost, "none",
       "least distance of two picks of the list, Å; needs --apixM"},
      {"most", OptionKind::integer, &s->most, 0, kMost, "any", "most picks of a micrograph, the best ones"},
      {"lave_min", OptionKind::real, &s->lave_min, -kMost, kMost, "none", "least local average, from NAME_bg.mrc"},
      {"lave_max", OptionKind::real, &s->lave_max, -kMost, kMost, "none", "largest local average"},
      {"lsigma_min", OptionKind::real, &s->lsigma_min, -kMost, kMost, "none",
       "least local sigma, from NAME_lsigma.mrc"},
      {"lsigma_max", OptionKind::real, &s->lsigma_max, -kMost, kMost, "none", "largest local sigma"},
      {"leave_out", OptionKind::file, &s->leave_out, 0, 0, "none", "a list of micrographs to leave out"},
      {"cc_cutoff", OptionKind::real, &s->cc_cutoff, -kMost, kMost, "the run's", "choose anew with this least score"},
      {"min_dist", OptionKind::real, &s->min_dist, 0, kMost, "the run's", "choose anew with this least distance, Å"},
      {"apixM", OptionKind::real, &s->reselect.apixM, 0, kMost, "none", "pixel size of the micrographs, Å"},
      {"diameter", OptionKind::real, &s->reselect.diameter, 0, kMost, "none", "the run's particle diameter, Å"},
      {"speed", OptionKind::integer, &s->reselect.speed, 0, 4, nullptr, "the run's --speed"},
      {"boxsize", OptionKind::integer, &s->reselect.boxsize, 0, 65535, "as listed", "side of the boxes, pixels"},
      {"excluded_suffix", OptionKind::text, &s->reselect.excluded_suffix, 0, 0, "none", "the run's excluded lists"},
      {"micrographs", OptionKind::file, &s->micrographs, 0, 0, "none", "more micrographs, a text or STAR file"},
      {"list", OptionKind::text, &s->list, 0, 0, nullptr, "suffix of the lists to read"},
      {"odir", OptionKind::folder, &s->odir, 0, 0, "beside", "folder of the lists"},
      {"suffix", OptionKind::text, &s->suffix, 0, 0, nullptr, "suffix of the lists to write"},
      {"overwrite", OptionKind::flag, &s->overwrite, 0, 0, nullptr, "let them replace the lists that kestrix wrote"},
      {"strict", OptionKind::flag, &s->strict, 0, 0, nullptr, "end at the first line or file that can't be read"},
  };
}

void set_limit(double given, float* limit) {
  if (!std::isnan(given)) *limit = static_cast<float>(given);
}

SelectionRules rules_of(const Settings& s, SelectionRules rules) {
  set_limit(s.min_score, &rules.min_score);
  set_limit(s.max_score, &rules.max_score);
  set_limit(s.lave_min, &rules.min_average);
  set_limit(s.lave_max, &rules.max_average);
  set_limit(s.lsigma_min, &rules.min_sigma);
  set_limit(s.lsigma_max, &rules.max_sigma);
  if (s.thin > 0 && s.reselect.apixM <= 0) refuse("--thin needs the pixel size, --apixM");
  if (s.thin > 0) rules.thin = s.thin / s.reselect.apixM;
  if (s.most >= 0) rules.most = s.most;
  return rules;
}

void check_suffix(const Settings& s, const ListPlace& place) {
  const std::string suffix = s.suffix;
  if (suffix.empty() || ends_in(suffix, ".box") || ends_in(suffix, ".star"))
    refuse("--suffix is '%s', but must be a suffix without ending, such as _selected", s.suffix);
  const bool is_input = place.suffix == suffix || place.suffix == suffix + ".box" || place.suffix == suffix + ".star";
  if (s.overwrite || (!is_input && suffix != "_quorlin" && suffix != "_nonunique" && suffix != "_rejected")) return;
  refuse("--suffix is %s: this would replace lists that are read, or that kestrix wrote; --overwrite allows it",
         s.suffix);
}

Work prepare(const Settings& s, const std::vector<const char*>& given, std::vector<std::string>* micrographs) {
  Work work{{s.odir, s.list}, s.suffix, false, s.reselect, {}, {}, BrokenLines(s.strict != 0)};
  *micrographs = gather_micrographs(given, s.micrographs);
  if (s.selection) {
    work.selection = read_selection_file(s.selection);
    work.place = {work.selection.odir, work.selection.list};
    if (micrographs->empty()) *micrographs = work.selection.micrographs;
  }
  check_suffix(s, work.place);
  work.selection.rules = rules_of(s, work.selection.rules);
  if (s.leave_out)
    for (const std::string& name : gather_micrographs({}, s.leave_out)) work.left_out.insert(name);
  work.reselects = !std::isnan(s.cc_cutoff) || !std::isnan(s.min_dist);
  if (!std::isnan(s.cc_cutoff)) work.reselect.cc_cutoff = s.cc_cutoff;
  if (!std::isnan(s.min_dist)) work.reselect.min_dist = s.min_dist;
  if (work.reselects) check_reselect(work.reselect);
  if (micrographs->empty()) refuse("which micrographs? Name some, or give --micrographs or --selection");
  return work;
}

// Fills picks from the micrograph's list, or anew from its candidates. Returns whether that could be done.
bool read_picks(Work* work, const std::string& name, std::vector<ListPick>* picks) {
  if (!work->reselects) return read_pick_list(find_list(name, work->place), &work->broken, picks);
  const std::string anew = list_base(name, work->place) + work->out_suffix + "." + std::to_string(getpid()) + ".box";
  if (!reselect(work->reselect, name, work->place, anew, &work->broken)) return false;
  const bool read = read_pick_list(anew, &work->broken, picks);
  std::filesystem::remove(anew);
  return read;
}

bool has_limit(float least, float most) { return !std::isnan(least) || !std::isnan(most); }

// Sets the map's value of each pick, where there is a limit on it. Returns false where the map can't be read.
bool add_map(Work* work, const std::string& name, const char* suffix, float PickFacts::*value,
             std::vector<PickFacts>* facts) {
  const std::string map_name = list_base(name, work->place) + suffix;
  const std::string image_name = micrograph_of(name, work->place);
  std::string problem;
  const auto image = MicrographFile::open(image_name, &problem);
  if (!image) {
    work->broken.note_file(image_name, problem + "; its size is needed");
    return false;
  }
  MapValues map;
  if (!map.read(map_name, image->nx(), image->ny(), &problem)) {
    work->broken.note_file(map_name, problem);
    return false;
  }
  for (PickFacts& pick : *facts) pick.*value = map.at(pick.x, pick.y);
  return true;
}

bool gather_facts(Work* work, const std::string& name, const std::vector<ListPick>& picks,
                  std::vector<PickFacts>* facts) {
  for (const ListPick& pick : picks)
    facts->push_back({static_cast<float>(pick.x), static_cast<float>(pick.y), pick.score, NAN, NAN});
  const SelectionRules& rules = work->selection.rules;
  return (!has_limit(rules.min_average, rules.max_average) ||
          add_map(work, name, "_bg.mrc", &PickFacts::average, facts)) &&
         (!has_limit(rules.min_sigma, rules.max_sigma) || add_map(work, name, "_lsigma.mrc", &PickFacts::sigma, facts));
}

ListPick pick_by_hand(const Point& point) {
  ListPick pick;
  pick.x = point.x;
  pick.y = point.y;
  pick.score = pick.psi = kNoValue;
  pick.template_number = kNoValue;
  return pick;
}

// The box side for picks that have none: that of the others, or as the user said.
int common_box(const Work& work, const std::vector<ListPick>& picks) {
  for (const ListPick& pick : picks)
    if (pick.width > 0) return pick.width;
  return work.reselect.boxsize > 0 ? static_cast<int>(work.reselect.boxsize) : work.selection.boxsize;
}

void write_lists(const Work& work, const std::string& base, const std::vector<ListPick>& picks,
                 const std::vector<bool>& kept, const std::vector<Point>& added, bool with_boxes) {
  const int box = common_box(work, picks);
  OutputFile star(base + work.out_suffix + ".star");
  write_star_head(star.stream());
  std::vector<ListPick> chosen;
  for (size_t i = 0; i < picks.size(); i++)
    if (kept[i]) chosen.push_back(picks[i]);
  for (const Point& point : added) chosen.push_back(pick_by_hand(point));
  for (const ListPick& pick : chosen) write_star_pick(star.stream(), pick);
  if (with_boxes || box > 0) {
    OutputFile boxes(base + work.out_suffix + ".box");
    for (const ListPick& pick : chosen) {
      if (pick.width > 0)
        fprintf(boxes.stream(), "%s\n", pick.text.c_str());
      else
        write_box_pick(boxes.stream(), pick, box, box);
    }
    boxes.finish();
  }
  star.finish();
}

MicrographEdits edits_of(const Work& work, const std::string& name) {
  const auto found = work.selection.edits.find(name);
  MicrographEdits edits = found == work.selection.edits.end() ? MicrographEdits{} : found->second;
  if (work.left_out.count(name) > 0 || work.left_out.count(micrograph_of(name, work.place)) > 0) edits.left_out = true;
  return edits;
}

void select_micrograph(Work* work, const std::string& name) {
  std::vector<ListPick> picks;
  std::vector<PickFacts> facts;
  MicrographEdits edits = edits_of(*work, name);
  if (!read_picks(work, name, &picks)) return;
  if (!edits.left_out && !gather_facts(work, name, picks, &facts)) return;
  facts.resize(picks.size());
  const std::vector<bool> kept = keep_picks(facts, work->selection.rules, edits);
  if (edits.left_out) edits.added.clear();
  const bool with_boxes = list_kind(find_list(name, work->place)) == ListKind::box;
  write_lists(*work, list_base(name, work->place), picks, kept, edits.added, with_boxes);
  const auto chosen = static_cast<long>(edits.added.size()) + std::count(kept.begin(), kept.end(), true);
  work->micrographs++;
  work->empty += chosen == 0;
  work->picks += static_cast<long>(picks.size());
  work->kept += chosen;
}

}  // namespace

int run_select(int argc, char** argv) {
  Settings settings;
  const std::vector<Option> options = option_table(&settings);
  std::vector<const char*> given(static_cast<size_t>(argc));
  const int found = parse_options(argc, argv, options.data(), options.size(), given.data(), argc);
  if (found < 0) {
    print_help("select [options] [MICROGRAPH | LIST]...", kPurpose, options.data(), options.size());
    return 0;
  }
  given.resize(static_cast<size_t>(found));
  std::vector<std::string> micrographs;
  Work work = prepare(settings, given, &micrographs);
  for (const std::string& name : micrographs) select_micrograph(&work, name);
  printf("%ld of %ld picks in %ld micrographs, %ld of them without any: NAME%s.box and .star\n", work.kept, work.picks,
         work.micrographs, work.empty, settings.suffix);
  return work.broken.finish();
}
