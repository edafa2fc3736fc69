// What is wrong with a file that was given as an image.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "formats/image_file.h"

/// Says on standard error what kind of file this is, where it is not a plain MRC image that can be read whole: empty,
/// compressed, TIFF, HDF5, text, big-endian, of samples that can't be read, or cut short; and what to do about it. Says
/// nothing of a plain one.
void note_odd_image(const char* name);

/// What a file's header and length tell.
struct ImageFacts {
  std::string problem;  // what is wrong, as the rest of a sentence that begins with the file's name; empty: nothing
  MRC_HEAD head{};      // where nothing is wrong
  float apix = 0;       // pixel size in the header, Å; 0: none
  bool exact = false;   // the file is as long as its header says with all sections, as extraction wants it
};

/// Looks at a file that is given as a micrograph. Says nothing and ends nothing. whole: decodes what is compressed, which
/// takes as long as reading it; else its samples are not looked at, and exact is false. The open image, where any format is
/// read and the file could be opened, goes to `opened`, if it isn't null.
ImageFacts look_at_image(const char* name, const ImageOptions& options, bool whole,
                         std::unique_ptr<ImageFile>* opened = nullptr);
