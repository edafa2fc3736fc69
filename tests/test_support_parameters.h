// Command lines for tests.
#pragma once

#include <string>
#include <vector>

#include "parameters.h"
#include "test_support_stdout.h"

/// The words of a command line as main receives them; the first is the program's name, "kestrix".
struct Command_Line {
  explicit Command_Line(std::vector<std::string> arguments) : words(std::move(arguments)) {
    words.insert(words.begin(), "kestrix");
    for (std::string& word : words) pointers.push_back(&word[0]);
    pointers.push_back(nullptr);
  }
  Command_Line(const Command_Line&) = delete;
  Command_Line& operator=(const Command_Line&) = delete;

  int argc() const { return static_cast<int>(words.size()); }
  char** argv() { return pointers.data(); }

  std::vector<std::string> words;
  std::vector<char*> pointers;
};

/// A record filled from a command line that is accepted, and what was printed meanwhile.
struct Parsed {
  explicit Parsed(const std::vector<std::string>& arguments) : line(arguments) {
    warnings = stdout_of([this] {
      kestrix_init_parameters(line.argc(), &para);
      kestrix_get_parameters(line.argc(), line.argv(), &para);
    });
  }
  ~Parsed() { kestrix_free_parameters(&para); }
  Parsed(const Parsed&) = delete;
  Parsed& operator=(const Parsed&) = delete;

  Command_Line line;
  Kestrix_Para para;
  std::string warnings;
};

/// How parsing a command line ends, then, if check is set, how judging its values ends.
inline Ending ending_of_parsing(const std::vector<std::string>& arguments, bool check = false) {
  Command_Line line(arguments);
  return ending_of([&line, check] {
    Kestrix_Para para;
    kestrix_init_parameters(line.argc(), &para);
    kestrix_get_parameters(line.argc(), line.argv(), &para);
    if (check) kestrix_check_parameters(&para);
    kestrix_free_parameters(&para);
  });
}
