// Values of a diagnostic map of a micrograph, such as its local averages, at places of the micrograph.
#pragma once

#include <string>
#include <vector>

class MapValues {
 public:
  /// Reads the map of a micrograph of nx by ny pixels. Returns false where there is none, or one that doesn't fit, with
  /// the reason in `problem`; every value is no number then.
  bool read(const std::string& name, int nx, int ny, std::string* problem);

  /// The value of the working pixel that holds (x, y), pixels of the micrograph; no number outside.
  float at(double x, double y) const;

 private:
  int side_ = 0, shrink_ = 1;
  std::vector<float> values_;
};
