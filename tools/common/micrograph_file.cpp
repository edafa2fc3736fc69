#include "common/micrograph_file.h"

#include "process2d_raw.h"

std::unique_ptr<MicrographFile> MicrographFile::open(const std::string& name, std::string* problem) {
  std::unique_ptr<MicrographFile> file(new MicrographFile);
  file->image_ = open_image(name.c_str(), {}, problem);
  if (file->image_) *problem = problem_of_section(*file->image_);
  return problem->empty() ? std::move(file) : nullptr;
}

int shrink_of_map(int map_width, int nx, int ny) {
  for (const int shrink : {1, 2, 4, 6, 8})
    if (get_max_extended_square_even_size(nx, ny, shrink) == map_width) return shrink;
  return 0;
}
