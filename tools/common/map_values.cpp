#include "common/map_values.h"

#include <cmath>

#include "common/micrograph_file.h"

bool MapValues::read(const std::string& name, int nx, int ny, std::string* problem) {
  values_.clear();
  const auto map = MicrographFile::open(name, problem);
  if (!map) return false;
  side_ = map->nx();
  shrink_ = map->ny() == side_ ? shrink_of_map(side_, nx, ny) : 0;
  if (shrink_ == 0) {
    *problem = "is not of the size that a run gives a micrograph of " + std::to_string(nx) + " x " + std::to_string(ny);
    return false;
  }
  values_.resize(static_cast<size_t>(side_) * static_cast<size_t>(side_));
  map->read_rows(0, side_, values_.data());
  return true;
}

float MapValues::at(double x, double y) const {
  const double column = std::floor(x / shrink_), row = std::floor(y / shrink_);
  if (values_.empty() || !(column >= 0 && column < side_ && row >= 0 && row < side_)) return NAN;
  return values_[static_cast<size_t>(row) * static_cast<size_t>(side_) + static_cast<size_t>(column)];
}
