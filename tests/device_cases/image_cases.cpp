// Operations on images and spectra, pixel by pixel.
#include <string>

#include "device_record.h"
#include "img_filter.h"
#include "platform/lane_cosine.h"
#include "process2d_raw.h"
#include "templates.h"

namespace {

std::string size_tail(int nx, int ny) { return "/" + std::to_string(nx) + "x" + std::to_string(ny); }

void record_element_wise(DeviceRecord& record, int nx, int ny) {
  const size_t n = static_cast<size_t>(nx) * ny;
  const OnDevice<float> in(noise(n, 11));
  const OnDevice<float> other(noise(n, 12));
  const OnDevice<float> out(noise(n, 13));
  const auto record_out = [&](const std::string& name) {
    record_array(record, name + size_tail(nx, ny), out, nx, ny, kSameBits);
  };
  hcuda_2d_sqr(out.data, in.data, nx, ny);
  record_out("2d_sqr");
  hcuda_2d_sqrt_inplace(out.data, nx, ny);
  record_out("2d_sqrt_inplace");
  hcuda_x2d_sub_inplace(out.data, other.data, nx, ny);
  record_out("x2d_sub_inplace");
  hcuda_2d_sqrt_inplace(out.data, nx, ny);
  record_out("2d_sqrt_inplace.nan");
  hcuda_2d_memset(out.data, 0.7f, nx, ny);
  hcuda_x2d_sub_inplace(out.data, other.data, nx, ny);
  hcuda_2d_sqr_inplace(out.data, nx, ny);
  record_out("2d_sqr_inplace");
  hcuda_2d_divide_inplace(out.data, nx, ny, 0.3f);
  record_out("2d_divide_inplace");
  if (ny % 2 == 0) {
    hcuda_2d_swap_ccf_inplace(out.data, static_cast<unsigned>(nx), static_cast<unsigned>(ny));
    record_out("2d_swap_ccf_inplace");
  }
  hcuda_2d_empty(out.data, nx, ny);
  record_out("2d_empty");
}

void record_geometry(DeviceRecord& record, int nx, int ny) {
  const size_t n = static_cast<size_t>(nx) * ny;
  const OnDevice<float> in(noise(n, 21));
  const OnDevice<float> out(n);
  for (const float angle : {0.0f, 33.3f, 90.0f, 180.0f, 271.5f, -720.25f}) {
    hcuda_2d_rotate(in.data, out.data, nx, ny, angle);
    record_array(record, "2d_rotate." + std::to_string(angle) + size_tail(nx, ny), out, nx, ny, kSameBits);
  }
  for (const float scale : {0.37f, 1.0f, 2.5f}) {
    const int onx = static_cast<int>(static_cast<float>(nx) * scale);
    const int ony = static_cast<int>(static_cast<float>(ny) * scale);
    const OnDevice<float> scaled(static_cast<size_t>(onx) * ony);
    hcuda_2d_scale(scaled.data, in.data, nx, ny, scale);
    record_array(record, "2d_scale." + std::to_string(scale) + size_tail(nx, ny), scaled, onx, ony, kSameBits);
  }
  const OnDevice<float> padded(4 * n);
  hcuda_2d_mirror_pad(padded.data, in.data, nx, ny);
  record_array(record, "2d_mirror_pad" + size_tail(nx, ny), padded, 2 * nx, 2 * ny, kSameBits);
  hcuda_2d_mirror_pad_inv(out.data, padded.data, nx, ny);
  record_array(record, "2d_mirror_pad_inv" + size_tail(nx, ny), out, nx, ny, kSameBits);
  const int NX = nx + 13;
  const int NY = ny + 6;
  const OnDevice<float> large(noise(static_cast<size_t>(NX) * NY, 22));
  hcuda_x2d_cp_small_to_large_center(large.data, in.data, NX, NY, nx, ny);
  record_array(record, "x2d_cp_small_to_large_center" + size_tail(nx, ny), large, NX, NY, kSameBits);
  hcuda_2d_generate_rmask_soft(out.data, nx, ny, static_cast<float>(nx) / 2, 9.5f, static_cast<float>(nx) / 4, 5.0f);
  record_array(record, "2d_generate_rmask_soft" + size_tail(nx, ny), out, nx, ny, kExponential);
}

// A spectrum is handed over as floats, two a value.
void record_spectra(DeviceRecord& record, int hnx, int ny) {
  const size_t floats = 2 * static_cast<size_t>(hnx) * ny;
  const OnDevice<float> a(noise(floats, 31));
  const OnDevice<float> b(noise(floats, 32));
  const OnDevice<float> c(floats);
  const auto spectrum = [](const OnDevice<float>& array) { return reinterpret_cast<float2*>(array.data); };
  const auto width = static_cast<unsigned>(hnx);
  hcuda_c2d_multconj_norm(spectrum(a), spectrum(b), spectrum(c), width, static_cast<unsigned>(ny), 4097.0f);
  record_array(record, "c2d_multconj_norm" + size_tail(hnx, ny), c, 2 * hnx, ny, kSameBits);
  hcuda_c2d_multconj_norm_inplace(spectrum(a), spectrum(b), width, static_cast<unsigned>(ny), 0.3f);
  record_array(record, "c2d_multconj_norm_inplace" + size_tail(hnx, ny), a, 2 * hnx, ny, kSameBits);
}

void record_filters(DeviceRecord& record, int P) {
  const size_t floats = 2 * static_cast<size_t>(P / 2 + 1) * P;
  const OnDevice<float> soft(noise(floats, 41));
  hcuda_c2d_bandpass_softR(reinterpret_cast<float2*>(soft.data), P, 5.0f, 1000.0f, 24.0f, 8.0f);
  record_array(record, "c2d_bandpass_softR" + size_tail(P, P), soft, 2 * (P / 2 + 1), P, kExponential);
  const OnDevice<float> wide(noise(floats, 42));
  hcuda_c2d_bandpass_guas(reinterpret_cast<float2*>(wide.data), P, 5.0f, 40.0f, 800.0f);
  record_array(record, "c2d_bandpass_guas" + size_tail(P, P), wide, 2 * (P / 2 + 1), P, kExponential);
  const size_t quarter = cosine_coefficients(P / 2, P / 2);
  const int lines = cosine_stripes(P / 2) * (P / 2);
  const OnDevice<float> soft_cosines(noise(quarter, 43));
  hcuda_cosine_bandpass_softR(soft_cosines.data, P, 5.0f, 1000.0f, 24.0f, 8.0f);
  record_array(record, "cosine_bandpass_softR" + size_tail(P, P), soft_cosines, kCosineStripe, lines, kExponential);
  const OnDevice<float> wide_cosines(noise(quarter, 44));
  hcuda_cosine_bandpass_guas(wide_cosines.data, P, 5.0f, 40.0f, 800.0f);
  record_array(record, "cosine_bandpass_guas" + size_tail(P, P), wide_cosines, kCosineStripe, lines, kExponential);
}

void record_template_scaling(DeviceRecord& record) {
  constexpr int kBox = 27;
  constexpr int kScaled = 43;  // (int)(27 * 1.6)
  const std::vector<float> stack = noise(size_t{3} * kBox * kBox, 51);
  std::vector<float> scaled(size_t{3} * kScaled * kScaled);
  gpu_2ds_scale(scaled.data(), stack.data(), kBox, kBox, 3, 1.6f);
  record_values(record, "gpu_2ds_scale", scaled.data(), kScaled, 3 * kScaled, kSameBits);
}

}  // namespace

// Even, odd and oblong images, smaller and larger than a block of 32 by 32.
void record_image_cases(DeviceRecord& record) {
  const int sizes[][2] = {{32, 32}, {64, 40}, {97, 33}, {41, 128}, {5, 4}};
  for (const auto& size : sizes) {
    record_element_wise(record, size[0], size[1]);
    record_geometry(record, size[0], size[1]);
    record_spectra(record, size[0], size[1]);
  }
  record_filters(record, 128);
  record_filters(record, 180);
  record_template_scaling(record);
}
