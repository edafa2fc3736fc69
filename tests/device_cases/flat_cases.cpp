// Operations on flat arrays: element-wise, and the block sums with what is made of them.
#include <cmath>
#include <string>

#include "device_record.h"
#include "math_utils.h"

namespace {

std::vector<float> weights(size_t n, uint64_t seed) {
  std::vector<float> mask = noise(n, seed);
  for (float& w : mask) w = std::fabs(w) < 0.2f ? 0.0f : std::fabs(w);
  return mask;
}

std::vector<float> uneven_values(size_t n) {
  std::vector<float> values = noise(n, 4);
  for (float& v : values) v = v * 3 + 0.5f;
  return values;
}

void record_element_wise(DeviceRecord& record, size_t n, const std::string& tail) {
  const int count = static_cast<int>(n);
  const OnDevice<float> a(noise(n, 1));
  const OnDevice<float> b(noise(n, 2));
  const OnDevice<float> mask(weights(n, 3));
  const OnDevice<float> out(n);
  const auto record_out = [&](const std::string& name, const OnDevice<float>& array) {
    record_array(record, name + tail, array, count, 1, kSameBits);
  };
  hcuda_x1d_multi(out.data, a.data, b.data, n);
  record_out("x1d_multi", out);
  hcuda_sqr_withmask(out.data, a.data, mask.data, n);
  record_out("sqr_withmask", out);
  hcuda_data_submean_sqr_withmask(out.data, a.data, mask.data, n, 0.0123f);
  record_out("data_submean_sqr_withmask", out);
  hcuda_sub_inplace(out.data, n, 0.3f);
  record_out("sub_inplace", out);
  hcuda_multi_add_inplace(out.data, n, 1.7f, -0.1f);
  record_out("multi_add_inplace", out);
  hcuda_invert_inplace(out.data, n);
  record_out("invert_inplace", out);
  hcuda_empty(out.data, (n * sizeof(float)) * 2 / 3);
  record_out("empty", out);
}

void record_sums(DeviceRecord& record, size_t n, const std::string& tail) {
  const OnDevice<float> d(uneven_values(n));
  const OnDevice<float> mask(weights(n, 5));
  const auto number = [&](const std::string& name, float value) {
    record_number(record, name + tail, value, kSameBits);
  };
  number("fast_sum", hcuda_fast_sum(d.data, n));
  number("fast_mean", hcuda_fast_mean(d.data, n));
  number("fast_sumsqr", hcuda_fast_sumsqr(d.data, n));
  number("fast_sum_withmask", hcuda_fast_sum_withmask(d.data, mask.data, n));
  number("mean_withmask", hcuda_mean_withmask(d.data, mask.data, n));
  number("fast_sumsqr_withmask", hcuda_fast_sumsqr_withmask(d.data, mask.data, n));
  number("fast_submean_sumsqr_withmask", hcuda_fast_submean_sumsqr_withmask(d.data, mask.data, n));
  number("stdv_withmask", hcuda_stdv_withmask(d.data, mask.data, n));
  number("fast_sum_inplace", hcuda_fast_sum_inplace(d.data, n));
}

void record_normalisation(DeviceRecord& record, size_t n, const std::string& tail) {
  const OnDevice<float> d(uneven_values(n));
  const OnDevice<float> mask(weights(n, 6));
  const auto record_array_now = [&](const std::string& name) {
    record_array(record, name + tail, d, static_cast<int>(n), 1, kSameBits);
  };
  hcuda_normz_inplace(d.data, n, 1.0f, 0.0f);
  record_array_now("normz_inplace");
  hcuda_norm_withmask_inplace(d.data, mask.data, n, 2.0f, -1.0f);
  record_array_now("norm_withmask_inplace");
  hcuda_fast_sum_inplace(d.data, n);
  record_array_now("fast_sum_inplace.left");
}

}  // namespace

// Lengths around a block of 1024 and lengths whose sums take two and three passes.
void record_flat_cases(DeviceRecord& record) {
  for (const size_t n : {1UL, 31UL, 1024UL, 1025UL, 40000UL}) {
    record_element_wise(record, n, "/" + std::to_string(n));
    record_sums(record, n, "/" + std::to_string(n));
    record_normalisation(record, n, "/" + std::to_string(n));
  }
  record_sums(record, 1024UL * 1024 + 3, "/3passes");
  hcuda_release_sum_scratch();
}
