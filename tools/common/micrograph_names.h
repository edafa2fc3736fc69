// Which micrographs a tool works on, and the names of the files that belong to them.
#pragma once

#include <string>
#include <vector>

/// Names of micrographs: those given, then those of the file `listed`, if it isn't empty: a STAR file with the column
/// _rlnMicrographName, or a text with one name a line, where empty lines and those that begin with # don't count. A name
/// that stands twice is taken once, an image that kestrix wrote beside a micrograph not at all: *.mrc finds them too. A
/// file that can't be read, or has no such column, is refused.
std::vector<std::string> gather_micrographs(const std::vector<const char*>& given, const char* listed);

/// Where the lists of micrographs are.
struct ListPlace {
  std::string odir;    // their folder; empty: beside the micrographs
  std::string suffix;  // as "_quorlin", or with the ending where it must be the one or the other
};

/// The name of the micrograph, or of its list at `place`, without ending and suffix, in the folder of the lists.
std::string list_base(const std::string& name, const ListPlace& place);

/// The micrograph that a name is of: itself, or, where it is that of a list at `place`, the micrograph beside it.
std::string micrograph_of(const std::string& name, const ListPlace& place);

/// The list of a micrograph: base and suffix; where the suffix has no ending, the box list if it exists, else the STAR
/// list.
std::string find_list(const std::string& name, const ListPlace& place);

/// Whether text ends in `end`.
bool ends_in(const std::string& text, const std::string& end);
