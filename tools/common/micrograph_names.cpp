#include "common/micrograph_names.h"

#include <filesystem>
#include <fstream>
#include <unordered_set>

#include "common/options.h"
#include "common/star_reader.h"
#include "formats/image_file.h"
#include "platform/failure.h"
#include "session/micrograph_list.h"
#include "str_utils.h"

namespace {

constexpr char kNameColumn[] = "_rlnMicrographName";

std::vector<std::string> names_of_star(std::istream& file, const char* name) {
  StarReader table(file);
  if (!table.find({kNameColumn})) refuse("%s has no column %s", name, kNameColumn);
  const auto column = static_cast<size_t>(table.column(kNameColumn));
  std::vector<std::string> names;
  for (StarRow row; table.next(&row);)
    if (column < row.words.size()) names.emplace_back(row.words[column]);
  return names;
}

std::vector<std::string> names_of_text(std::istream& file) {
  std::vector<std::string> names;
  for (std::string line; std::getline(file, line);) {
    while (!line.empty() && isspace(static_cast<unsigned char>(line.back()))) line.pop_back();
    if (!line.empty() && line[0] != '#') names.push_back(line);
  }
  return names;
}

std::vector<std::string> names_of_file(const char* name) {
  std::ifstream file(name);
  if (!file) refuse("cannot read %s: %m", name);
  return ends_in(name, ".star") ? names_of_star(file, name) : names_of_text(file);
}

// The endings that a list at `place` can have.
std::vector<std::string> list_endings(const ListPlace& place) {
  if (ends_in(place.suffix, ".box") || ends_in(place.suffix, ".star")) return {place.suffix};
  return {place.suffix + ".box", place.suffix + ".star"};
}

}  // namespace

bool ends_in(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::vector<std::string> gather_micrographs(const std::vector<const char*>& given, const char* listed) {
  std::vector<std::string> all(given.begin(), given.end());
  if (listed)
    for (std::string& name : names_of_file(listed)) all.push_back(std::move(name));
  std::vector<std::string> names;
  std::unordered_set<std::string> seen;
  int left_out = 0;
  for (std::string& name : all) {
    if (!seen.insert(name).second) continue;
    const bool is_own = is_own_image_of_a_micrograph(name);
    left_out += is_own;
    if (!is_own) names.push_back(std::move(name));
  }
  if (left_out > 0)
    safety_note(nullptr, "%d images that kestrix wrote beside micrographs are left out of the list.", left_out);
  return names;
}

std::string list_base(const std::string& name, const ListPlace& place) {
  std::string base = name;
  for (const std::string& ending : list_endings(place))
    if (ends_in(name, ending)) return name.substr(0, name.size() - ending.size());
  base = plain_image_name(name);
  base.resize(base.size() - static_cast<size_t>(get_micrograph_suffixn(base.c_str())));
  if (place.odir.empty()) return base;
  return (std::filesystem::path(place.odir) / std::filesystem::path(base).filename()).string();
}

std::string micrograph_of(const std::string& name, const ListPlace& place) {
  for (const std::string& ending : list_endings(place)) {
    if (!ends_in(name, ending)) continue;
    const std::string base = name.substr(0, name.size() - ending.size());
    for (const char* image : {".mrc", ".mrcs", ".tif", ".tiff", ".mrc.gz", ".mrc.bz2", ".mrc.xz"})
      if (std::filesystem::exists(base + image)) return base + image;
    return base + ".mrc";
  }
  return name;
}

std::string find_list(const std::string& name, const ListPlace& place) {
  const std::string base = list_base(name, place);
  for (const std::string& ending : list_endings(place))
    if (std::filesystem::exists(base + ending)) return base + ending;
  return base + list_endings(place).front();
}
