#include "common/micrograph_file.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "process2d_raw.h"

std::unique_ptr<MicrographFile> MicrographFile::open(const std::string& name, std::string* problem) {
  std::error_code none;
  if (std::filesystem::exists(name, none) && !std::filesystem::is_regular_file(name, none)) {
    *problem = "is no regular file";
    return nullptr;
  }
  std::unique_ptr<MicrographFile> image(new MicrographFile);
  image->file_.reset(fopen(name.c_str(), "r"));
  if (!image->file_) {
    *problem = std::string("can't be opened: ") + strerror(errno);
    return nullptr;
  }
  FILE* file = image->file_.get();
  mrc_read_head(file, &image->head_);
  if (!mrc_section_size_valid(&image->head_)) {
    *problem = "has a header that no micrograph has; is it an MRC file";
  } else if (!mrc_mode_readable(image->head_.mode)) {
    *problem = "has samples of MRC mode " + std::to_string(image->head_.mode) + ", which can't be read";
  } else if (mrc_missing_samples(file, &image->head_, 0) > 0) {
    *problem = "ends early: " + std::to_string(mrc_missing_samples(file, &image->head_, 0)) + " samples are missing";
  } else {
    note_extended_header(name.c_str(), &image->head_);
    return image;
  }
  return nullptr;
}

int shrink_of_map(int map_width, int nx, int ny) {
  for (const int shrink : {1, 2, 4, 6, 8})
    if (get_max_extended_square_even_size(nx, ny, shrink) == map_width) return shrink;
  return 0;
}
