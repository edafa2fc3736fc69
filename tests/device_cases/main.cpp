// kestrix_device_record FILE: runs every device operation on fixed inputs and writes the results to FILE, for
// comparison with those of another device (test_device_record.cpp).
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>

#include "conditioning/conditioning.h"
#include "cuda_fft.h"
#include "cuda_general.h"
#include "device_record.h"
#include "img_filter.h"
#include "math_utils.h"
#include "process2d_raw.h"
#include "quorlin56.h"
#include "templates/templates.h"
#include "transforms/cosine_image.h"

namespace {

DeviceRecord record;
std::string tail;  // of the results' names: the size

/// n numbers from [-1, 1), the same on every machine.
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

  static void copied(cudaError_t status, int line) {
    if (status != cudaSuccess) device_failure(cudaGetErrorString(status), line, "device_record");
  }

  T* data;
  size_t size;
};

/// Adds an array to the record. Pixels' numbers, which are small enough, are kept as floats too.
template <class T>
void keep(const std::string& name, const OnDevice<T>& array, const Closeness& closeness = kSameBits) {
  std::vector<T> host(array.size);
  array.copied(cudaMemcpy(host.data(), array.data, array.size * sizeof(T), cudaMemcpyDeviceToHost), __LINE__);
  record.push_back({name + tail, closeness, {host.begin(), host.end()}});
}

void keep(const std::string& name, float value, const Closeness& closeness = kSameBits) {
  record.push_back({name + tail, closeness, {value}});
}

std::vector<float> weights(size_t n) {
  std::vector<float> mask = noise(n, 3);
  for (float& w : mask) w = std::fabs(w) < 0.2f ? 0.0f : std::fabs(w);
  return mask;
}

// Element-wise operations on flat arrays, the block sums and what is made of them.
void record_flat(size_t n) {
  tail = "/" + std::to_string(n);
  const OnDevice<float> a(noise(n, 1)), b(noise(n, 2)), mask(weights(n)), out(n), d(noise(n, 4));
  hcuda_x1d_multi(out.data, a.data, b.data, n);
  keep("x1d_multi", out);
  hcuda_sqr_withmask(out.data, a.data, mask.data, n);
  keep("sqr_withmask", out);
  hcuda_data_submean_sqr_withmask(out.data, a.data, mask.data, n, 0.0123f);
  keep("data_submean_sqr_withmask", out);
  hcuda_sub_inplace(out.data, n, 0.3f);
  hcuda_multi_add_inplace(out.data, n, 1.7f, -0.1f);
  hcuda_invert_inplace(out.data, n);
  hcuda_empty(out.data, (n * sizeof(float)) * 2 / 3);
  keep("sub,multi_add,invert,empty", out);
  keep("fast_sum", hcuda_fast_sum(d.data, n));
  keep("fast_mean", hcuda_fast_mean(d.data, n));
  keep("fast_sumsqr", hcuda_fast_sumsqr(d.data, n));
  keep("fast_sum_withmask", hcuda_fast_sum_withmask(d.data, mask.data, n));
  keep("mean_withmask", hcuda_mean_withmask(d.data, mask.data, n));
  keep("fast_sumsqr_withmask", hcuda_fast_sumsqr_withmask(d.data, mask.data, n));
  keep("fast_submean_sumsqr_withmask", hcuda_fast_submean_sumsqr_withmask(d.data, mask.data, n));
  keep("stdv_withmask", hcuda_stdv_withmask(d.data, mask.data, n));
  hcuda_normz_inplace(d.data, n, 1.0f, 0.0f);
  keep("normz_inplace", d);
  hcuda_norm_withmask_inplace(d.data, mask.data, n, 2.0f, -1.0f);
  keep("norm_withmask_inplace", d);
  keep("fast_sum_inplace", hcuda_fast_sum_inplace(d.data, n));
  hcuda_release_sum_scratch();
}

