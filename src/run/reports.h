// What the program tells its user about itself: the parameter report, the option list, help and tips.
#pragma once

#include <cstdio>

#include "run/parameters.h"

constexpr char kestrix_version[] = "v0.56";
constexpr char kestrix_updated_date[] = "2017-07-30";
constexpr int kKestrixOptions = 38;
constexpr int kKestrixTips = 9;

/// The words of the option list that follows the refusal of an option.
extern const char* const KESTRIX_OPTIONS[kKestrixOptions];

/// The tips. A tip ends with its own newline; the last one is empty.
extern const char* const KESTRIX_ALL_TIPS[kKestrixTips];

/// Writes a line of length characters c to out.
void put_rule(char c, int length, FILE* out);

/// Writes to out the options that the user gave, in the user's order, then every parameter in force and the
/// micrographs of the run.
void kestrix_fput_parameters(int argc, char** argv, const Kestrix_Para* para, FILE* out);

/// Prints KESTRIX_OPTIONS on standard output.
void kestrix_print_valid_options();

/// Prints the version banner on standard output; program is argv[0].
void kestrix_put_info(const char* program);

/// Prints the banner, the usage, all options and examples on standard output.
void kestrix_help(const char* program);

/// Prints the options that kestrix_help doesn't list on standard output, by groups.
void kestrix_help_more();

/// kestrix_help, then kestrix_put_all_tips.
void kestrix_help_full(const char* program);

/// Prints every tip between two rules on standard output.
void kestrix_put_all_tips();

/// Prints tip number index, 0 to kKestrixTips - 1, between two rules on standard output.
void kestrix_put_tip(int index);

/// Prints a tip chosen by the time of day, to the second, between two rules on standard output.
void kestrix_put_one_random_tip();
