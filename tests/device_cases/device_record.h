// Results of device operations on fixed inputs: one build writes them to a file, another's are compared with them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cuda_general.h"

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

/// One result: nx by ny floats (type 'f') or unsigned numbers ('u'), kept as bits.
struct DeviceResult {
  std::string name;
  char type;
  int nx, ny;
  Closeness closeness;
  std::vector<uint32_t> bits;
};

using DeviceRecord = std::vector<DeviceResult>;

/// Adds a result of host memory.
void record_values(DeviceRecord& record, const std::string& name, const float* values, int nx, int ny,
                   const Closeness& closeness);
void record_values(DeviceRecord& record, const std::string& name, const unsigned* values, int nx, int ny,
                   const Closeness& closeness);

/// Writes a record as a file; false if that fails.
bool write_record(const char* file, const DeviceRecord& record);

/// Reads what write_record wrote; false for a file that is missing or incomplete.
bool read_record(const char* file, DeviceRecord& record);

/// What a comparison found.
struct Comparison {
  bool agrees;
  size_t different;  // values whose bits differ
  size_t beyond;     // values that differ by more than the closeness allows
  std::string text;  // one line for a person: the result's name, the counts and the worst pair of values
};

/// Compares a result with the other device's of the same name, by the closeness that the first one states. Two NaN
/// agree; the bits of a NaN are nobody's business.
Comparison compare_results(const DeviceResult& expected, const DeviceResult& other);

// --- The cases: each function runs a group of operations on this build's device and adds their results ---

void record_flat_cases(DeviceRecord& record);
void record_image_cases(DeviceRecord& record);
void record_transform_cases(DeviceRecord& record);
void record_cell_cases(DeviceRecord& record);
void record_scan_cases(DeviceRecord& record);

// --- What the cases share ---

/// n numbers from [-1, 1), the same on every machine.
std::vector<float> noise(size_t n, uint64_t seed);

/// A device array, freed at the end of its scope. A failure ends the process.
template <class T>
struct OnDevice {
  explicit OnDevice(const std::vector<T>& values) : data(device_new<T>(values.size())), size(values.size()) {
    copied(cudaMemcpy(data, values.data(), size * sizeof(T), cudaMemcpyHostToDevice), __LINE__);
  }
  explicit OnDevice(size_t n) : OnDevice(std::vector<T>(n)) {}
  OnDevice(const OnDevice&) = delete;
  OnDevice& operator=(const OnDevice&) = delete;
  ~OnDevice() { cudaFree(data); }

  std::vector<T> values() const {
    std::vector<T> host(size);
    copied(cudaMemcpy(host.data(), data, size * sizeof(T), cudaMemcpyDeviceToHost), __LINE__);
    return host;
  }

  static void copied(cudaError_t status, int line) {
    if (status != cudaSuccess) device_failure(cudaGetErrorString(status), line, "device_record");
  }

  T* data;
  size_t size;
};

/// Adds a device array of nx by ny values.
template <class T>
void record_array(DeviceRecord& record, const std::string& name, const OnDevice<T>& array, int nx, int ny,
                  const Closeness& closeness) {
  record_values(record, name, array.values().data(), nx, ny, closeness);
}

/// Adds one float.
inline void record_number(DeviceRecord& record, const std::string& name, float value, const Closeness& closeness) {
  record_values(record, name, &value, 1, 1, closeness);
}