// Operations on images and spectra, pixel by pixel, and the transforms themselves.
void record_image(int nx, int ny) {
  tail = "/" + std::to_string(nx) + "x" + std::to_string(ny);
  const size_t n = static_cast<size_t>(nx) * ny, values = static_cast<size_t>(nx / 2 + 1) * ny;
  const OnDevice<float> in(noise(n, 11)), other(noise(n, 12)), out(noise(n, 13)), padded(4 * n);
  hcuda_2d_sqrt_inplace(out.data, nx, ny);
  keep("2d_sqrt_inplace", out);
  hcuda_2d_sqr(out.data, in.data, nx, ny);
  hcuda_x2d_sub_inplace(out.data, other.data, nx, ny);
  hcuda_2d_sqr_inplace(out.data, nx, ny);
  hcuda_2d_divide_inplace(out.data, nx, ny, 0.3f);
  if (nx % 2 == 0 && ny % 2 == 0) hcuda_2d_swap_ccf_inplace(out.data, nx, ny);
  keep("2d_sqr,sub,divide,swap_ccf", out);
  for (const float angle : {33.3f, -720.25f}) {
    hcuda_2d_rotate(in.data, out.data, nx, ny, angle);
    keep("2d_rotate." + std::to_string(angle), out);
  }
  const OnDevice<float> scaled(static_cast<size_t>(nx * 5 / 2) * (ny * 5 / 2));
  hcuda_2d_scale(scaled.data, in.data, nx, ny, 2.5f);
  keep("2d_scale", scaled);
  std::vector<float> stack(scaled.size);
  gpu_2ds_scale(stack.data(), noise(n, 51).data(), nx, ny, 1, 2.5f);
  record.push_back({"2ds_scale" + tail, kSameBits, stack});
  hcuda_2d_mirror_pad(padded.data, in.data, nx, ny);
  hcuda_x2d_cp_small_to_large_center(padded.data, other.data, 2 * nx, 2 * ny, nx, ny);
  keep("2d_mirror_pad,cp_small_to_large_center", padded);
  hcuda_2d_memset(out.data, 0.7f, nx, ny);
  hcuda_2d_mirror_pad_inv(out.data, padded.data, nx, ny);
  keep("2d_mirror_pad_inv", out);
  hcuda_2d_empty(out.data, nx, ny);
  hcuda_2d_generate_rmask_soft(out.data, nx, ny, static_cast<float>(nx) / 2, 9.5f, static_cast<float>(nx) / 4, 5.0f);
  keep("2d_generate_rmask_soft", out, kExponential);

  const OnDevice<float> a(noise(2 * values, 31)), b(noise(2 * values, 32)), c(2 * values);  // spectra as floats
  const auto spectrum = [](const OnDevice<float>& array) { return reinterpret_cast<float2*>(array.data); };
  hcuda_c2d_multconj_norm(spectrum(a), spectrum(b), spectrum(c), nx / 2 + 1, ny, 4097.0f);
  keep("c2d_multconj_norm", c);
  hcuda_c2d_multconj_norm_inplace(spectrum(a), spectrum(b), nx / 2 + 1, ny, 0.3f);
  keep("c2d_multconj_norm_inplace", a);
  hcuda_2d_fft_r2c(in.data, spectrum(c), nx, ny);
  keep("2d_fft_r2c", c, kTransform);
  hcuda_2d_fft_c2r(spectrum(c), out.data, nx, ny);
  keep("2d_fft_c2r", out, kTransform);
}

