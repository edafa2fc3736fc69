// What the page shows of one micrograph.
#pragma once

#include <string>
#include <vector>

#include "common/broken_lines.h"
#include "report/settings.h"

/// Steps of the page's contrast slider: shares of the picture's pixels that become black, and as many white.
constexpr double kClippedShares[] = {0, 0.001, 0.002, 0.005, 0.01, 0.02, 0.03, 0.05, 0.075, 0.1, 0.15, 0.2};
constexpr size_t kContrastSteps = sizeof kClippedShares / sizeof kClippedShares[0];

struct PickColumns {
  std::vector<float> x, y, score, average, sigma;  // pixels of the micrograph; no number where there is none
};

struct Record {
  std::string name;    // of the micrograph, as given
  int nx = 0, ny = 0;  // pixels; 0 where it can't be read
  int bin = 1;         // pixels of the micrograph a side in one of the picture
  int boxsize = 0;     // of its first pick, 0 where that isn't told
  PickColumns picks;   // in the order of the list
  bool has_average = false, has_sigma = false;
  std::vector<float> rejected;        // x and y of each place, pixels of the micrograph
  double closed = -1;                 // share of the area that was closed to picking; -1: not known
  std::string image;                  // JPEG file
  std::string thumbnail;              // a small one, where one was asked for
  std::string levels;                 // grey levels of the contrast steps, the lower ones, then the upper ones
  std::vector<std::string> problems;  // "file: what is wrong"
};

/// Reads a micrograph, its lists and maps. What can't be read is told in problems. For any thread.
Record read_record(const ReportSettings& settings, const std::string& name, bool with_thumbnail);
