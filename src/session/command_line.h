// The command line of a session with the micrographs of its list.
#pragma once

#include <string>
#include <vector>

/// The arguments of a program, and behind them the micrographs that --micrographs names and, where the list tells a pixel
/// size and the user doesn't, --apixM. Holds its texts; argv as main gets it, closed by a null.
class CommandLine {
 public:
  /// Reads the list, from standard input where its name is "-". Ends the run with a fatal error where it can't be read, or
  /// is a STAR file without micrographs or with optics groups of different pixel size.
  CommandLine(int argc, char** argv);
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  int argc() const { return static_cast<int>(arguments_.size()) - 1; }
  char** argv() { return arguments_.data(); }

 private:
  std::vector<std::string> texts_;
  std::vector<char*> arguments_;
};

/// The micrographs of a list and the pixel size that it tells, 0 where it tells none.
struct ListedMicrographs {
  std::vector<std::string> names;
  double apix = 0;  // Å
};

/// Reads a list: a path a line, or a STAR file of RELION 3.0 or later. "-": standard input. Ends the run as above.
ListedMicrographs read_micrograph_list(const char* file);
