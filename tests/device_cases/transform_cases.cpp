// Operations that rest on Fourier transforms: the transforms themselves, the filters and the local maps.
#include <string>

#include "conditioning.h"
#include "cuda_fft.h"
#include "device_record.h"

namespace {

std::string size_tail(int nx, int ny) { return "/" + std::to_string(nx) + "x" + std::to_string(ny); }

void record_transforms(DeviceRecord& record, int nx, int ny) {
  const int floats_in_row = 2 * (nx / 2 + 1);
  const OnDevice<float> image(noise(static_cast<size_t>(nx) * ny, 61));
  const OnDevice<float> spectrum(static_cast<size_t>(floats_in_row) * ny);
  const OnDevice<float> back(static_cast<size_t>(nx) * ny);
  hcuda_2d_fft_r2c(image.data, reinterpret_cast<float2*>(spectrum.data), nx, ny);
  record_array(record, "2d_fft_r2c" + size_tail(nx, ny), spectrum, floats_in_row, ny, kTransform);
  hcuda_2d_fft_c2r(reinterpret_cast<float2*>(spectrum.data), back.data, nx, ny);
  record_array(record, "2d_fft_c2r" + size_tail(nx, ny), back, nx, ny, kTransform);
}

void record_filters(DeviceRecord& record, int n, PadWay way, const std::string& tail) {
  const std::vector<float> values = noise(static_cast<size_t>(n) * n, 71);
  const OnDevice<float> in(values);
  const OnDevice<float> out(values.size());
  const auto record_out = [&](const std::string& name, const OnDevice<float>& array) {
    record_array(record, name + tail + size_tail(n, n), array, n, n, kTransform);
  };
  MirrorPad pad = mirror_pad_new(n, n, way);
  hcuda_2d_bandpass_softR_mpad(&pad, in.data, out.data, 5.0f, 10.0f, 500.0f, 8.0f);
  record_out("2d_bandpass_softR_mpad", out);
  hcuda_2d_bandpass_guas_mpad(&pad, in.data, out.data, 5.0f, 40.0f, 600.0f);
  record_out("2d_bandpass_guas_mpad", out);
  hcuda_2d_mpad_transform(&pad, in.data);
  hcuda_2d_bandpass_guas_transformed(&pad, out.data, 5.0f, 25.0f, 700.0f);
  record_out("2d_bandpass_guas_transformed", out);
  const OnDevice<float> soft(values);
  hcuda_2d_bandpass_softR_mpad_inplace(&pad, soft.data, 5.0f, 15.0f, 800.0f, 4.0f);
  record_out("2d_bandpass_softR_mpad_inplace", soft);
  const OnDevice<float> wide(values);
  hcuda_2d_bandpass_guas_mpad_inplace(&pad, wide.data, 5.0f, 30.0f, 1000.0f);
  record_out("2d_bandpass_guas_mpad_inplace", wide);
  mirror_pad_free(&pad);
}

void record_local_maps(DeviceRecord& record, int n, PadWay way, const std::string& tail) {
  const size_t pixels = static_cast<size_t>(n) * n;
  const OnDevice<float> in(noise(pixels, 81));
  const OnDevice<float> out(pixels);
  const OnDevice<float> scratch(pixels);
  const auto record_out = [&](const std::string& name) {
    record_array(record, name + tail + size_tail(n, n), out, n, n, kTransform);
  };
  MirrorPad pad = mirror_pad_new(n, n, way);
  DiscWindow window = disc_window_new(&pad, 6.3f, 8.0f);
  record_number(record, "disc_window.sum" + tail + size_tail(n, n), window.sum, kTransform);
  hcuda_2d_mpad_transform(&pad, in.data);
  hcuda_2d_bg_mpad(&pad, &window, out.data);
  record_out("2d_bg_mpad");
  hcuda_2d_local_ave_softR_mpad(&pad, &window, out.data);
  record_out("2d_local_ave_softR_mpad");
  hcuda_2d_local_sigma_softR_mpad(&pad, &window, in.data, out.data, scratch.data);
  record_out("2d_local_sigma_softR_mpad");
  disc_window_free(&window);
  mirror_pad_free(&pad);
}

}  // namespace

// Sides of small and of large prime factors; images for the filters are even squares, as a run makes them.
void record_transform_cases(DeviceRecord& record) {
  const int sizes[][2] = {{64, 64}, {128, 96}, {90, 250}, {97, 64}, {142, 142}, {33, 35}};
  for (const auto& size : sizes) record_transforms(record, size[0], size[1]);
  for (const int n : {64, 90, 118}) {
    record_filters(record, n, kPaddedTransforms, "");
    record_filters(record, n, kFastestPadWay, ".fastest");
    record_local_maps(record, n, kPaddedTransforms, "");
    record_local_maps(record, n, kFastestPadWay, ".fastest");
  }
}
