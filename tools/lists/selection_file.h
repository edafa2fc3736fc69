// The file of a selection, as the page of kestrix_report saves it: JSON with the rules, and what was done by hand in
// each micrograph.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "lists/selection.h"

struct SelectionFile {
  std::string list;  // suffix of the lists that it was made on
  std::string odir;  // folder of these lists; empty: beside the micrographs
  int boxsize = 0;   // side of the boxes of its picks, pixels; 0: not known
  SelectionRules rules;
  std::vector<std::string> micrographs;          // all of them, in the page's order
  std::map<std::string, MicrographEdits> edits;  // by micrograph; those without any are not in it
};

/// Reads a selection. A file that can't be read, is no selection, or holds something else than it should is refused with
/// its name and what is wrong.
SelectionFile read_selection_file(const std::string& name);
