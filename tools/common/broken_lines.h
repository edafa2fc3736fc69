// Lines and files that make no sense: named, counted, and passed over unless the user wants them to end the work.
#pragma once

#include <functional>
#include <string>

/// Of one run of a tool.
class BrokenLines {
 public:
  /// Prints each note as a line on standard error.
  explicit BrokenLines(bool strict);

  /// Hands each note, file and text, to `take`, which must not throw; nothing ends the run.
  explicit BrokenLines(std::function<void(const std::string& file, const std::string& text)> take);

  /// Notes line `number` of a file, with the reason. Ends the run where it is strict. Of each file the first ten are
  /// printed, the others counted.
  void note_line(const std::string& file, long number, const std::string& reason);

  /// Notes a whole file that is left out. Ends the run where it is strict.
  void note_file(const std::string& file, const std::string& reason);

  /// Prints what was counted only. Returns the exit status: 0, or 3 where anything was passed over.
  int finish();

 private:
  void print_uncounted();

  std::function<void(const std::string&, const std::string&)> take_;
  bool strict_ = false;
  bool any_ = false;
  std::string file_;  // of the last line noted
  long lines_in_file_ = 0;
};
