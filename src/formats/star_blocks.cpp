#include "formats/star_blocks.h"

#include <algorithm>
#include <istream>

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// The words of a line up to a comment.
std::vector<std::string> words_of(const std::string& line) {
  std::vector<std::string> words;
  for (size_t at = 0; at < line.size();) {
    if (is_blank(line[at])) {
      at++;
      continue;
    }
    if (line[at] == '#') break;
    const char quote = line[at] == '"' || line[at] == '\'' ? line[at] : 0;
    size_t end = quote ? line.find(quote, at + 1) : at;
    if (quote && end != std::string::npos) {
      words.push_back(line.substr(at + 1, end - at - 1));
      at = end + 1;
      continue;
    }
    end = at;
    while (end < line.size() && !is_blank(line[end])) end++;
    words.push_back(line.substr(at, end - at));
    at = end;
  }
  return words;
}

bool begins_with(const std::string& text, const char* start) { return text.rfind(start, 0) == 0; }

void take_label(StarBlock& block, const std::vector<std::string>& words, bool in_loop) {
  block.columns.push_back(words[0]);
  if (in_loop || words.size() < 2) return;
  if (block.rows.empty()) block.rows.emplace_back();
  block.rows[0].push_back(words[1]);
}

}  // namespace

int StarBlock::column(const std::string& label) const {
  const auto found = std::find(columns.begin(), columns.end(), label);
  return found == columns.end() ? -1 : static_cast<int>(found - columns.begin());
}

std::vector<StarBlock> read_star_blocks(std::istream& file) {
  std::vector<StarBlock> blocks;
  bool in_loop = false;
  for (std::string line; std::getline(file, line);) {
    std::vector<std::string> words = words_of(line);
    if (words.empty()) continue;
    if (begins_with(words[0], "data_")) {
      blocks.push_back({words[0].substr(5), {}, {}});
      in_loop = false;
    } else if (blocks.empty()) {
      continue;
    } else if (words[0] == "loop_") {
      in_loop = true;
    } else if (words[0][0] == '_') {
      take_label(blocks.back(), words, in_loop);
    } else if (words.size() >= blocks.back().columns.size()) {
      words.resize(blocks.back().columns.size());
      blocks.back().rows.push_back(std::move(words));
    }
  }
  return blocks;
}

std::string star_word(const std::string& word) {
  const bool plain = !word.empty() && std::none_of(word.begin(), word.end(), is_blank) && word[0] != '"' &&
                     word[0] != '\'' && word[0] != '#' && word[0] != '_';
  if (plain) return word;
  const char quote = word.find('"') == std::string::npos ? '"' : '\'';
  return quote + word + quote;
}
