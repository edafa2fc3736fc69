#include "common/star_table.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>

#include "common/options.h"

namespace {

/// A loop of a STAR file being read.
struct Loop {
  std::vector<std::string> labels;
  std::vector<size_t> places;  // of the wanted columns among the labels, kLacking where there is none
  bool resolved = false;       // whether places stand: the labels are complete
  bool wanted = false;         // whether all needed columns are there
};

constexpr size_t kLacking = static_cast<size_t>(-1);

void resolve_columns(Loop* loop, const char* const* columns, int count, int needed) {
  if (loop->resolved) return;
  loop->resolved = true;
  loop->wanted = true;
  for (int i = 0; i < count; i++) {
    const auto found = std::find(loop->labels.begin(), loop->labels.end(), columns[i]);
    const bool lacking = found == loop->labels.end();
    loop->places.push_back(lacking ? kLacking : static_cast<size_t>(found - loop->labels.begin()));
    if (lacking && i < needed) loop->wanted = false;
  }
}

void append_row(const std::vector<std::string>& words, const Loop& loop, const char* name, long line,
                std::vector<double>* values) {
  if (words.size() != loop.labels.size())
    refuse("%s, line %ld: %zu words for %zu columns", name, line, words.size(), loop.labels.size());
  for (const size_t place : loop.places)
    values->push_back(place == kLacking ? 0 : number_from_word(words[place], name, line));
}

}  // namespace

std::vector<std::string> split_words(const std::string& line) {
  const char blanks[] = " \t\r\n\v\f";
  std::vector<std::string> words;
  for (size_t start = line.find_first_not_of(blanks); start != std::string::npos;) {
    const size_t end = line.find_first_of(blanks, start);
    words.push_back(line.substr(start, end - start));
    start = end == std::string::npos ? end : line.find_first_not_of(blanks, end);
  }
  return words;
}

double number_from_word(const std::string& word, const char* name, long line) {
  char* end = nullptr;
  const double number = strtod(word.c_str(), &end);
  if (*end != '\0' || !std::isfinite(number)) refuse("%s, line %ld: '%s' is not a number", name, line, word.c_str());
  return number;
}

std::vector<double> read_star_columns(const char* name, const char* const* columns, int count, int needed) {
  std::ifstream file(name);
  if (!file) refuse("cannot read %s: %m", name);
  Loop loop;
  std::vector<double> values;
  std::string line;
  for (long number = 1; std::getline(file, line); number++) {
    const std::vector<std::string> words = split_words(line);
    if (words.empty() || words[0][0] == '#') continue;
    if (words[0].rfind("data_", 0) == 0 || words[0] == "loop_") {
      resolve_columns(&loop, columns, count, needed);
      if (loop.wanted) break;
      loop = Loop();
    } else if (words[0][0] == '_' && !loop.resolved) {
      loop.labels.push_back(words[0]);
    } else {
      resolve_columns(&loop, columns, count, needed);
      if (loop.wanted) append_row(words, loop, name, number, &values);
    }
  }
  resolve_columns(&loop, columns, count, needed);
  if (!loop.wanted) refuse("%s has no columns %s to %s", name, columns[0], columns[needed - 1]);
  return values;
}
