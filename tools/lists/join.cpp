// kestrix_lists join: the lists of many micrographs as what another program imports.
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>

#include "common/micrograph_file.h"
#include "common/micrograph_names.h"
#include "common/options.h"
#include "common/output_file.h"
#include "lists/commands.h"
#include "lists/pick_list.h"

namespace {

constexpr char kPurpose[] =
    "Joins the lists of many micrographs, for\n"
    "  relion            autopick.star of RELION 4 and 5: the micrographs and their STAR lists\n"
    "  relion3           coords_suffix_LIST.star of RELION 3.1; needs --micrographs with a STAR file\n"
    "  relion_particles  a particle table for RELION's re-extraction, whole pixels\n"
    "  cryosparc         the same, with fractions\n"
    "  topaz             a table of image, x, y and score; as a STAR file where --out ends in .star\n"
    "  cistem            a text of x and y in Å for each micrograph, in the folder --out\n"
    "  eman2             a box list of four columns for each micrograph, in the folder --out\n"
    "  csv               micrograph, x, y, score, psi, template\n"
    "Micrographs are named themselves, or by their lists. Lines and files that can't be read are named and passed\n"
    "over, and the exit status is 3.";

struct Settings {
  const char* target = nullptr;
  const char* out = nullptr;
  const char* list = "_quorlin";
  const char* odir = "";
  const char* micrographs = nullptr;
  const char* strip_prefix = "";
  double apixM = 0, kV = 300, cs = 2.7, ac = 0.1;
  long ny = 0;
  int flip_y = 0, strict = 0;
};

/// What is written, and about which micrograph.
struct Join {
  const Settings* settings;
  ListPlace place;
  BrokenLines broken;
  FILE* out = nullptr;            // of the formats that write one file
  std::set<std::string> written;  // of the formats that write a file for each
  long micrographs = 0, picks = 0;
};

/// One micrograph with its picks, turned round where that was asked for.
struct Joined {
  std::string name;   // as the importing program knows the micrograph
  std::string given;  // as the user named it
  std::vector<ListPick> picks;
};

/// A program that imports lists.
struct Target {
  const char* name;
  const char* out;  // default of --out
  bool is_folder;   // whether --out is a folder with a file for each micrograph
  bool needs_pixel_size;
  bool reads_picks;           // or else only the names of the lists matter
  void (*begin)(Join* join);  // null: nothing
  void (*add)(Join* join, const Joined& joined);
};

// --- RELION: tables of files ---

std::string star_list(const Join& join, const std::string& micrograph) {
  const std::string name = list_base(micrograph, join.place) + join.place.suffix;
  return ends_in(name, ".star") ? name : name + ".star";
}

void begin_coordinate_files(Join* join) {
  fprintf(join->out,
          "\n# version 30001\n\ndata_coordinate_files\n\nloop_\n_rlnMicrographName #1\n_rlnMicrographCoordinates #2\n");
}

void add_coordinate_file(Join* join, const Joined& joined) {
  fprintf(join->out, "%s %s\n", joined.name.c_str(), star_list(*join, joined.given).c_str());
}

// --- Particle tables ---

float relion_psi(float psi) { return psi > 0 ? 360.0f - psi : -psi; }

void begin_particles(Join* join) {
  const Settings& s = *join->settings;
  fprintf(join->out,
          "\n# version 30001\n\ndata_optics\n\nloop_\n_rlnOpticsGroupName #1\n_rlnOpticsGroup #2\n"
          "_rlnMicrographOriginalPixelSize #3\n_rlnMicrographPixelSize #4\n_rlnVoltage #5\n_rlnSphericalAberration #6\n"
          "_rlnAmplitudeContrast #7\nopticsGroup1 1 %.6f %.6f %.6f %.6f %.6f\n\n\n# version 30001\n\ndata_particles\n\n"
          "loop_\n_rlnMicrographName #1\n_rlnCoordinateX #2\n_rlnCoordinateY #3\n_rlnAutopickFigureOfMerit #4\n"
          "_rlnOpticsGroup #5\n",
          s.apixM, s.apixM, s.kV, s.cs, s.ac);
  if (!s.flip_y) fprintf(join->out, "_rlnClassNumber #6\n_rlnAnglePsi #7\n");
}

void add_particle(Join* join, const Joined& joined, const ListPick& pick, double x, double y) {
  fprintf(join->out, "%s %12.6f %12.6f %12.6f 1", joined.name.c_str(), x, y,
          std::isnan(pick.score) ? kNoValue : static_cast<double>(pick.score));
  const bool by_hand = pick.template_number == kNoValue;
  if (!join->settings->flip_y)
    fprintf(join->out, " %d %12.6f", by_hand ? kNoValue : pick.template_number + 1,
            static_cast<double>(by_hand ? kNoValue : relion_psi(pick.psi)));
  fprintf(join->out, "\n");
}

void add_particles(Join* join, const Joined& joined) {
  for (const ListPick& pick : joined.picks) add_particle(join, joined, pick, pick.x, pick.y);
}

// RELION cuts fractions off, which shifts centres by half a pixel on the average.
void add_whole_particles(Join* join, const Joined& joined) {
  for (const ListPick& pick : joined.picks) add_particle(join, joined, pick, std::round(pick.x), std::round(pick.y));
}

// --- Tables of text ---

std::string without_ending(const std::string& name) { return list_base(name, {}); }

bool writes_star(const Join* join) { return ends_in(join->settings->out, ".star"); }

void begin_topaz(Join* join) {
  fprintf(join->out, writes_star(join)
                         ? "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnCoordinateX #2\n_rlnCoordinateY #3\n"
                           "_rlnAutopickFigureOfMerit #4\n"
                         : "image_name\tx_coord\ty_coord\tscore\n");
}

// Topaz knows an image by its file name without ending.
void add_topaz(Join* join, const Joined& joined) {
  const std::string image = std::filesystem::path(without_ending(joined.name)).filename().string();
  for (const ListPick& pick : joined.picks) {
    const double score = std::isnan(pick.score) ? 0.0 : static_cast<double>(pick.score);
    if (writes_star(join))
      fprintf(join->out, "%s %.0f %.0f %.6f\n", joined.name.c_str(), pick.x, pick.y, score);
    else
      fprintf(join->out, "%s\t%.0f\t%.0f\t%.6f\n", image.c_str(), pick.x, pick.y, score);
  }
}

void begin_csv(Join* join) { fprintf(join->out, "micrograph,x,y,score,psi,template\n"); }

// A name with a comma or a quote is quoted.
std::string csv_word(const std::string& word) {
  if (word.find_first_of(",\"") == std::string::npos) return word;
  std::string quoted = "\"";
  for (const char c : word) quoted += c == '"' ? "\"\"" : std::string(1, c);
  return quoted + "\"";
}

void add_csv(Join* join, const Joined& joined) {
  for (const ListPick& pick : joined.picks)
    fprintf(join->out, "%s,%.10g,%.10g,%.6f,%.6f,%d\n", csv_word(joined.name).c_str(), pick.x, pick.y, pick.score,
            pick.psi, pick.template_number);
}

// --- A file for each micrograph ---

// Refuses a second micrograph of the same name.
std::string file_in_folder(Join* join, const Joined& joined, const char* ending) {
  const std::string base = std::filesystem::path(without_ending(joined.name)).filename().string();
  if (!join->written.insert(base).second)
    refuse("two micrographs are named %s; join their folders one by one", base.c_str());
  return (std::filesystem::path(join->settings->out) / (base + ending)).string();
}

void add_cistem(Join* join, const Joined& joined) {
  OutputFile file(file_in_folder(join, joined, ".txt"));
  const double apix = join->settings->apixM;
  for (const ListPick& pick : joined.picks) fprintf(file.stream(), "%.2f %.2f\n", pick.x * apix, pick.y * apix);
  file.finish();
}

void add_eman2(Join* join, const Joined& joined) {
  if (!joined.picks.empty() && joined.picks.front().width < 1) {
    join->broken.note_file(find_list(joined.given, join->place), "tells no box sizes; box lists do");
    return;
  }
  OutputFile file(file_in_folder(join, joined, ".box"));
  for (const ListPick& pick : joined.picks) {
    const int left = pick.width / 2;
    const int below = pick.height / 2;
    fprintf(file.stream(), "%.0f\t%.0f\t%d\t%d\n", pick.x - left, pick.y - below, pick.width, pick.height);
  }
  file.finish();
}

constexpr Target kTargets[] = {
    {"relion", "autopick.star", false, false, false, begin_coordinate_files, add_coordinate_file},
    {"relion3", nullptr, false, false, false, nullptr, nullptr},
    {"relion_particles", "particles.star", false, true, true, begin_particles, add_whole_particles},
    {"cryosparc", "particles.star", false, true, true, begin_particles, add_particles},
    {"topaz", "topaz.txt", false, false, true, begin_topaz, add_topaz},
    {"cistem", "cistem", true, true, true, nullptr, add_cistem},
    {"eman2", "eman2", true, false, true, nullptr, add_eman2},
    {"csv", "picks.csv", false, false, true, begin_csv, add_csv},
};

// --- The work ---

std::vector<Option> option_table(Settings* s) {
  return {
      {"for", OptionKind::text, &s->target, 0, 0, "none", "the importing program"},
      {"out", OptionKind::file, &s->out, 0, 0, "by --for", "file or folder to write"},
      {"apixM", OptionKind::real, &s->apixM, 0, 1e6, "none", "pixel size of the micrographs, Å"},
      {"flip_y", OptionKind::flag, &s->flip_y, 0, 0, nullptr, "count y from the other end of the micrograph"},
      {"ny", OptionKind::integer, &s->ny, 0, 65535, "read", "height for --flip_y where micrographs aren't there"},
      {"strip_prefix", OptionKind::text, &s->strip_prefix, 0, 0, "none", "cut this off the names of micrographs"},
      {"kV", OptionKind::real, &s->kV, 1, 1000, nullptr, "voltage for particle tables, kV"},
      {"cs", OptionKind::real, &s->cs, 0, 100, nullptr, "spherical aberration, mm"},
      {"ac", OptionKind::real, &s->ac, 0, 1, nullptr, "amplitude contrast"},
      {"micrographs", OptionKind::file, &s->micrographs, 0, 0, "none", "more micrographs, a text or STAR file"},
      {"list", OptionKind::text, &s->list, 0, 0, nullptr, "suffix of the lists to read"},
      {"odir", OptionKind::folder, &s->odir, 0, 0, "beside", "folder of the lists"},
      {"strict", OptionKind::flag, &s->strict, 0, 0, nullptr, "end at the first line or file that can't be read"},
  };
}

const Target& find_target(const char* name) {
  for (const Target& target : kTargets)
    if (name && strcmp(name, target.name) == 0) return target;
  refuse("--for is '%s', but must be one of relion, relion3, relion_particles, cryosparc, topaz, cistem, eman2, csv",
         name ? name : "");
}

std::string stripped(const std::string& name, const std::string& prefix) {
  return name.compare(0, prefix.size(), prefix) == 0 ? name.substr(prefix.size()) : name;
}

// Rows of the file, 0 where that can't be told.
int height_of(Join* join, const std::string& micrograph) {
  if (join->settings->ny > 0) return static_cast<int>(join->settings->ny);
  std::string problem;
  const auto image = MicrographFile::open(micrograph, &problem);
  if (!image) join->broken.note_file(micrograph, problem + "; --flip_y needs its height, or give --ny");
  return image ? image->ny() : 0;
}

// Row y becomes row ny - 1 - y; of a box the rows, whose middle one moves by a pixel where their number is even.
void flip_picks(std::vector<ListPick>* picks, int ny, bool boxes) {
  for (ListPick& pick : *picks) {
    const int even = boxes && pick.height % 2 == 0 ? 1 : 0;
    pick.y = ny - 1 - pick.y + even;
  }
}

void join_micrograph(Join* join, const Target& target, const std::string& given) {
  const Settings& s = *join->settings;
  const std::string micrograph = micrograph_of(given, join->place);
  Joined joined{stripped(micrograph, s.strip_prefix), given, {}};
  if (!target.reads_picks && !std::filesystem::exists(star_list(*join, given))) {
    join->broken.note_file(star_list(*join, given), "is not there");
    return;
  }
  const std::string list = target.reads_picks ? find_list(given, join->place) : star_list(*join, given);
  if (!read_pick_list(list, &join->broken, &joined.picks)) return;
  if (s.flip_y && target.reads_picks) {
    const int ny = height_of(join, micrograph);
    if (ny == 0) return;
    flip_picks(&joined.picks, ny, target.add == add_eman2);
  }
  target.add(join, joined);
  join->micrographs++;
  join->picks += static_cast<long>(joined.picks.size());
}

// RELION 3.1 finds the lists by themselves; its file says which micrographs they are of.
int write_suffix_file(const Settings& s) {
  if (!s.micrographs || !ends_in(s.micrographs, ".star"))
    refuse("--for relion3 needs --micrographs with the STAR file of the micrographs in RELION");
  std::string suffix = s.list;
  if (!ends_in(suffix, ".star")) suffix += ".star";
  const std::string name = s.out ? s.out : "coords_suffix" + suffix;
  OutputFile file(name);
  fprintf(file.stream(), "%s\n", s.micrographs);
  file.finish();
  printf("%s\n", name.c_str());
  return 0;
}

void check_settings(const Settings& s, const Target& target) {
  if (target.needs_pixel_size && s.apixM <= 0) refuse("--for %s needs the pixel size, --apixM", target.name);
  if (s.flip_y && !target.reads_picks)
    refuse("--for %s names the lists as they are, and can't turn y round", target.name);
}

void make_folder(const char* name) {
  std::error_code problem;
  std::filesystem::create_directories(name, problem);
  if (problem) refuse("cannot make the folder %s: %s", name, problem.message().c_str());
}

}  // namespace

