#include "device_record.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

uint32_t bits_of(float v) {
  uint32_t bits;
  memcpy(&bits, &v, sizeof bits);
  return bits;
}

bool same_bits(float a, float b) { return bits_of(a) == bits_of(b) || (std::isnan(a) && std::isnan(b)); }

double rms_of(const std::vector<float>& values) {
  double sum = 0;
  for (const float v : values) sum += std::isfinite(v) ? static_cast<double>(v) * v : 0;
  return values.empty() ? 0 : std::sqrt(sum / static_cast<double>(values.size()));
}

}  // namespace

bool write_record(const char* file, const DeviceRecord& record) {
  FILE* out = fopen(file, "wb");
  if (!out) return false;
  fprintf(out, "%zu results\n", record.size());
  for (const DeviceResult& r : record) {
    const Closeness& c = r.closeness;
    fprintf(out, "%s %g %g %g %zu\n", r.name.c_str(), c.of_value, c.of_rms, c.elsewhere, r.values.size());
    fwrite(r.values.data(), sizeof(float), r.values.size(), out);
  }
  const bool complete = ferror(out) == 0;
  return fclose(out) == 0 && complete;
}

bool read_record(const char* file, DeviceRecord& record) {
  record.clear();
  FILE* in = fopen(file, "rb");
  if (!in) return false;
  size_t results = 0;
  bool complete = fscanf(in, "%zu results", &results) == 1 && fgetc(in) == '\n';
  for (size_t i = 0; i < results && complete; i++) {
    char name[200];
    Closeness c;
    size_t n = 0;
    complete = fscanf(in, "%199s %lf %lf %lf %zu", name, &c.of_value, &c.of_rms, &c.elsewhere, &n) == 5 &&
               fgetc(in) == '\n' && n < 1UL << 24;
    if (!complete) break;
    record.push_back({name, c, std::vector<float>(n)});
    complete = fread(record.back().values.data(), sizeof(float), n, in) == n;
  }
  fclose(in);
  return complete;
}

Comparison compare_results(const DeviceResult& expected, const DeviceResult& other) {
  if (expected.values.size() != other.values.size()) return {false, 0, expected.name + ": not of one size"};
  const Closeness& c = expected.closeness;
  const double from_rms = c.of_rms * rms_of(expected.values);
  const bool bits_count = c.of_value == 0 && c.of_rms == 0;
  size_t different = 0, beyond = 0, worst_at = 0;
  double worst = -1;
  for (size_t i = 0; i < expected.values.size(); i++) {
    const float a = expected.values[i], b = other.values[i];
    if (same_bits(a, b)) continue;
    different++;
    // Zeros of either sign differ in bits only; an infinity or a lone NaN is near nothing.
    const double distance = std::isfinite(a) && std::isfinite(b) ? std::fabs(static_cast<double>(a) - b) : INFINITY;
    if (bits_count || !(distance <= from_rms + c.of_value * std::fabs(a))) beyond++;
    if (distance > worst) worst_at = i;
    if (distance > worst) worst = distance;
  }
  char text[400];
  snprintf(text, sizeof text, "%s: %zu of %zu differ, %zu beyond what is allowed; the worst, at %zu: %.9g and %.9g",
           expected.name.c_str(), different, expected.values.size(), beyond, worst_at,
           different ? static_cast<double>(expected.values[worst_at]) : 0,
           different ? static_cast<double>(other.values[worst_at]) : 0);
  return {static_cast<double>(beyond) <= c.elsewhere * static_cast<double>(expected.values.size()), different, text};
}
