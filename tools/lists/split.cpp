// kestrix_lists split: one plain list for each micrograph of a particle table.
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <set>

#include "boxfile.h"
#include "common/broken_lines.h"
#include "common/micrograph_names.h"
#include "common/options.h"
#include "common/output_file.h"
#include "common/star_reader.h"
#include "lists/commands.h"

namespace {

constexpr char kPurpose[] =
    "Writes for each micrograph of a particle table (a STAR file with _rlnMicrographName, whatever its version, "
    "comments\n"
    "and other tables) a list NAME + SUFFIX with the coordinates alone, which --excluded_suffix of kestrix reads. "
    "SUFFIX\n"
    "ends in .star or .box; boxes have no size. Lists stand where the table says the micrographs are, or in --dir.";

struct Settings {
  const char* dir = nullptr;
  int strict = 0;
};

/// Lists being written: rows are kept until there are many, so that neither memory nor open files grow with the table.
class SplitLists {
 public:
  SplitLists(const Settings& settings, const std::string& suffix) : settings_(settings), suffix_(suffix) {}

  void add(const std::string& micrograph, double x, double y) {
    List& list = list_of(micrograph);
    char line[80];
    const bool box = ends_in(suffix_, ".box");
    snprintf(line, sizeof line, box ? "%-8.0f%-8.0f0       0\n" : "%12.3f %12.3f\n", x, y);
    list.kept += line;
    list.rows++;
    kept_bytes_ += strlen(line);
    if (kept_bytes_ > kMostKept) write_kept();
  }

  /// Gives all lists their names. Returns their number.
  size_t finish() {
    write_kept();
    for (auto& [micrograph, list] : lists_) {
      list.unfinished->finish();
      printf("%s: %ld coordinates\n", list.name.c_str(), list.rows);
    }
    const size_t number = lists_.size();
    lists_.clear();
    return number;
  }

 private:
  struct List {
    std::string name, kept;
    std::unique_ptr<UnfinishedName> unfinished;
    long rows = 0;
  };
  static constexpr size_t kMostKept = 64 << 20;

  List& list_of(const std::string& micrograph) {
    const auto found = lists_.find(micrograph);
    if (found != lists_.end()) return found->second;
    List list;
    list.name = list_base(micrograph, {settings_.dir ? settings_.dir : "", ""}) + suffix_;
    if (!names_.insert(list.name).second)
      refuse("two micrographs of the table would both have the list %s; split without --dir", list.name.c_str());
    list.unfinished = std::make_unique<UnfinishedName>(list.name);
    FILE* file = fopen(list.unfinished->c_str(), "w");
    if (!file) refuse("cannot write %s: %m", list.name.c_str());
    if (ends_in(suffix_, ".star")) output_starbox_head_XYonly(file);
    close(file, list);
    return lists_[micrograph] = std::move(list);
  }

  static void close(FILE* file, const List& list) {
    const bool failed = ferror(file) != 0;
    if (fclose(file) != 0 || failed) refuse("writing %s failed: %m; is the disk full?", list.name.c_str());
  }

  void write_kept() {
    for (auto& [micrograph, list] : lists_) {
      if (list.kept.empty()) continue;
      FILE* file = fopen(list.unfinished->c_str(), "a");
      if (!file) refuse("cannot write %s: %m", list.name.c_str());
      fwrite(list.kept.data(), 1, list.kept.size(), file);
      close(file, list);
      std::string().swap(list.kept);
    }
    kept_bytes_ = 0;
  }

  Settings settings_;
  std::string suffix_;
  std::map<std::string, List> lists_;  // by micrograph
  std::set<std::string> names_;
  size_t kept_bytes_ = 0;
};

bool read_coordinate(std::string_view word, double* number) {
  const auto [end, problem] = std::from_chars(word.data(), word.data() + word.size(), *number);
  return problem == std::errc() && end == word.data() + word.size() && std::fabs(*number) < 1e9;
}

void split_table(std::istream& file, const char* name, BrokenLines* broken, SplitLists* lists) {
  StarReader table(file);
  if (!table.find({"_rlnMicrographName", "_rlnCoordinateX", "_rlnCoordinateY"}))
    refuse("%s has no table with _rlnMicrographName, _rlnCoordinateX and _rlnCoordinateY", name);
  const auto micrograph = static_cast<size_t>(table.column("_rlnMicrographName"));
  const auto x_column = static_cast<size_t>(table.column("_rlnCoordinateX"));
  const auto y_column = static_cast<size_t>(table.column("_rlnCoordinateY"));
  for (StarRow row; table.next(&row);) {
    double x = 0, y = 0;
    if (row.words.size() < table.columns())
      broken->note_line(
          name, row.line,
          std::to_string(row.words.size()) + " words for " + std::to_string(table.columns()) + " columns");
    else if (!read_coordinate(row.words[x_column], &x) || !read_coordinate(row.words[y_column], &y))
      broken->note_line(name, row.line, "a coordinate is not a number");
    else
      lists->add(std::string(row.words[micrograph]), x, y);
  }
}

}  // namespace

int run_split(int argc, char** argv) {
  Settings settings;
  const Option options[] = {
      {"dir", OptionKind::folder, &settings.dir, 0, 0, "beside", "folder to write the lists to"},
      {"strict", OptionKind::flag, &settings.strict, 0, 0, nullptr, "end at the first line that can't be read"},
  };
  const char* names[2];
  const int found = parse_options(argc, argv, options, 2, names, 2);
  if (found < 0) {
    print_help("split [options] TABLE.star SUFFIX", kPurpose, options, 2);
    return 0;
  }
  if (found != 2) refuse("needs a table and the suffix of the lists to write; --help tells the usage");
  if (!ends_in(names[1], ".star") && !ends_in(names[1], ".box"))
    refuse("the suffix is '%s', but must end in .star or .box", names[1]);
  std::ifstream file(names[0]);
  if (!file) refuse("cannot read %s: %m", names[0]);
  BrokenLines broken(settings.strict != 0);
  SplitLists lists(settings, names[1]);
  split_table(file, names[0], &broken, &lists);
  if (lists.finish() == 0) refuse("%s holds no particle", names[0]);
  return broken.finish();
}
