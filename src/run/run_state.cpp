#include "run/picking.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "cuda_general.h"
#include "math_utils.h"
#include "platform/failure.h"
#include "platform/host_memory.h"
#include "process2d_raw.h"
#include "run/auto_picks.h"
#include "run/micrograph_image.h"
#include "templates/templates.h"

namespace {

constexpr char unit[] = "kestrix56";

template <class T>
T* pinned_new(size_t count) {
  T* memory = nullptr;
  if (cudaMallocHost(&memory, count * sizeof(T)) != cudaSuccess)
    KESTRIX_FATAL("Host memory allocation failed (%zu x %zu bytes)", count, sizeof(T));
  return memory;
}

void check_micrograph_size(const Run* run) {
  const MRC_HEAD& head = run->first_head;
  const char* name = run->para.first_file;
  if (!mrc_section_size_valid(&head))
    KESTRIX_FATAL("the header of %s gives a size of %d x %d pixels, which no micrograph has: is it an MRC file", name,
                  head.nx, head.ny);
  const RunSizes& s = run->sizes;
  if (s.work_nx < 2)
    KESTRIX_FATAL("the micrograph %s of %d x %d pixels is too small to be shrunk by %d; give a lower --speed", name,
                  s.nx, s.ny, run->para.shrink);
}

void check_cell_size(const Run* run) {
  const Kestrix_Para& para = run->para;
  if (run->sizes.grid_size < 1 || box_filter_cell_size(para.min_dist_px) < 1)
    KESTRIX_FATAL(
        "--min_dist %g (from --diameter where not given) is too small: a cell of the peak grid must have at "
        "least 1 pixel, which takes %g angstrom or more at this --apixM and --speed",
        static_cast<double>(para.min_dist), 1.4143 * static_cast<double>(para.apixM) * para.shrink);
}

}  // namespace

size_t work_pixels(const Run* run) { return static_cast<size_t>(run->sizes.work_nx) * run->sizes.work_ny; }
size_t template_pixels(const Run* run) { return static_cast<size_t>(run->sizes.T_nx) * run->sizes.T_ny; }
size_t grid_cells(const Run* run) { return static_cast<size_t>(run->sizes.grid_nx) * run->sizes.grid_ny; }

void set_run_sizes(Run* run) {
  const int shrink = run->para.shrink;
  RunSizes& s = run->sizes;
  s.nx = run->first_head.nx;
  s.ny = run->first_head.ny;
  s.work_nx = s.work_ny = get_max_extended_square_even_size(s.nx, s.ny, shrink);
  s.shrink_nx = s.nx / shrink;
  s.shrink_ny = s.ny / shrink;
  check_micrograph_size(run);
  s.grid_size = grid_cell_size(run->para.min_dist, static_cast<float>(shrink) * run->para.apixM);
  check_cell_size(run);
  s.grid_nx = (s.work_nx - 1) / s.grid_size + 1;
  s.grid_ny = (s.work_ny - 1) / s.grid_size + 1;
}

void acquire_templates(Run* run) {
  const Kestrix_Para& para = run->para;
  RunSizes& s = run->sizes;
  if (matches_own_template(&para)) {
    s.T_num = 1;
    return;
  }
  run->host.T_stack =
      get_or_create_template_data(s.T_nx, s.T_ny, s.T_num, para.T, para.radius_px, para.apixT, para.apixM, para.shrink,
                                  para.center1_ratio, s.work_nx, image_options(&para));
}

// Highest frequency of the conditioned micrographs, in cycles per working pixel.
float micrograph_band(const Kestrix_Para& para) {
  if (!para.do_bandpass) return kFullBand;
  const float band = static_cast<float>(para.shrink) * para.apixM / std::min(para.lp, para.hp);
  return band > 0 ? std::min(band, kFullBand) : kFullBand;
}

// The pixels' own limits are found with windows as sharp as a pixel.
constexpr float kSharpEdge = 1.0f;

IceSettings ice_settings(const Kestrix_Para& para, const RunSizes& s) {
  return {para.lave_min,
          para.lave_max,
          para.lsigma_cutoff,
          para.lave_radius_px,
          para.lsigma_radius_px,
          para.robust_ice ? kSharpEdge : para.local_edge_width,
          para.shrink,
          para.write_rejected_box != 0,
          para.write_bg_mic != 0,
          para.write_lsigma_mic != 0,
          para.robust_ice != 0,
          para.diameter / (static_cast<float>(para.shrink) * para.apixM),
          para.min_dist_px / 2,
          s.nx / (2 * para.shrink) * 2,
          s.ny / (2 * para.shrink) * 2};
}

