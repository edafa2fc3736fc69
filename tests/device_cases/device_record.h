// Results of device operations on fixed inputs: one build writes them to a file, another's are compared with them.
#pragma once

#include <string>
#include <vector>

/// How far a value may lie from the other device's.
struct Closeness {
  double of_value;   // as a share of the value
  double of_rms;     // as a share of the root mean square of the whole result
  double elsewhere;  // share of the values that may lie anywhere
};

// Additions, products, divisions, square roots, comparisons and copies: both devices round each as IEEE 754 says, and
// neither fuses a product with a sum on its own.
constexpr Closeness kSameBits{0, 0, 0};

// One or two values of expf: within one unit in the last place (2^-23) of the true value on a GPU and within about a
// half on the host, each followed by a product or two.
constexpr Closeness kExponential{1e-6, 0, 0};

// A transform or two: cuFFT and FFTW sum in different orders. FFTW's worst value lies by up to 1e-6 of the root mean
// square from the transform in double precision at the sizes used here; a pair of transforms of two devices may be off
// by several times that.
constexpr Closeness kTransform{0, 1e-5, 0};

// Choices between values that come from transforms: where two tie to within their rounding the choice may differ.
constexpr Closeness kChoice{0, 0, 2e-3};

struct DeviceResult {
  std::string name;
  Closeness closeness;
  std::vector<float> values;
};

using DeviceRecord = std::vector<DeviceResult>;

/// Writes a record as a file; false if that fails.
bool write_record(const char* file, const DeviceRecord& record);

/// Reads what write_record wrote; false for a file that is missing or incomplete.
bool read_record(const char* file, DeviceRecord& record);

/// What a comparison found.
struct Comparison {
  bool agrees;
  size_t different;  // values whose bits differ
  std::string text;  // one line for a person: the result's name, the counts and the worst pair of values
};

/// Compares a result with the other device's of the same name, by the closeness that the first one states. Two NaN
/// agree; the bits of a NaN are nobody's business.
Comparison compare_results(const DeviceResult& expected, const DeviceResult& other);
