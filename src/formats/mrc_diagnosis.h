// What is wrong with a file that was given as an MRC image.
#pragma once

#include <cstdio>

#include "mrcfile.h"

/// Says on standard error what kind of file this is, where it is not a plain MRC image that can be read whole: empty,
/// compressed, TIFF, HDF5, text, big-endian, of samples that can't be read, or cut short; and what to do about it. Says
/// nothing of a plain one. Leaves the file where it was.
void note_odd_image(const char* name, FILE* file, const MRC_HEAD* head);
