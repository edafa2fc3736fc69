// Command lines of the tools: a table of options "--name value", its parser and the help made from it.
#pragma once

#include <cstddef>

enum class OptionKind { flag, integer, real, text, file, folder };

/// One option of a tool. value points to what the option sets, which holds the default beforehand.
struct Option {
  const char* name;    // without hyphens
  OptionKind kind;     // value is an int* (flag: set to 1), long* (integer), double* (real), const char** (the others)
  void* value;         // owned by the tool
  double least, most;  // bounds of a number, both allowed
  const char* preset;  // tells a default that is worked out later; null where the value itself is the default
  const char* help;    // one line, unit included
};

/// Prints "PROGRAM: TEXT" on standard error and ends the process with status 1. As in printf, and %m
/// tells the last system error.
[[noreturn]] void refuse(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Prints the usage line, what the tool does and its options with their defaults on standard output.
void print_help(const char* usage, const char* purpose, const Option* options, size_t count);

/// Stores the values of the options that stand in argv (one or two hyphens, any case) and collects the other
/// arguments in names, at most most_names. Returns their number, or -1 where help was asked for. An unknown
/// option, a missing or unusable value and a name too many are refused. --version and --list_options print what they name
/// and end the process with status 0.
int parse_options(int argc, char** argv, const Option* options, size_t count, const char** names, int most_names);
