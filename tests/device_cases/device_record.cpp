#include "device_record.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

float float_of(uint32_t bits) {
  float value = 0;
  memcpy(&value, &bits, sizeof value);
  return value;
}

double number_of(const DeviceResult& result, size_t i) {
  return result.type == 'f' ? static_cast<double>(float_of(result.bits[i])) : static_cast<double>(result.bits[i]);
}

double rms_of(const DeviceResult& result) {
  double sum = 0;
  for (size_t i = 0; i < result.bits.size(); i++) {
    const double value = number_of(result, i);
    if (std::isfinite(value)) sum += value * value;
  }
  return std::sqrt(sum / static_cast<double>(std::max<size_t>(result.bits.size(), 1)));
}

template <class T>
void add(DeviceRecord& record, const std::string& name, char type, const T* values, int nx, int ny,
         const Closeness& closeness) {
  static_assert(sizeof(T) == sizeof(uint32_t), "results are kept as 32 bits each");
  DeviceResult result{name, type, nx, ny, closeness, std::vector<uint32_t>(static_cast<size_t>(nx) * ny)};
  memcpy(result.bits.data(), values, result.bits.size() * sizeof(T));
  record.push_back(result);
}

// Reads one result; false at the end of the file or where it is not as it should be.
bool read_result(FILE* in, DeviceResult& result) {
  char name[200];
  Closeness& c = result.closeness;
  const int fields = fscanf(in, "%199s %c %d %d %lf %lf %lf", name, &result.type, &result.nx, &result.ny, &c.of_value,
                            &c.of_rms, &c.elsewhere);
  constexpr int kMost = 1 << 24;
  if (fields != 7 || fgetc(in) != '\n') return false;
  if (result.nx < 0 || result.ny < 0 || result.nx > kMost || result.ny > kMost / std::max(result.nx, 1)) return false;
  result.name = name;
  result.bits.resize(static_cast<size_t>(result.nx) * result.ny);
  return fread(result.bits.data(), sizeof(uint32_t), result.bits.size(), in) == result.bits.size();
}

}  // namespace

void record_values(DeviceRecord& record, const std::string& name, const float* values, int nx, int ny,
                   const Closeness& closeness) {
  add(record, name, 'f', values, nx, ny, closeness);
}

void record_values(DeviceRecord& record, const std::string& name, const unsigned* values, int nx, int ny,
                   const Closeness& closeness) {
  add(record, name, 'u', values, nx, ny, closeness);
}

bool write_record(const char* file, const DeviceRecord& record) {
  FILE* out = fopen(file, "wb");
  if (!out) return false;
  fprintf(out, "%zu results\n", record.size());
  for (const DeviceResult& result : record) {
    const Closeness& c = result.closeness;
    fprintf(out, "%s %c %d %d %g %g %g\n", result.name.c_str(), result.type, result.nx, result.ny, c.of_value, c.of_rms,
            c.elsewhere);
    fwrite(result.bits.data(), sizeof(uint32_t), result.bits.size(), out);
  }
  const bool complete = ferror(out) == 0;
  return fclose(out) == 0 && complete;
}

bool read_record(const char* file, DeviceRecord& record) {
  record.clear();
  FILE* in = fopen(file, "rb");
  if (!in) return false;
  size_t count = 0;
  bool complete = fscanf(in, "%zu results", &count) == 1 && fgetc(in) == '\n';
  for (size_t i = 0; i < count && complete; i++) {
    DeviceResult result;
    complete = read_result(in, result);
    record.push_back(result);
  }
  fclose(in);
  return complete;
}

Comparison compare_results(const DeviceResult& expected, const DeviceResult& other) {
  if (expected.type != other.type || expected.nx != other.nx || expected.ny != other.ny)
    return {false, 0, 0, expected.name + ": not of one type and size"};
  const Closeness& c = expected.closeness;
  const double from_rms = c.of_rms * rms_of(expected);
  Comparison found{true, 0, 0, ""};
  double worst = -1;
  size_t worst_at = 0;
  for (size_t i = 0; i < expected.bits.size(); i++) {
    const double a = number_of(expected, i);
    const double b = number_of(other, i);
    if (expected.bits[i] == other.bits[i] || (std::isnan(a) && std::isnan(b))) continue;
    found.different++;
    // Zeros of either sign differ in bits only; an infinity or a lone NaN is near nothing.
    const double distance = std::isfinite(a) && std::isfinite(b) ? std::fabs(a - b) : INFINITY;
    const bool bits_count = c.of_value == 0 && c.of_rms == 0;
    if (bits_count || !(distance <= from_rms + c.of_value * std::fabs(a))) found.beyond++;
    if (distance > worst) {
      worst = distance;
      worst_at = i;
    }
  }
  found.agrees = static_cast<double>(found.beyond) <= c.elsewhere * static_cast<double>(expected.bits.size());
  char text[400];
  int used = snprintf(text, sizeof text, "%s: %zu of %zu differ, %zu beyond what is allowed", expected.name.c_str(),
                      found.different, expected.bits.size(), found.beyond);
  if (found.different > 0)
    snprintf(text + used, sizeof text - used, "; the worst, at %zu: %.9g and %.9g (rms %.3g)", worst_at,
             number_of(expected, worst_at), number_of(other, worst_at), rms_of(expected));
  found.text = text;
  return found;
}

std::vector<float> noise(size_t n, uint64_t seed) {
  std::vector<float> values(n);
  uint64_t state = seed * 0x9e3779b97f4a7c15u;
  for (float& value : values) {
    // splitmix64
    uint64_t z = state += 0x9e3779b97f4a7c15u;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    value = static_cast<float>(static_cast<int64_t>((z ^ (z >> 31)) >> 40) - (1 << 23)) / static_cast<float>(1 << 23);
  }
  return values;
}
