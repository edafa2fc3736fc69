// The page's data as scripts: an index of all micrographs with all scores, and of each hundred micrographs what their
// pages show. Columns of numbers are base64 of little-endian single precision.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "report/record.h"
#include "report/settings.h"

constexpr size_t kMicrographsPerChunk = 100;

/// Least and largest value of a column over all picks.
struct Range {
  double least = 1, most = 0;  // least > most: no value yet
  void add(const std::vector<float>& values);
};

/// What the overview needs of all micrographs, in their order.
struct ReportIndex {
  std::vector<std::string> names;
  std::vector<int> nx, ny, bins;
  std::vector<long> counts;                             // of picks
  std::vector<double> closed;                           // share of the area, -1: not known
  std::vector<float> scores;                            // of all picks, micrograph by micrograph
  std::map<size_t, std::vector<std::string>> problems;  // by number of the micrograph
  Range average, sigma;
  int boxsize = 0;  // of the first pick whose list tells it

  void add(const Record& record);
};

/// The script of the index. images_apart: whether pictures are files of their own.
std::string index_script(const ReportIndex& index, const ReportSettings& settings, bool images_apart);

/// The script of `count` records, those of chunk `number`; with their pictures in it or without.
std::string chunk_script(size_t number, const Record* records, size_t count, bool with_images);
