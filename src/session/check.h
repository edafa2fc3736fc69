// The look through a list of micrographs before anything is picked.
#pragma once

#include "run/parameters.h"

/// Reads the header and the length of every file of para->files and prints a line for each that is missing, unreadable or
/// not whole, for one of another size, mode or pixel size than the first good one or than --apixM, for one that is listed
/// twice, and for two that would write the same outputs; then a line with the numbers. Writes no file. Returns whether all
/// is well.
bool check_micrographs(const Kestrix_Para* para);
