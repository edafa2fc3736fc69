#include "report/record.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>

#include "common/map_values.h"
#include "common/micrograph_file.h"
#include "common/micrograph_names.h"
#include "lists/pick_list.h"
#include "picture/drawing.h"
#include "picture/shrunk_image.h"

namespace {

constexpr int kQuality = 80;
constexpr int kThumbnailSide = 128;

void note(Record* record, const std::string& file, const std::string& problem) {
  record->problems.push_back(file + ": " + problem);
}

// Grey levels of the picture below and above which each step's share lies.
std::string contrast_levels(const ShrunkImage& image, float low, float high) {
  std::vector<double> shares(kClippedShares, kClippedShares + kContrastSteps);
  for (const double share : kClippedShares) shares.push_back(1 - share);
  std::string levels;
  for (const float value : image_quantiles(image, shares)) {
    const float level = high > low ? (value - low) / (high - low) * 255.0f : 0.0f;
    levels += static_cast<char>(static_cast<unsigned char>(std::clamp(level, 0.0f, 255.0f)));
  }
  return levels;
}

std::string small_jpeg(const ShrunkImage& image) {
  const int bin = (std::max(image.nx, image.ny) + kThumbnailSide - 1) / kThumbnailSide;
  ShrunkImage small{image.nx / bin, image.ny / bin, bin, {}};
  for (int y = 0; y < small.ny; y++)
    for (int x = 0; x < small.nx; x++) {
      float sum = 0;
      for (int j = 0; j < bin; j++)
        for (int i = 0; i < bin; i++)
          sum += image.values[static_cast<size_t>(y * bin + j) * static_cast<size_t>(image.nx) +
                              static_cast<size_t>(x * bin + i)];
      small.values.push_back(sum);
    }
  const std::vector<float> limits = image_quantiles(small, {0.005, 0.995});
  return small.values.empty() ? "" : jpeg_of(small.nx, small.ny, grey_levels(small, limits[0], limits[1]), kQuality);
}

void add_pictures(Record* record, const MicrographFile& file, int side, bool with_thumbnail) {
  const ShrunkImage image = read_shrunk_image(file, bin_for_side(file, side));
  record->bin = image.bin;
  const std::vector<float> limits = image_quantiles(image, {0.0005, 0.9995});
  record->image = jpeg_of(image.nx, image.ny, grey_levels(image, limits[0], limits[1]), kQuality);
  record->levels = contrast_levels(image, limits[0], limits[1]);
  if (with_thumbnail) record->thumbnail = small_jpeg(image);
}

// Notes of a list's lines as the record's problems: any thread may read, one prints.
std::vector<ListPick> read_list(Record* record, const std::string& name) {
  std::vector<ListPick> picks;
  BrokenLines broken([record](const std::string& file, const std::string& problem) { note(record, file, problem); });
  read_pick_list(name, &broken, &picks);
  broken.finish();
  return picks;
}

void add_picks(Record* record, const std::string& list) {
  for (const ListPick& pick : read_list(record, list)) {
    record->picks.x.push_back(static_cast<float>(pick.x));
    record->picks.y.push_back(static_cast<float>(pick.y));
    record->picks.score.push_back(pick.score);
    if (record->boxsize == 0) record->boxsize = pick.width;
  }
}

// Returns whether there is a map.
bool add_map_values(Record* record, const std::string& name, std::vector<float>* values) {
  values->assign(record->picks.x.size(), NAN);
  if (record->nx == 0 || !std::filesystem::exists(name)) return false;
  MapValues map;
  std::string problem;
  if (!map.read(name, record->nx, record->ny, &problem)) {
    note(record, name, problem);
    return false;
  }
  for (size_t i = 0; i < values->size(); i++) (*values)[i] = map.at(record->picks.x[i], record->picks.y[i]);
  return true;
}

// Share of the mask's zeros, as far as it covers the micrograph. -1 where there is none.
double closed_in_mask(const Record& record, const std::string& name) {
  std::string problem;
  if (record.nx == 0 || !std::filesystem::exists(name)) return -1;
  const auto mask = MicrographFile::open(name, &problem);
  const int shrink = mask ? shrink_of_map(mask->nx(), record.nx, record.ny) : 0;
  if (shrink == 0) return -1;
  const int nx = std::min(record.nx / shrink, mask->nx()), ny = std::min(record.ny / shrink, mask->ny());
  std::vector<float> row(static_cast<size_t>(mask->nx()));
  long closed = 0;
  for (int y = 0; y < ny; y++) {
    mask->read_rows(y, 1, row.data());
    closed += std::count(row.begin(), row.begin() + nx, 0.0f);
  }
  return static_cast<double>(closed) / (static_cast<double>(nx) * ny);
}

// Each rejected place stands for a cell of its box's size.
void add_rejected(Record* record, const std::string& name) {
  if (!std::filesystem::exists(name)) return;
  double area = 0;
  for (const ListPick& place : read_list(record, name)) {
    record->rejected.push_back(static_cast<float>(place.x));
    record->rejected.push_back(static_cast<float>(place.y));
    area += static_cast<double>(place.width) * place.height;
  }
  if (record->nx > 0) record->closed = std::min(1.0, area / (static_cast<double>(record->nx) * record->ny));
}

}  // namespace

Record read_record(const ReportSettings& settings, const std::string& given, bool with_thumbnail) {
  const ListPlace place{settings.odir, settings.list};
  Record record;
  record.name = micrograph_of(given, place);
  std::string problem;
  if (const auto file = MicrographFile::open(record.name, &problem)) {
    record.nx = file->nx();
    record.ny = file->ny();
    add_pictures(&record, *file, static_cast<int>(settings.side), with_thumbnail);
  } else {
    note(&record, record.name, problem);
  }
  const std::string base = list_base(given, place);
  add_picks(&record, find_list(given, place));
  record.has_average = add_map_values(&record, base + "_bg.mrc", &record.picks.average);
  record.has_sigma = add_map_values(&record, base + "_lsigma.mrc", &record.picks.sigma);
  add_rejected(&record, base + "_rejected.box");
  const double closed = closed_in_mask(record, base + "_mask.mrc");
  if (closed >= 0) record.closed = closed;
  return record;
}
