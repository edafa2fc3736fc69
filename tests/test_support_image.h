// MRC files as tests look at them.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "mrcfile.h"

/// An MRC file, all its sections as floats.
struct Image {
  MRC_HEAD head;
  std::vector<float> data;
  float at(long x, long y, long z = 0) const { return data[static_cast<size_t>((z * head.ny + y) * head.nx + x)]; }
};

inline Image read_image(const std::string& name) {
  Image image;
  MRC_HEAD* head = get_mrcf_head(name.c_str());
  image.head = *head;
  float* data = get_mrcf_data_all(name.c_str());
  image.data.assign(data, data + static_cast<size_t>(head->nx) * head->ny * head->nz);
  free(data);
  free(head);
  return image;
}
