#include "common/star_reader.h"

#include <algorithm>

namespace {

constexpr char kBlanks[] = " \t\r\n\v\f";

bool begins_with(std::string_view word, std::string_view start) { return word.substr(0, start.size()) == start; }

bool begins_block(const StarRow& row) { return begins_with(row.words[0], "data_") || row.words[0] == "loop_"; }

}  // namespace

void split_into(std::string_view line, std::vector<std::string_view>* words) {
  words->clear();
  for (size_t start = line.find_first_not_of(kBlanks); start != std::string_view::npos;) {
    const char quote = line[start] == '"' || line[start] == '\'' ? line[start] : '\0';
    const size_t closing = quote ? line.find(quote, start + 1) : std::string_view::npos;
    const bool quoted = closing != std::string_view::npos;
    const size_t from = quoted ? start + 1 : start;
    const size_t end = quoted ? closing : std::min(line.find_first_of(kBlanks, start), line.size());
    words->push_back(line.substr(from, end - from));
    start = line.find_first_not_of(kBlanks, quoted ? end + 1 : end);
  }
}

bool StarReader::read_line(StarRow* row) {
  while (std::getline(file_, row->text)) {
    row->line = ++line_;
    split_into(row->text, &row->words);
    if (!row->words.empty() && row->words[0].substr(0, 1) != "#") return true;
  }
  return false;
}

bool StarReader::find(const std::vector<std::string>& needed) {
  bool in_head = false;
  while (read_line(&first_)) {
    if (begins_block(first_)) {
      in_head = first_.words[0] == "loop_";
      labels_.clear();
    } else if (in_head && first_.words[0].substr(0, 1) == "_") {
      labels_.emplace_back(first_.words[0]);
    } else if (in_head) {
      const auto is_there = [&](const std::string& label) { return column(label) >= 0; };
      has_first_ = std::all_of(needed.begin(), needed.end(), is_there);
      if (has_first_) return true;
      in_head = false;
    }
  }
  // A loop without rows may stand at the end.
  return in_head && std::all_of(needed.begin(), needed.end(), [&](const std::string& l) { return column(l) >= 0; });
}

int StarReader::column(const std::string& label) const {
  const auto found = std::find(labels_.begin(), labels_.end(), label);
  return found == labels_.end() ? -1 : static_cast<int>(found - labels_.begin());
}

bool StarReader::next(StarRow* row) {
  if (has_first_) {
    has_first_ = false;
    *row = first_;
    split_into(row->text, &row->words);
    return true;
  }
  return read_line(row) && !begins_block(*row) && row->words[0].substr(0, 1) != "_";
}
