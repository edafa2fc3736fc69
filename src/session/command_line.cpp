#include "session/command_line.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>

#include "formats/star_blocks.h"
#include "platform/failure.h"
#include "run/parameters.h"

namespace {

constexpr char unit[] = "command_line";

std::string whole_text(const char* file) {
  if (strcmp(file, "-") == 0) return {std::istreambuf_iterator<char>(std::cin), {}};
  if (!check_file_regular(file)) KESTRIX_FATAL("--micrographs %s is no file; give a list, a path a line", file);
  std::ifstream list(file);
  if (!list) KESTRIX_FATAL("--micrographs %s can't be read: %s", file, strerror(errno));
  return {std::istreambuf_iterator<char>(list), {}};
}

bool is_star(const std::string& text) {
  return text.rfind("data_", 0) == 0 || text.find("\ndata_") != std::string::npos;
}

const StarBlock* block_with(const std::vector<StarBlock>& blocks, const char* label) {
  for (const StarBlock& block : blocks)
    if (block.column(label) >= 0) return &block;
  return nullptr;
}

double number_in(const StarBlock& block, const std::vector<std::string>& row, const char* label) {
  const int column = block.column(label);
  return column < 0 ? 0 : strtod(row[static_cast<size_t>(column)].c_str(), nullptr);
}

// The pixel size that a row tells: of RELION 3.1 and later, or by the detector's pixels in micrometres and the
// magnification, as RELION 3.0 has it.
double pixel_size(const StarBlock& block, const std::vector<std::string>& row) {
  const double pixel = number_in(block, row, "_rlnMicrographPixelSize");
  const double magnification = number_in(block, row, "_rlnMagnification");
  if (pixel > 0) return pixel;
  return magnification > 0 ? 1e4 * number_in(block, row, "_rlnDetectorPixelSize") / magnification : 0;
}

// The groups whose micrographs are in the list, and their pixel sizes.
using PixelSizes = std::map<std::string, double>;

std::string group_of(const StarBlock& block, const std::vector<std::string>& row) {
  const int column = block.column("_rlnOpticsGroup");
  return column < 0 ? "1" : row[static_cast<size_t>(column)];
}

PixelSizes sizes_of_groups(const std::vector<StarBlock>& blocks, const StarBlock& micrographs) {
  PixelSizes sizes, used;
  for (const StarBlock& block : blocks)
    if (&block != &micrographs && block.column("_rlnOpticsGroup") >= 0)
      for (const auto& row : block.rows) sizes[group_of(block, row)] = pixel_size(block, row);
  for (const auto& row : micrographs.rows) {
    const double own = pixel_size(micrographs, row);
    const std::string group = group_of(micrographs, row);
    used[own > 0 && sizes.empty() ? std::to_string(own) + " A" : group] = own > 0 ? own : sizes[group];
  }
  return used;
}

double common_size(const PixelSizes& sizes, const char* file) {
  const auto& first = *sizes.begin();
  for (const auto& other : sizes)
    if (std::fabs(other.second - first.second) > 1e-4 * first.second)
      KESTRIX_FATAL(
          "--micrographs %s holds optics groups of different pixel size: %s of %g A and %s of %g A; pick each with a "
          "list "
          "of its own",
          file, first.first.c_str(), first.second, other.first.c_str(), other.second);
  return first.second;
}

ListedMicrographs micrographs_of_star(const std::string& text, const char* file) {
  std::istringstream stream(text);
  const std::vector<StarBlock> blocks = read_star_blocks(stream);
  const StarBlock* block = block_with(blocks, "_rlnMicrographName");
  if (!block || block->rows.empty())
    KESTRIX_FATAL("--micrographs %s is a STAR file without micrographs: it needs rows with _rlnMicrographName", file);
  ListedMicrographs listed;
  const auto column = static_cast<size_t>(block->column("_rlnMicrographName"));
  for (const auto& row : block->rows) listed.names.push_back(row[column]);
  listed.apix = common_size(sizes_of_groups(blocks, *block), file);
  return listed;
}

ListedMicrographs micrographs_of_lines(const std::string& text) {
  ListedMicrographs listed;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const size_t end = line.find_last_not_of(" \t\r");
    if (end != std::string::npos) listed.names.push_back(line.substr(0, end + 1));
  }
  return listed;
}

}  // namespace

ListedMicrographs read_micrograph_list(const char* file) {
  const std::string text = whole_text(file);
  return is_star(text) ? micrographs_of_star(text, file) : micrographs_of_lines(text);
}

CommandLine::CommandLine(int argc, char** argv) {
  const int at = kestrix_find_value(argc, argv, "micrographs");
  const bool tells_apix = kestrix_find_value(argc, argv, "apixM") > 0;
  if (at > 0) {
    ListedMicrographs listed = read_micrograph_list(argv[at]);
    const int watch_at = kestrix_find_value(argc, argv, "watch");
    const bool watches = watch_at > 0 && strtod(argv[watch_at], nullptr) > 0;
    if (!watches) texts_ = std::move(listed.names);  // else they count when they are whole
    for (std::string& name : texts_)
      if (name[0] == '-') name.insert(0, "./");  // no option
    if (listed.apix > 0 && !tells_apix) {
      char number[32];
      snprintf(number, sizeof number, "%.6g", listed.apix);
      texts_.insert(texts_.begin(), {"--apixM", number});
    }
  }
  arguments_.assign(argv, argv + argc);
  // Said once more, since a flag at the end would take a path that begins with no letter for its value.
  if (at > 0) {
    arguments_.push_back(const_cast<char*>("--micrographs"));
    arguments_.push_back(argv[at]);
  }
  for (std::string& text : texts_) arguments_.push_back(&text[0]);
  arguments_.push_back(nullptr);
}
