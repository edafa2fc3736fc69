// The image files of a run's micrographs.
#pragma once

#include <memory>

#include "formats/image_file.h"
#include "run/run_state.h"

/// How a run reads its images.
ImageOptions image_options(const Kestrix_Para* para);

/// Opens a micrograph. Ends the run where that can't be done, in the name of `function`; where any format is read, also
/// where it isn't an image.
std::unique_ptr<ImageFile> open_micrograph(const Kestrix_Para* para, const char* mic, const char* function);

/// Whether one preparation serves images with these headers: of the same sizes and, unless any format is read, the same
/// sample type.
bool are_alike(const Kestrix_Para* para, const MRC_HEAD& a, const MRC_HEAD& b);

/// Whether a run that is prepared can pick an image with this header.
bool fits_run(const Run* run, const MRC_HEAD& head);

/// Pixel size by the header of the first micrograph that can be read, Å; 0 where none can or it tells none that can be
/// believed. name: set to that micrograph.
float pixel_size_of_list(const Kestrix_Para* para, const char** name);
