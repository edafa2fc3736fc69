// What a list of micrographs must not hold, looked through once before anything is picked. Times grow with the length of
// the list, not with its square. para: of the run, which tells where outputs go.
#pragma once

#include <string>
#include <vector>

#include "run/parameters.h"

/// Takes out of the n names those of images that this program writes (NAME_bgfree.mrc, ...) beside a micrograph NAME.mrc
/// or NAME.mrcs that is in the list too: a pattern such as *.mrc finds both. Says on standard error how many. Returns how
/// many names are left, in their order.
int leave_out_own_images(char** files, int n, const Kestrix_Para* para);

/// Whether a file is named as an image that this program has written beside a micrograph that is there.
bool is_own_image_of_a_micrograph(const std::string& path);

/// Says on standard error which micrographs are named more than once; each time counts. Ends the run with a fatal error
/// where two different ones would write the same outputs, as m.mrc and m.mrcs would.
void check_output_names(const char* const* files, int n, const Kestrix_Para* para);

/// What all outputs of a micrograph begin with, the same for every way to write a path: a/./b.mrc gives a/b.
std::string output_stem(const char* file, const Kestrix_Para* para);

/// Positions of the micrographs whose outputs have the same names, each such group in the order of the list, the groups in
/// that of their first: one process takes them, one after the other.
std::vector<std::vector<int>> groups_by_outputs(const char* const* files, int n, const Kestrix_Para* para);
