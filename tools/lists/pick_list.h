// Lists of picks, in the two forms that they are written in.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "common/broken_lines.h"

/// Stands in a list for the score, template and angle of a pick that was made by hand, as RELION writes them.
constexpr int kNoValue = -999;

/// One pick of a list.
struct ListPick {
  double x = 0, y = 0;        // centre, pixels of the micrograph
  int width = 0, height = 0;  // of its box; 0 from a STAR file
  float score;                // no number where the list has none
  int template_number = 0;
  float psi = 0;     // degrees from +x towards +y
  std::string text;  // the line, without its end
};

enum class ListKind { none, star, box };

/// The kind of a list by the ending of its name.
ListKind list_kind(const std::string& name);

/// Reads a list into picks; a line that can't be read is noted and passed over. Returns false, and has noted the file,
/// where it can't be opened, is of no kind that is known or has no columns of coordinates.
bool read_pick_list(const std::string& name, BrokenLines* broken, std::vector<ListPick>* picks);

/// Writes the head of a STAR list of picks, as kestrix does.
void write_star_head(FILE* file);

/// Writes a pick as kestrix does, on a line: of a STAR list by its centre, of a box list by the corner of a box of that
/// size around it. Fractions of pixels are cut off.
void write_star_pick(FILE* file, const ListPick& pick);
void write_box_pick(FILE* file, const ListPick& pick, int width, int height);
