// Numbers from the columns of STAR files, whatever other columns and blocks these hold.
#pragma once

#include <string>
#include <vector>

/// The words of a line between blanks.
std::vector<std::string> split_words(const std::string& line);

/// The word as a finite number. A word that is none is refused, with the file's name and the line's number.
double number_from_word(const std::string& word, const char* name, long line);

/// Reads the first loop of the file that has the first `needed` of the count columns. Gives count numbers per
/// row, 0 for the columns that the loop lacks. Refuses a file that can't be opened, has no such loop, or has
/// a row of another number of words than the loop has columns.
std::vector<double> read_star_columns(const char* name, const char* const* columns, int count, int needed);
