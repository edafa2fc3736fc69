// Reads one loop of a STAR file row by row, whatever comments, blocks and columns stand around it; a table of any length
// takes the memory of a row.
#pragma once

#include <istream>
#include <string>
#include <string_view>
#include <vector>

/// A row of a loop.
struct StarRow {
  long line = 0;                        // its number in the file, from 1
  std::string text;                     // as it stands there, without its end
  std::vector<std::string_view> words;  // into text
};

class StarReader {
 public:
  explicit StarReader(std::istream& file) : file_(file) {}

  /// Moves to the first loop that has all of these columns. Returns false where there is none.
  bool find(const std::vector<std::string>& needed);

  /// The place of a column in the rows of the loop, or -1 where it has none of that label.
  int column(const std::string& label) const;

  size_t columns() const { return labels_.size(); }

  /// Reads the next row of the loop that find has found. Returns false behind its last.
  bool next(StarRow* row);

 private:
  bool read_line(StarRow* row);

  std::istream& file_;
  std::vector<std::string> labels_;
  StarRow first_;  // of the loop, read by find
  bool has_first_ = false;
  long line_ = 0;
};

/// The words of a line between blanks, as views into it; a quoted word without its quotes.
void split_into(std::string_view line, std::vector<std::string_view>* words);
