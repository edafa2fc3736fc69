// Random numbers that depend on nothing but a seed: the generator and all distributions are written out here,
// so that neither the standard library nor the number of threads changes what comes.
#pragma once

#include <cstdint>

/// State of one stream of random numbers (xoshiro256++ of Blackman and Vigna, ACM TOMS 47, 2021).
struct Random {
  uint64_t state[4];
};

/// What a stream is used for, part of its key.
enum class Stream : uint64_t { phantom, scene, texture, noise };

/// The stream of a seed, its purpose and two numbers of the caller's (say, a section and a row). Streams of
/// different keys are independent for every practical purpose.
Random random_stream(uint64_t seed, Stream purpose, uint64_t first, uint64_t second);

/// The next 64 random bits.
uint64_t random_bits(Random* random);

/// Uniform on [0, 1), a multiple of 2^-53.
double random_uniform(Random* random);

/// Uniform on [from, to).
double random_between(Random* random, double from, double to);

/// Normal with mean 0 and variance 1.
double random_gauss(Random* random);

/// Poisson with the given mean, which must be finite; a mean not above 0 gives 0.
long random_poisson(Random* random, double mean);

/// A fixed number on [-1, 1) for each lattice point of a key.
double lattice_value(uint64_t key, int64_t x, int64_t y);

/// Smooth noise on [-1, 1]: lattice_value at whole x and y, blended between them by 3t^2 - 2t^3.
double lattice_noise(uint64_t key, double x, double y);
