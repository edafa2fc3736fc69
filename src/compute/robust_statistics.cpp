#include "compute/robust_statistics.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/host_memory.h"

namespace {

constexpr int kDigitBits = 11;
constexpr size_t kBins = size_t{1} << kDigitBits;
constexpr size_t kParallelFrom = size_t{1} << 18;  // fewer values are counted by one core
constexpr int kShifts[] = {21, 10, 0};  // of the digits of a key, the highest first; the last one is 10 bits wide

// A number's place among all floats: keys compare as the numbers do.
uint32_t key_of(float v) {
  uint32_t bits = 0;
  memcpy(&bits, &v, sizeof bits);
  return (bits & 0x80000000u) != 0 ? ~bits : bits | 0x80000000u;
}

float value_of(uint32_t key) {
  const uint32_t bits = (key & 0x80000000u) != 0 ? key & 0x7fffffffu : ~key;
  float v = 0;
  memcpy(&v, &bits, sizeof v);
  return v;
}

// What is ranked: the values themselves, or their distances from a centre.
struct Values {
  const float* d;
  const float* mask;
  size_t nx, ny;
  bool distances;
  float centre;
};

// Adds to counts how many values of one row whose key begins with `prefix` (the digits above the one at shift) have each
// digit.
void count_digits(const Values& values, size_t row, int shift, uint32_t prefix, size_t* counts) {
  const int above = shift == 0 ? 10 : shift + kDigitBits;
  const uint32_t digit = shift == 0 ? 0x3ffu : kBins - 1;
  for (size_t i = row * values.nx; i < (row + 1) * values.nx; i++) {
    if (values.mask && values.mask[i] == 0.0f) continue;
    const float v = values.distances ? fabsf(values.d[i] - values.centre) : values.d[i];
    if (v != v) continue;
    const uint32_t key = key_of(v);
    if (above < 32 && key >> above != prefix) continue;
    counts[(key >> shift) & digit]++;
  }
}

// The same of all rows that count, by all cores; counts has kBins entries, and is cleared first.
void count_all(const Values& values, int shift, uint32_t prefix, size_t* counts) {
  memset(counts, 0, kBins * sizeof *counts);
#pragma omp parallel if (values.nx * values.ny / kSampledRows >= kParallelFrom)
  {
    size_t own[kBins] = {};
#pragma omp for schedule(static)
    for (size_t row = 0; row < values.ny; row += kSampledRows) count_digits(values, row, shift, prefix, own);
#pragma omp critical
    for (size_t bin = 0; bin < kBins; bin++) counts[bin] += own[bin];
  }
}

size_t sum_of(const size_t* counts) {
  size_t sum = 0;
  for (size_t bin = 0; bin < kBins; bin++) sum += counts[bin];
  return sum;
}

// The value of the rank floor(share * (count - 1)); 0 where there is none. Sets count.
float ranked(const Values& values, double share, size_t* count) {
  size_t counts[kBins];
  size_t rank = 0;
  uint32_t key = 0;
  *count = 0;
  for (const int shift : kShifts) {
    count_all(values, shift, key, counts);
    if (shift == kShifts[0]) {
      *count = sum_of(counts);
      if (*count == 0) return 0;
      rank = static_cast<size_t>(share * static_cast<double>(*count - 1));
    }
    uint32_t digit = 0;
    while (rank >= counts[digit]) rank -= counts[digit++];
    key = shift == 0 ? key << 10 | digit : key << kDigitBits | digit;
  }
  return value_of(key);
}

RobustScale scale_of(Values values) {
  RobustScale scale{};
  scale.median = ranked(values, 0.5, &scale.count);
  values.distances = true;
  values.centre = scale.median;
  size_t count = 0;
  scale.deviation = 1.4826f * ranked(values, 0.5, &count);
  return scale;
}

}  // namespace

RobustScale robust_scale(const float* d, const float* mask, int nx, int ny) {
  return scale_of({d, mask, static_cast<size_t>(nx), static_cast<size_t>(ny), false, 0});
}

float quantile(const float* d, const float* mask, int nx, int ny, double share) {
  size_t count = 0;
  return ranked({d, mask, static_cast<size_t>(nx), static_cast<size_t>(ny), false, 0}, share, &count);
}