// The weights of the filters, then the filters and the local maps on the mirrored image.
void record_filters(int n, PadWay way, const std::string& way_name) {
  tail = "/" + std::to_string(n) + way_name;
  const size_t pixels = static_cast<size_t>(n) * n;
  const OnDevice<float> soft(noise(2 * static_cast<size_t>(n + 1) * 2 * n, 41)), wide(noise(soft.size, 42));
  hcuda_c2d_bandpass_softR(reinterpret_cast<float2*>(soft.data), 2 * n, 5.0f, 1000.0f, 24.0f, 8.0f);
  keep("c2d_bandpass_softR", soft, kExponential);
  hcuda_c2d_bandpass_guas(reinterpret_cast<float2*>(wide.data), 2 * n, 5.0f, 40.0f, 800.0f);
  keep("c2d_bandpass_guas", wide, kExponential);
  const size_t quarter = cosine_coefficients(n, n);
  const OnDevice<float> soft_cosines(noise(quarter, 43)), wide_cosines(noise(quarter, 44));
  hcuda_cosine_bandpass_softR(soft_cosines.data, 2 * n, 5.0f, 1000.0f, 24.0f, 8.0f);
  keep("cosine_bandpass_softR", soft_cosines, kExponential);
  hcuda_cosine_bandpass_guas(wide_cosines.data, 2 * n, 5.0f, 40.0f, 800.0f);
  keep("cosine_bandpass_guas", wide_cosines, kExponential);

  const OnDevice<float> in(noise(pixels, 71)), out(pixels), scratch(pixels);
  MirrorPad pad = mirror_pad_new(n, n, way);
  hcuda_2d_bandpass_softR_mpad(&pad, in.data, out.data, 5.0f, 10.0f, 500.0f, 8.0f);
  hcuda_2d_bandpass_softR_mpad_inplace(&pad, out.data, 5.0f, 15.0f, 800.0f, 4.0f);
  keep("2d_bandpass_softR_mpad", out, kTransform);
  hcuda_2d_bandpass_guas_mpad(&pad, in.data, out.data, 5.0f, 40.0f, 600.0f);
  hcuda_2d_bandpass_guas_mpad_inplace(&pad, out.data, 5.0f, 30.0f, 1000.0f);
  keep("2d_bandpass_guas_mpad", out, kTransform);
  DiscWindow window = disc_window_new(&pad, 6.3f, 8.0f);
  keep("disc_window.sum", window.sum, kTransform);
  hcuda_2d_mpad_transform(&pad, in.data);
  hcuda_2d_bandpass_guas_transformed(&pad, out.data, 5.0f, 25.0f, 700.0f);
  keep("2d_bandpass_guas_transformed", out, kTransform);
  hcuda_2d_mpad_transform(&pad, in.data);  // the filter has used up the first
  hcuda_2d_bg_mpad(&pad, &window, out.data);
  keep("2d_bg_mpad", out, kTransform);
  hcuda_2d_local_ave_softR_mpad(&pad, &window, out.data);
  keep("2d_local_ave_softR_mpad", out, kTransform);
  hcuda_2d_local_sigma_softR_mpad(&pad, &window, in.data, out.data, scratch.data);
  keep("2d_local_sigma_softR_mpad", out, kTransform);
  disc_window_free(&window);
  mirror_pad_free(&pad);
}

// Searches and marks in the cells of a grid, on a map in which many pixels are equal.
void record_cells(int nx, int ny, int cell) {
  tail = "/" + std::to_string(nx) + "x" + std::to_string(ny) + "." + std::to_string(cell);
  const int grid_nx = (nx - 1) / cell + 1, grid_ny = (ny - 1) / cell + 1;
  const size_t pixels = static_cast<size_t>(nx) * ny, cells = static_cast<size_t>(grid_nx) * grid_ny;
  std::vector<float> coarse = noise(pixels, 93);
  for (float& v : coarse) v = std::trunc(v * 50) / 50;
  const OnDevice<float> average(coarse), sigma(noise(pixels, 92)), mask(pixels), cell_average(cells), cell_sigma(cells);
  const OnDevice<unsigned> marks(cells);
  hcuda_find_sigma_grids(average.data, sigma.data, marks.data, cell_average.data, cell_sigma.data, nx, ny, cell, -0.97f,
                         0.98f, 0.99f);
  keep("find_sigma_grids.average", cell_average);
  keep("find_sigma_grids.sigma", cell_sigma);
  const PTCL_BOX boxes[] = {{0, 0, 4, 4, 0, 0, 0}, {20, 9, 10, 10, 0, 0, 0}, {21, 9, 10, 10, 0, 0, 0}};
  add_excluded_coords_to_ice(marks.data, nx, ny, cell, boxes, 3, 1);
  keep("find_sigma_grids.marks,add_excluded_coords_to_ice", marks);
  hcuda_2d_generate_mask_by_coords(mask.data, nx, ny, cell, marks.data, 0);
  keep("2d_generate_mask_by_coords", mask);

  std::vector<unsigned> index(cells);
  std::vector<float> cc(cells), psi(cells);
  PeakWorkspace ws = peak_workspace_new(grid_nx, grid_ny);
  gpu_find_filter_ccmax_psi_grids_exclusive(&ws, average.data, sigma.data, index.data(), cc.data(), psi.data(), 0.9f,
                                            nx, ny, cell, marks.data, static_cast<unsigned>(cells));
  std::vector<unsigned> more(cells);
  filter_peaks(&ws, more.data(), cc.data(), psi.data(), 0.5f, nx, cell, marks.data, static_cast<unsigned>(cells));
  peak_workspace_free(&ws);
  record.push_back({"peaks.more" + tail, kSameBits, {more.begin(), more.end()}});
  record.push_back({"peaks.index" + tail, kSameBits, {index.begin(), index.end()}});
  record.push_back({"peaks.cc" + tail, kSameBits, cc});
  record.push_back({"peaks.psi" + tail, kSameBits, psi});
}

