#include "compute/robust_statistics.h"

#include <omp.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/host_memory.h"

namespace {

constexpr int kDigitBits = 11;
constexpr size_t kBins = size_t{1} << kDigitBits;
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
  size_t n;
  bool distances;
  float centre;
};

// Adds to counts how many values whose key begins with `prefix` (the digits above the one at shift) have each digit.
void count_digits(const Values& values, size_t first, size_t last, int shift, uint32_t prefix, size_t* counts) {
  const int above = shift == 0 ? 10 : shift + kDigitBits;
  const uint32_t mask = shift == 0 ? 0x3ffu : kBins - 1;
  for (size_t i = first; i < last; i++) {
    if (values.mask && values.mask[i] == 0.0f) continue;
    const float v = values.distances ? fabsf(values.d[i] - values.centre) : values.d[i];
    if (v != v) continue;
    const uint32_t key = key_of(v);
    if (above < 32 && key >> above != prefix) continue;
    counts[(key >> shift) & mask]++;
  }
}

// The same over all values by all cores; counts has kBins entries, and is cleared first.
void count_all(const Values& values, int shift, uint32_t prefix, size_t* counts) {
  memset(counts, 0, kBins * sizeof *counts);
#pragma omp parallel
  {
    const auto threads = static_cast<size_t>(omp_get_num_threads());
    const auto thread = static_cast<size_t>(omp_get_thread_num());
    size_t own[kBins] = {};
    count_digits(values, values.n * thread / threads, values.n * (thread + 1) / threads, shift, prefix, own);
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

}  // namespace

RobustScale robust_scale(const float* d, const float* mask, size_t n) {
  RobustScale scale{};
  scale.median = ranked({d, mask, n, false, 0}, 0.5, &scale.count);
  size_t count = 0;
  scale.deviation = 1.4826f * ranked({d, mask, n, true, scale.median}, 0.5, &count);
  return scale;
}

float quantile(const float* d, const float* mask, size_t n, double share) {
  size_t count = 0;
  return ranked({d, mask, n, false, 0}, share, &count);
}
