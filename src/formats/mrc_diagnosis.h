// What is wrong with a file that was given as an MRC image.
#pragma once

#include <cstdio>
#include <string>

#include "mrcfile.h"

/// Says on standard error what kind of file this is, where it is not a plain MRC image that can be read whole: empty,
/// compressed, TIFF, HDF5, text, big-endian, of samples that can't be read, or cut short; and what to do about it. Says
/// nothing of a plain one. Leaves the file where it was.
void note_odd_image(const char* name, FILE* file, const MRC_HEAD* head);

/// What a file's header and length tell.
struct ImageFacts {
  std::string problem;  // what is wrong, as the rest of a sentence that begins with the file's name; empty: nothing
  MRC_HEAD head{};      // where nothing is wrong
  float apix = 0;       // pixel size in the header, Å; 0: none
  bool exact = false;   // the file is as long as its header says with all sections, as extraction wants it
};

/// Looks at a file that is given as a micrograph, and reads no samples. Says nothing and ends nothing.
ImageFacts look_at_mrc(const char* name);
