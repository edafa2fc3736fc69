#include "lists/reselect.h"

#include <filesystem>
#include <vector>

#include "boxfile.h"
#include "common/micrograph_file.h"
#include "common/options.h"
#include "compute/text_numbers.h"
#include "lists/pick_list.h"

namespace {

constexpr int kShrinkOfSpeed[] = {1, 2, 4, 6, 8};
constexpr char kCandidates[] = "_nonunique.box";

int shrink_of(const ReselectSettings& settings) { return kShrinkOfSpeed[settings.speed]; }

// In shrunk pixels. In single precision, as a run works it out.
float min_dist_px(const ReselectSettings& settings) {
  const auto diameter = static_cast<float>(settings.diameter);
  const float min_dist =
      settings.min_dist > 0 ? static_cast<float>(settings.min_dist) : static_cast<float>(diameter * 0.8);
  return min_dist / (static_cast<float>(shrink_of(settings)) * static_cast<float>(settings.apixM));
}

// The box of the micrograph's first pick, 0 where there is none.
int listed_box(const std::string& micrograph, const ListPlace& place, BrokenLines* broken) {
  const std::string name = find_list(micrograph, place);
  std::vector<ListPick> picks;
  if (list_kind(name) != ListKind::box || !std::filesystem::exists(name)) return 0;
  read_pick_list(name, broken, &picks);
  return picks.empty() ? 0 : picks.front().width;
}

int box_size(const ReselectSettings& settings, const std::string& micrograph, const ListPlace& place,
             BrokenLines* broken) {
  if (settings.boxsize > 0) return static_cast<int>(settings.boxsize);
  const int listed = listed_box(micrograph, place, broken);
  if (listed > 0 || settings.diameter <= 0) return listed;
  const auto diameter = static_cast<float>(settings.diameter);
  return saturating_int(diameter * 1.33 / static_cast<float>(settings.apixM)) / 2 * 2;
}

std::string excluded_list(const ReselectSettings& settings, const std::string& base) {
  const std::string name = settings.excluded_suffix ? base + settings.excluded_suffix : "";
  return std::filesystem::is_regular_file(name) ? name : "NULL";
}

// Candidates hold boxes of the shrunk image, which tell a wrong --speed or box.
bool fits_candidates(const std::string& candidates, int box, int shrink, BrokenLines* broken) {
  std::vector<ListPick> picks;
  if (!read_pick_list(candidates, broken, &picks)) return false;
  if (picks.empty() || picks.front().width == box / shrink) return true;
  broken->note_file(candidates, "has boxes of " + std::to_string(picks.front().width) +
                                    " shrunk pixels, but a box of " + std::to_string(box) + " gives " +
                                    std::to_string(box / shrink) + "; give the run's own --speed and --boxsize");
  return false;
}

}  // namespace

void check_reselect(const ReselectSettings& settings) {
  if (settings.apixM <= 0) refuse("--min_dist and --cc_cutoff need the pixel size, --apixM");
  if (settings.min_dist <= 0 && settings.diameter <= 0)
    refuse("a new selection needs the run's --diameter, or a --min_dist");
  if (box_filter_cell_size(min_dist_px(settings)) < 1)
    refuse("--min_dist is less than %.1f Å, which is too small at this --apixM and --speed",
           1.4143 * settings.apixM * shrink_of(settings));
}

bool reselect(const ReselectSettings& settings, const std::string& micrograph, const ListPlace& place,
              const std::string& out, BrokenLines* broken) {
  std::string problem;
  const std::string image_name = micrograph_of(micrograph, place);
  const auto image = MicrographFile::open(image_name, &problem);
  if (!image) {
    broken->note_file(image_name, problem + "; its size is needed");
    return false;
  }
  const int shrink = shrink_of(settings);
  const std::string base = list_base(micrograph, place);
  const int box = box_size(settings, micrograph, place, broken);
  if (box < 1) {
    broken->note_file(image_name, "has no list that tells the box size; give --boxsize or --diameter");
    return false;
  }
  const std::string candidates = base + kCandidates;
  if (!fits_candidates(candidates, box, shrink, broken)) return false;
  box_filter(image->nx() / shrink, image->ny() / shrink, min_dist_px(settings), static_cast<float>(settings.cc_cutoff),
             static_cast<float>(shrink), box, box, {0, 0}, candidates.c_str(), excluded_list(settings, base).c_str(),
             out.c_str(), 2);
  return true;
}