void allocate_run(Run* run) {
  const Kestrix_Para& para = run->para;
  const RunSizes& s = run->sizes;
  const size_t pixels = work_pixels(run);
  const size_t cells = grid_cells(run);
  if (device_transforms_wanted()) check_device_memory(run);
  HostBuffers& host = run->host;
  host.work_mic = pinned_new<float>(pixels);
  if (para.write_ccmax_mic) {
    host.ccmax_stack = host_new<float>(static_cast<size_t>(s.T_num) * pixels);
    std::fill_n(host.ccmax_stack, static_cast<size_t>(s.T_num) * pixels, 0.0f);  // of templates that are left out
  }
  host.grid_index = pinned_new<unsigned>(cells);
  host.grid_cc = pinned_new<float>(cells);
  host.grid_psi = pinned_new<float>(cells);
  host.excluded_boxes = host_new<PTCL_BOX>(cells);
  host.global_boxes = host_new<PTCL_BOX>(cells);
  DeviceBuffers& device = run->device;
  device.d_T_stack = device_new<float>(static_cast<size_t>(s.T_num) * template_pixels(run));
  for (float** buffer : {&device.d_mic, &device.d_ccmax, &device.d_psi, &device.d_mask})
    *buffer = device_new<float>(pixels);
  device.d_grid = device_new<unsigned>(cells);
  if (para.detect_ice || para.do_bandpass || para.do_pre_filter || uses_auto_parts(&para))
    run->pad = mirror_pad_new(s.work_nx, s.work_ny);
  if (para.detect_ice) run->ice = ice_workspace_new(&run->pad, s.grid_nx, s.grid_ny, ice_settings(para, s));
  auto_buffers_new(run);
  run->peaks = peak_workspace_new(s.grid_nx, s.grid_ny);
  if (matches_own_template(&para)) return;
  const int n_angles = count_scan_angles(para.psi_start, para.psi_end, para.ang_step);
  run->scan = scan_workspace_new(s.work_nx, s.work_ny, s.T_nx, s.T_ny, n_angles, micrograph_band(para),
                                 para.write_ccmax_mic || para.auto_cutoff || para.auto_picks ? 0 : s.grid_size,
                                 fastest_scan_way(), s.T_num);
  run->scan.ccmin = run->autos.d_ccmin;
}

// Whether template t is zero everywhere and to be left out for it; says so.
bool leaves_out(const Kestrix_Para* para, const float* T, size_t n, int t) {
  if (!para->skip_empty_templates || template_energy(T, n) != 0) return false;
  safety_note(para->T, "template %d is zero everywhere and left out.", t + 1);
  return true;
}

void prepare_templates(Run* run) {
  if (matches_own_template(&run->para)) return;
  const Kestrix_Para& para = run->para;
  const RunSizes& s = run->sizes;
  run->host.T_empty = host_new<bool>(static_cast<size_t>(s.T_num));
  const size_t n_T = template_pixels(run);
  auto* T_one = host_new<float>(n_T);
  for (int t = 0; t < s.T_num; t++) {
    const size_t offset = static_cast<size_t>(t) * n_T;
    memcpy(T_one, run->host.T_stack + offset, n_T * sizeof(float));
    run->host.T_empty[t] = leaves_out(&para, T_one, n_T, t);
    if (!run->host.T_empty[t]) {
      normalise_template(T_one, s.T_nx, s.T_ny, para.T_norm_type, para.radius_px, para.center1_ratio);
      check_template_usable(T_one, n_T, t, para.T_norm_type);
    }
    CHECK_DEVICE(cudaMemcpy(run->device.d_T_stack + offset, T_one, n_T * sizeof(float), cudaMemcpyHostToDevice));
  }
  free(T_one);
  if (std::all_of(run->host.T_empty, run->host.T_empty + s.T_num, [](bool empty) { return empty; }))
    KESTRIX_FATAL("every template of %s is zero everywhere; check the template stack", para.T);
  if (!para.dont_invertT) hcuda_invert_inplace(run->device.d_T_stack, static_cast<size_t>(s.T_num) * n_T);
}

void release_run(Run* run) {
  HostBuffers& host = run->host;
  for (float* buffer : {host.work_mic, host.grid_cc, host.grid_psi}) cudaFreeHost(buffer);
  cudaFreeHost(host.grid_index);
  free(host.T_stack);
  free(host.T_empty);
  free(host.ccmax_stack);
  free(host.excluded_boxes);
  free(host.global_boxes);
  const DeviceBuffers& device = run->device;
  for (float* buffer : {device.d_T_stack, device.d_mic, device.d_ccmax, device.d_psi, device.d_mask}) cudaFree(buffer);
  cudaFree(device.d_grid);
  if (run->ice.host_grid) ice_workspace_free(&run->ice);
  auto_buffers_free(&run->autos);
  mirror_pad_free(&run->pad);
  scan_workspace_free(&run->scan);
  peak_workspace_free(&run->peaks);
  hcuda_release_sum_scratch();
  const Kestrix_Para para = run->para;
  const RunTally tally = run->tally;
  const LearnedPicks learned = run->learned;
  SessionLearning* learning = run->learning;
  *run = {};
  run->para = para;
  run->tally = tally;
  run->learned = learned;
  run->learning = learning;
}

void free_run(Run* run) {
  release_run(run);
  learned_picks_free(&run->learned);
  kestrix_free_parameters(&run->para);
}
