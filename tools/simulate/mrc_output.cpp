#include "simulate/mrc_output.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/options.h"
#include "mrcfile.h"
#include "simulate/random.h"

namespace {

/// An MRC file on its way to the disk.
struct Output {
  const char* name;
  FILE* file;
  MRC_HEAD* head;
  double sum, square;  // of the samples written so far
  double samples;
};

/// Statistics of one row of samples.
struct RowStatistics {
  float least, most;
  double sum, square;
};

size_t sample_bytes(long mode) { return mode == 0 ? 1 : mode == 2 ? 4 : 2; }

/// Marks the sections as separate images of a pixel size, in the way of the format's 2014 edition.
void describe_images(MRC_HEAD* head, double apix) {
  head->ispg = 0;  // images, not a volume
  head->mx = head->nx;
  head->my = head->ny;
  head->mz = 1;
  head->xlen = static_cast<float>(head->mx * apix);
  head->ylen = static_cast<float>(head->my * apix);
  head->zlen = static_cast<float>(apix);
  const int32_t version = 20140;
  memcpy(head->reserved1 + 10, &version, sizeof version);
  snprintf(head->labels[0], sizeof head->labels[0], "kestrix_simulate");
  head->nlabl = 1;
}

/// Creates the file with room for its header, which finish_output writes.
void begin_output(Output* output, const char* name, long nx, long ny, long nz, long mode, double apix) {
  *output = {};
  output->name = name;
  output->file = fopen(name, "wb");
  if (!output->file) refuse("cannot write %s: %m", name);
  output->head = mrc_new_head();
  MRC_HEAD* head = output->head;
  mrc_set_head_xyz_mode(head, static_cast<int>(nx), static_cast<int>(ny), static_cast<int>(nz), static_cast<int>(mode));
  describe_images(head, apix);
  head->amin = INFINITY;
  head->amax = -INFINITY;
  if (fseek(output->file, kMrcHeadBytes, SEEK_SET) != 0) refuse("cannot write %s: %m", name);
}

void add_section(Output* output, const void* samples, const std::vector<RowStatistics>& rows) {
  MRC_HEAD* head = output->head;
  for (const RowStatistics& row : rows) {
    head->amin = std::min(head->amin, row.least);
    head->amax = std::max(head->amax, row.most);
    output->sum += row.sum;
    output->square += row.square;
    output->samples += head->nx;
  }
  const size_t count = static_cast<size_t>(head->nx) * static_cast<size_t>(head->ny);
  if (fwrite(samples, sample_bytes(head->mode), count, output->file) != count)
    refuse("writing %s failed: %m", output->name);
}

void finish_output(Output* output) {
  const double mean = output->sum / output->samples;
  output->head->amean = static_cast<float>(mean);
  output->head->rms = static_cast<float>(std::sqrt(std::max(0.0, output->square / output->samples - mean * mean)));
  mrc_write_head(output->file, output->head);
  const bool failed = ferror(output->file) != 0;
  if (fclose(output->file) != 0 || failed) refuse("writing %s failed: is the disk full?", output->name);
  free(output->head);
}

/// Stores a value as sample x of a row and returns what the sample then holds.
float store_sample(void* row, long mode, long x, double value) {
  switch (mode) {
    case 0:
      return static_cast<uint8_t*>(row)[x] = static_cast<uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
    case 1:
      return static_cast<int16_t*>(row)[x] = static_cast<int16_t>(std::lround(std::clamp(value, 0.0, 32767.0)));
    case 6:
      return static_cast<uint16_t*>(row)[x] = static_cast<uint16_t>(std::lround(std::clamp(value, 0.0, 65535.0)));
    default:
      return static_cast<float*>(row)[x] = static_cast<float>(value);
  }
}

/// Counts the electrons of one row. The row's stream depends on nothing but its place, whichever thread
/// counts.
RowStatistics count_row(const Settings& s, long index, long frame, long y, const float* expected, void* row) {
  const uint64_t place = static_cast<uint64_t>(index) << 32 | static_cast<uint64_t>(frame);
  Random random = random_stream(static_cast<uint64_t>(s.seed), Stream::noise, place, static_cast<uint64_t>(y));
  RowStatistics statistics = {INFINITY, -INFINITY, 0, 0};
  for (long x = 0; x < s.nx; x++) {
    const double mean = expected[y * s.nx + x];
    const double value = s.noise_free ? mean : static_cast<double>(random_poisson(&random, mean));
    const float stored = store_sample(row, s.mode, x, value);
    statistics.least = std::min(statistics.least, stored);
    statistics.most = std::max(statistics.most, stored);
    statistics.sum += stored;
    statistics.square += static_cast<double>(stored) * stored;
  }
  return statistics;
}

/// Direction number i of count, spread over the sphere along a spiral of golden angles.
Orientation spread_direction(long i, long count) {
  const double turn = std::fmod(static_cast<double>(i) * 137.50776405003785, 360.0);
  const double height = 1 - (2 * static_cast<double>(i) + 1) / static_cast<double>(count);
  return {turn, std::acos(height) * 57.29577951308232, 0};
}

RowStatistics row_statistics(const float* row, long n) {
  RowStatistics statistics = {INFINITY, -INFINITY, 0, 0};
  for (long x = 0; x < n; x++) {
    statistics.least = std::min(statistics.least, row[x]);
    statistics.most = std::max(statistics.most, row[x]);
    statistics.sum += row[x];
    statistics.square += static_cast<double>(row[x]) * row[x];
  }
  return statistics;
}

}  // namespace

void write_micrograph(const char* name, const Settings& settings, long index, const float* expected) {
  const size_t row_bytes = static_cast<size_t>(settings.nx) * sample_bytes(settings.mode);
  char* samples = static_cast<char*>(malloc(row_bytes * static_cast<size_t>(settings.ny)));
  if (!samples) refuse("no memory for a section of %ld x %ld pixels", settings.nx, settings.ny);
  Output output;
  begin_output(&output, name, settings.nx, settings.ny, settings.frames, settings.mode, settings.apix);
  std::vector<RowStatistics> rows(static_cast<size_t>(settings.ny));
  for (long frame = 0; frame < settings.frames; frame++) {
#pragma omp parallel for schedule(dynamic, 16)
    for (long y = 0; y < settings.ny; y++)
      rows[static_cast<size_t>(y)] =
          count_row(settings, index, frame, y, expected, samples + static_cast<size_t>(y) * row_bytes);
    add_section(&output, samples, rows);
  }
  finish_output(&output);
  free(samples);
}

void write_templates(const char* name, const Settings& settings, const Phantom& phantom) {
  const long box = settings.boxT;
  const double middle = (static_cast<double>(box) - 1) / 2;
  std::vector<float> image(static_cast<size_t>(box * box));
  std::vector<RowStatistics> rows(static_cast<size_t>(box));
  Output output;
  begin_output(&output, name, box, box, settings.templates, 2, settings.apixT);
  for (long i = 0; i < settings.templates; i++) {
    Spot spots[kBlobs];
    project_phantom(phantom, spread_direction(i, settings.templates), settings.lowpass, spots);
    std::fill(image.begin(), image.end(), 0.0F);
    const int side = static_cast<int>(box);
    add_projection(spots, middle, middle, settings.apixT, image.data(), side, side, box);
    for (long y = 0; y < box; y++)
      rows[static_cast<size_t>(y)] = row_statistics(&image[static_cast<size_t>(y * box)], box);
    add_section(&output, image.data(), rows);
  }
  finish_output(&output);
}