// The maps' update by images of few values, so that angles tie, with infinities and NaN among them.
void record_updates(int nx, int ny) {
  constexpr int kImages = 5;
  const size_t pixels = static_cast<size_t>(nx) * ny;
  const float infinity = std::numeric_limits<float>::infinity();
  std::vector<float> images = noise(kImages * pixels, 101);
  for (float& v : images) v = std::trunc(v * 6);
  images[3] = std::numeric_limits<float>::quiet_NaN();
  images[pixels + 4] = infinity;
  images[pixels + 5] = -infinity;
  const OnDevice<float> cc(images), ccmax(std::vector<float>(pixels, -infinity)), psi(pixels);
  ScanAngles angles{};
  for (int k = 0; k < kImages; k++) angles.psi[k] = 10.5f * static_cast<float>(k);
  hcuda_update_ccmax_psi_2d(ccmax.data, cc.data, psi.data, angles, kImages, nx, ny);
  keep("update_ccmax_psi_2d.ccmax", ccmax);
  keep("update_ccmax_psi_2d.psi", psi);
  hcuda_update_ccmax_2d(psi.data, cc.data, kImages, nx, ny);
  keep("update_ccmax_2d", psi);

  const OnDevice<float> highest(std::vector<float>(pixels, -infinity)), angle(pixels),
      lowest(std::vector<float>(pixels, infinity));
  hcuda_update_ccmax_ccmin_psi_2d(highest.data, lowest.data, cc.data, angle.data, angles, kImages, nx, ny);
  keep("update_ccmax_ccmin_psi_2d.ccmax", highest);
  keep("update_ccmax_ccmin_psi_2d.ccmin", lowest);
  const OnDevice<float> best(noise(pixels, 102)), best_psi(pixels), best_T(pixels), least(noise(pixels, 103));
  hcuda_take_template({best.data, best_psi.data, best_T.data, least.data}, highest.data, angle.data, lowest.data, 3,
                      pixels);
  keep("take_template.best", best);
  keep("take_template.best_psi", best_psi);
  keep("take_template.best_T", best_T);
  keep("take_template.least", least);
}

// Numbers of angles that fill a batch and that don't, one angle, templates of even and odd sides and of the image's.
void record_scan(int n, int T_nx, int T_ny, float step, ScanWay way, const std::string& way_name) {
  tail = "/" + std::to_string(n) + "." + std::to_string(T_nx) + "x" + std::to_string(T_ny) + way_name;
  const size_t pixels = static_cast<size_t>(n) * n;
  const OnDevice<float> mic(noise(pixels, 111)), mask(std::vector<float>(pixels, 1.0f)), ccmax(pixels), psi(pixels),
      T(noise(static_cast<size_t>(T_nx) * T_ny, 112));
  ScanWorkspace ws = scan_workspace_new(n, n, T_nx, T_ny, count_scan_angles(0.0f, 359.0f, step), kFullBand, 0, way);
  quorlin_transform_micrograph(&ws, mic.data);
  quorlin_ccmax_psi_by_one_template(&ws, mic.data, mask.data, ccmax.data, psi.data, 1, T.data, 9.0f, 0.0f, 359.0f,
                                    step);
  scan_workspace_free(&ws);
  keep("scan.ccmax", ccmax, kTransform);
  keep("scan.psi", psi, kChoice);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "Usage: %s FILE\n", argv[0]);
    return 1;
  }
  for (const size_t n : {31UL, 1025UL, 1024UL * 1024 + 3}) record_flat(n);
  for (const auto& size : {int2{64, 40}, int2{97, 33}, int2{142, 142}}) record_image(size.x, size.y);
  for (const int n : {64, 118}) {
    record_filters(n, kPaddedTransforms, "");
    record_filters(n, fastest_pad_way(), ".fastest");
  }
  record_cells(100, 60, 7);
  record_cells(250, 250, 3);
  record_updates(40, 33);
  for (const auto& T : {int2{24, 24}, int2{17, 21}, int2{90, 90}}) {
    const float step = T.x == 90 ? 360.0f : T.x == 17 ? 50.0f : 5.0f;
    record_scan(90, T.x, T.y, step, kDeviceTransforms, "");
    record_scan(90, T.x, T.y, step, fastest_scan_way(), ".fastest");
  }
  if (write_record(argv[1], record)) return 0;
  fprintf(stderr, "%s can't be written\n", argv[1]);
  return 1;
}
