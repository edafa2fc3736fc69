#include "score/picks.h"

#include <cmath>
#include <fstream>
#include <string>

#include "common/options.h"
#include "common/star_table.h"

namespace {

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::vector<Pick> read_box_file(const char* name) {
  std::ifstream file(name);
  if (!file) refuse("cannot read %s: %m", name);
  std::vector<Pick> picks;
  std::string line;
  for (long number = 1; std::getline(file, line); number++) {
    const std::vector<std::string> words = split_words(line);
    if (words.empty()) continue;
    if (words.size() < 4) refuse("%s, line %ld: fewer than four numbers", name, number);
    double box[4];
    for (int i = 0; i < 4; i++) box[i] = number_from_word(words[static_cast<size_t>(i)], name, number);
    picks.push_back({box[0] + std::trunc(box[2] / 2), box[1] + std::trunc(box[3] / 2)});
  }
  return picks;
}

std::vector<Pick> read_star_file(const char* name) {
  const char* const columns[] = {"_rlnCoordinateX", "_rlnCoordinateY"};
  const std::vector<double> values = read_star_columns(name, columns, 2, 2);
  std::vector<Pick> picks;
  for (size_t i = 0; i + 2 <= values.size(); i += 2) picks.push_back({values[i], values[i + 1]});
  return picks;
}

}  // namespace

std::vector<Pick> read_picks(const char* name) {
  if (ends_with(name, ".box")) return read_box_file(name);
  if (ends_with(name, ".star")) return read_star_file(name);
  refuse("%s is neither a .box nor a .star file", name);
}
