#include "simulate/random.h"

#include <cmath>

namespace {

constexpr double kTwoPi = 2 * M_PI;

uint64_t rotate_left(uint64_t value, int bits) { return (value << bits) | (value >> (64 - bits)); }

/// The finisher of splitmix64 (Steele, Lea and Flood, OOPSLA 2014): every input bit reaches every output bit.
uint64_t mix(uint64_t value) {
  value += 0x9e3779b97f4a7c15U;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9U;
  value = (value ^ (value >> 27)) * 0x94d049bb133111ebU;
  return value ^ (value >> 31);
}

double unit_interval(uint64_t bits) { return static_cast<double>(bits >> 11) * 0x1p-53; }

/// ln k!: exact products for small k, else Stirling's series, whose error is then below 1e-9.
double log_factorial(double k) {
  static constexpr double kSmall[] = {0.0,
                                      0.0,
                                      0.6931471805599453,
                                      1.791759469228055,
                                      3.1780538303479458,
                                      4.787491742782046,
                                      6.579251212010101,
                                      8.525161361065415,
                                      10.60460290274525,
                                      12.801827480081469};
  if (k < 10) return kSmall[static_cast<int>(k)];
  const double inverse = 1 / (k + 1), square = inverse * inverse;
  return (k + 0.5) * std::log(k + 1) - (k + 1) + 0.9189385332046728 +
         inverse * (1.0 / 12 - square * (1.0 / 360 - square / 1260));
}

/// Counts by inversion: walks up the distribution until it passes a uniform number.
long poisson_by_inversion(Random* random, double mean) {
  double probability = std::exp(-mean), rest = random_uniform(random);
  long count = 0;
  while (rest >= probability && count < 200) {
    rest -= probability;
    probability *= mean / static_cast<double>(++count);
  }
  return count;
}

/// Counts by transformed rejection (algorithm PTRS of Hörmann, Insurance: Mathematics and Economics 12,
/// 1993), for means of at least 10.
long poisson_by_rejection(Random* random, double mean) {
  const double b = 0.931 + 2.53 * std::sqrt(mean), a = -0.059 + 0.02483 * b;
  const double quick = 0.9277 - 3.6224 / (b - 2);
  for (;;) {
    const double u = random_uniform(random) - 0.5, v = random_uniform(random);
    const double us = 0.5 - std::fabs(u);
    const double k = std::floor((2 * a / us + b) * u + mean + 0.43);
    if (us >= 0.07 && v <= quick) return static_cast<long>(k);
    if (k < 0 || us <= 0 || (us < 0.013 && v > us)) continue;
    const double inverse_alpha = 1.1239 + 1.1328 / (b - 3.4);
    if (std::log(v * inverse_alpha / (a / (us * us) + b)) <= k * std::log(mean) - mean - log_factorial(k))
      return static_cast<long>(k);
  }
}

}  // namespace

Random random_stream(uint64_t seed, Stream purpose, uint64_t first, uint64_t second) {
  uint64_t key = mix(mix(mix(mix(seed) ^ static_cast<uint64_t>(purpose)) ^ first) ^ second);
  Random random;
  for (uint64_t& word : random.state) word = key = mix(key);
  return random;
}

uint64_t random_bits(Random* random) {
  uint64_t* s = random->state;
  const uint64_t result = rotate_left(s[0] + s[3], 23) + s[0];
  const uint64_t shifted = s[1] << 17;
  s[2] ^= s[0];
  s[3] ^= s[1];
  s[1] ^= s[2];
  s[0] ^= s[3];
  s[2] ^= shifted;
  s[3] = rotate_left(s[3], 45);
  return result;
}

double random_uniform(Random* random) { return unit_interval(random_bits(random)); }

double random_between(Random* random, double from, double to) { return from + (to - from) * random_uniform(random); }

double random_gauss(Random* random) {
  const double radius = std::sqrt(-2 * std::log(1 - random_uniform(random)));
  return radius * std::cos(kTwoPi * random_uniform(random));
}

long random_poisson(Random* random, double mean) {
  if (!(mean > 0)) return 0;
  return mean < 10 ? poisson_by_inversion(random, mean) : poisson_by_rejection(random, mean);
}

double lattice_value(uint64_t key, int64_t x, int64_t y) {
  const uint64_t bits = mix(mix(key ^ static_cast<uint64_t>(x)) ^ static_cast<uint64_t>(y));
  return 2 * unit_interval(bits) - 1;
}

double lattice_noise(uint64_t key, double x, double y) {
  const double left = std::floor(x), low = std::floor(y);
  const double tx = x - left, ty = y - low;
  const double wx = tx * tx * (3 - 2 * tx), wy = ty * ty * (3 - 2 * ty);
  const auto ix = static_cast<int64_t>(left), iy = static_cast<int64_t>(low);
  const double below = (1 - wx) * lattice_value(key, ix, iy) + wx * lattice_value(key, ix + 1, iy);
  const double above = (1 - wx) * lattice_value(key, ix, iy + 1) + wx * lattice_value(key, ix + 1, iy + 1);
  return (1 - wy) * below + wy * above;
}
