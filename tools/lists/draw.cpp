// kestrix_lists draw: a micrograph with its lists as a picture.
#include <algorithm>
#include <filesystem>

#include "common/micrograph_file.h"
#include "common/micrograph_names.h"
#include "common/options.h"
#include "lists/commands.h"
#include "lists/pick_list.h"
#include "picture/drawing.h"
#include "picture/shrunk_image.h"

namespace {

constexpr char kPurpose[] =
    "Draws lists onto a micrograph, the first row on top. A list is NAME, NAME=COLOUR or NAME=COLOUR:SHAPE; colours "
    "are\n"
    "red, lime, blue, cyan, magenta, yellow, orange, white, black or #rrggbb, shapes circle, box and cross. Without "
    "lists\n"
    "the picks are drawn as lime circles and the rejected places as red boxes.";

constexpr int kMostLists = 64;
constexpr int kLongSide = 1200;

struct Settings {
  long bin = 0;
  double diameter = 0;
  int flip = 0, strict = 0;
};

/// A list and how its places are drawn.
struct Marks {
  std::string name;
  Colour colour{0, 255, 0};
  std::string shape = "circle";
};

Marks marks_from(const std::string& text) {
  Marks marks;
  const size_t equals = text.rfind('=');
  marks.name = text.substr(0, equals);
  if (equals == std::string::npos) return marks;
  const std::string style = text.substr(equals + 1);
  const size_t colon = style.find(':');
  if (!colour_from_text(style.substr(0, colon), &marks.colour))
    refuse("'%s' is no colour that is known", style.substr(0, colon).c_str());
  if (colon != std::string::npos) marks.shape = style.substr(colon + 1);
  if (marks.shape != "circle" && marks.shape != "box" && marks.shape != "cross")
    refuse("'%s' is none of the shapes circle, box and cross", marks.shape.c_str());
  return marks;
}

std::vector<Marks> default_marks(const std::string& micrograph) {
  const std::string base = list_base(micrograph, {});
  std::vector<Marks> all;
  for (const char* list : {"_rejected.box=red:box", "_quorlin.box=lime:circle"}) {
    Marks marks = marks_from(base + list);
    if (std::filesystem::exists(marks.name)) all.push_back(marks);
  }
  return all;
}

void draw_marks(Picture* picture, const Marks& marks, const Settings& s, int bin, BrokenLines* broken) {
  std::vector<ListPick> picks;
  if (!read_pick_list(marks.name, broken, &picks)) return;
  const double diameter = s.diameter > 0 ? s.diameter : 24.0 * bin;
  for (const ListPick& pick : picks) {
    const double x = (pick.x + 0.5) / bin, y = (pick.y + 0.5) / bin;
    const double half = (marks.shape == "box" && pick.width > 0 ? pick.width : diameter) / 2 / bin;
    if (marks.shape == "cross") draw_cross(picture, x, y, 5, marks.colour);
    if (marks.shape == "box") draw_box(picture, x, y, half, marks.colour);
    if (marks.shape == "circle") draw_circle(picture, x, y, half, marks.colour);
  }
}

Picture picture_of_micrograph(const std::string& name, const Settings& s, int* bin) {
  std::string problem;
  const auto file = MicrographFile::open(name, &problem);
  if (!file) refuse("%s %s", name.c_str(), problem.c_str());
  *bin = s.bin > 0 ? static_cast<int>(s.bin) : bin_for_side(*file, kLongSide);
  const ShrunkImage image = read_shrunk_image(*file, *bin);
  *bin = image.bin;
  const std::vector<float> limits = image_quantiles(image, {0.005, 0.995});
  return picture_of(image.nx, image.ny, grey_levels(image, limits[0], limits[1]));
}

}  // namespace

int run_draw(int argc, char** argv) {
  Settings s;
  const Option options[] = {
      {"bin", OptionKind::integer, &s.bin, 1, 65535, "a side of 1200", "pixels a side to average to one"},
      {"diameter", OptionKind::real, &s.diameter, 0, 1e6, "24 of the picture",
       "of the circles, pixels of the micrograph"},
      {"flip", OptionKind::flag, &s.flip, 0, 0, nullptr, "the first row at the bottom, as EMAN2 and IMOD show it"},
      {"strict", OptionKind::flag, &s.strict, 0, 0, nullptr, "end at the first line that can't be read"},
  };
  constexpr size_t kOptions = sizeof options / sizeof options[0];
  const char* names[kMostLists];
  const int found = parse_options(argc, argv, options, kOptions, names, kMostLists);
  if (found < 0) {
    print_help("draw [options] MICROGRAPH PICTURE.png [LIST[=COLOUR[:SHAPE]]]...", kPurpose, options, kOptions);
    return 0;
  }
  if (found < 2) refuse("needs a micrograph and a picture to write; --help tells the usage");
  if (!ends_in(names[1], ".png")) refuse("the picture is '%s', but must end in .png", names[1]);
  std::vector<Marks> all;
  for (int i = 2; i < found; i++) all.push_back(marks_from(names[i]));
  if (found == 2) all = default_marks(names[0]);
  int bin = 1;
  Picture picture = picture_of_micrograph(names[0], s, &bin);
  BrokenLines broken(s.strict != 0);
  for (const Marks& marks : all) draw_marks(&picture, marks, s, bin, &broken);
  if (s.flip) flip_picture(&picture);
  write_png(names[1], picture);
  return broken.finish();
}