int run_join(int argc, char** argv) {
  Settings s;
  const std::vector<Option> options = option_table(&s);
  std::vector<const char*> given(static_cast<size_t>(argc));
  const int found = parse_options(argc, argv, options.data(), options.size(), given.data(), argc);
  if (found < 0) {
    print_help("join --for PROGRAM [options] [MICROGRAPH | LIST]...", kPurpose, options.data(), options.size());
    return 0;
  }
  given.resize(static_cast<size_t>(found));
  const Target& target = find_target(s.target);
  check_settings(s, target);
  if (!target.add) return write_suffix_file(s);
  if (!s.out) s.out = target.out;
  const std::vector<std::string> micrographs = gather_micrographs(given, s.micrographs);
  if (micrographs.empty()) refuse("which micrographs? Name some, or give --micrographs");
  Join join{&s, {s.odir, s.list}, BrokenLines(s.strict != 0), nullptr, {}};
  const std::unique_ptr<OutputFile> file = target.is_folder ? nullptr : std::make_unique<OutputFile>(s.out);
  if (file)
    join.out = file->stream();
  else
    make_folder(s.out);
  if (target.begin) target.begin(&join);
  for (const std::string& name : micrographs) join_micrograph(&join, target, name);
  if (file) file->finish();
  printf("%s: %ld picks in %ld micrographs\n", s.out, join.picks, join.micrographs);
  return join.broken.finish();
}
