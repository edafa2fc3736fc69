// Reading text files by the line, and the test whether a file can be used.
#pragma once

#include <cstdio>

/// Clears the kTextBytes bytes of line. Returns 0.
int empty_txt_line(char* line);

/// Reads one line of at most kTextBytes - 1 characters, newline kept; at the end of the file line stays as it
/// was. Returns 0.
int read_one_line(char* line, FILE* file);

/// Clears line, then reads the next line into it as read_one_line does. Returns false when there is none, at
/// the end of the file or where it can't be read.
bool read_next_line(char* line, FILE* file);

/// The number of lines of a file; 0 where it can't be read.
int count_lines(const char* path);

/// Tests path for each letter of modes from left to right, in any case: F exists, R readable, W writable,
/// X executable. Returns 0, or -1 after a warning on standard output about the first test that fails.
int check_file_access(const char* path, const char* modes);
