// The kinds of files that image_file.h opens.
#pragma once

#include "formats/image_file.h"

/// An MRC file of any kind. Fails as open_image.
std::unique_ptr<ImageFile> open_mrc_image(std::unique_ptr<ByteSource> bytes, const ImageOptions& options,
                                          std::string* problem);

/// Whether bytes begin as a TIFF file does.
bool is_tiff(const unsigned char* first, size_t n);

/// A TIFF file. Fails as open_image.
std::unique_ptr<ImageFile> open_tiff_image(std::unique_ptr<ByteSource> bytes, std::string* problem);

/// Name and version of the library that reads TIFF; empty where there is none.
std::string tiff_library();
