// Images of micrographs and of their maps, read by the row. The one door of the tools to image files.
#pragma once

#include <memory>
#include <string>

#include "formats/image_file.h"

/// An image file of any format, open for reading: its section 0.
class MicrographFile {
 public:
  /// Opens a file. Returns nothing where it can't be read as an image, and what is wrong with it in `problem`; sizes are
  /// held against the file's length.
  static std::unique_ptr<MicrographFile> open(const std::string& name, std::string* problem);

  int nx() const { return image_->head().nx; }
  int ny() const { return image_->head().ny; }

  /// Reads `count` rows from row `first` on, nx floats each. Several threads may read at once.
  void read_rows(int first, int count, float* rows) const { image_->read_rows(0, first, count, rows); }

 private:
  std::unique_ptr<ImageFile> image_;
};

/// The raw pixels a side that were averaged to one of a map of that width, made of a micrograph of nx by ny: one of the
/// numbers that --speed stands for, or 0 where none fits.
int shrink_of_map(int map_width, int nx, int ny);
