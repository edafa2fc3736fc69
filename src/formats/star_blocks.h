// A whole STAR file as its blocks: every data_ block with one loop_, any labels. For lists that other programs write.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

struct StarBlock {
  std::string name;                            // behind "data_"
  std::vector<std::string> columns;            // labels, with their underscore
  std::vector<std::vector<std::string>> rows;  // each as long as columns

  /// The position of a label in a row, -1 where there is none.
  int column(const std::string& label) const;
};

/// Reads the blocks in their order. Comments and rows of fewer words than columns are passed over; a block of labels with
/// values beside them, without loop_, becomes one row. Words in quotes may hold blanks.
std::vector<StarBlock> read_star_blocks(std::istream& file);

/// A word as a STAR file holds it: in quotes where it holds blanks or nothing.
std::string star_word(const std::string& word);
