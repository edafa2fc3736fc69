// The road of one micrograph, stage by stage.
#include "run/picking.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "cuda_general.h"
#include "formats/image_diagnosis.h"
#include "math_utils.h"
#include "particles/pick_records.h"
#include "platform/failure.h"
#include "platform/outputs.h"
#include "process2d_mrc.h"
#include "process2d_raw.h"
#include "run/auto_picks.h"
#include "run/micrograph_image.h"
#include "run/output_names.h"
#include "run/reports.h"
#include "run/stage_timer.h"
#include "str_utils.h"
#include "txt_file.h"

namespace {

constexpr char unit[] = "kestrix56";
constexpr int2 kOrigin{0, 0};

/// The names that belong to one micrograph.
struct MicrographNames {
  const char* mic;             // the micrograph
  char out[kTextBytes];        // what its outputs are named from
  char box[kTextBytes];        // final list, box form
  char star[kTextBytes];       // final list, STAR form
  char nonunique[kTextBytes];  // candidates
  char excluded[kTextBytes];   // excluded coordinates, or "NULL"
};

// The list of places to leave out: among the outputs, else beside the micrograph.
void set_excluded_name(MicrographNames* names, const Kestrix_Para* para) {
  strlcpy(names->excluded, "NULL");
  if (!para->exclusive_picking) return;
  set_outname_by_suffix(names->excluded, names->out, para->excluded_suffix);
  if (access(names->excluded, F_OK) == 0) return;
  const std::string mic = para->any_format ? plain_image_name(names->mic) : names->mic;
  set_outname_by_suffix(names->excluded, mic.c_str(), para->excluded_suffix);
}

void set_names(MicrographNames* names, const char* mic, const Kestrix_Para* para) {
  names->mic = mic;
  set_output_name(names->out, mic, para);
  const char* out = names->out;
  set_outname_by_suffix(names->box, out, "_quorlin.box");
  set_excluded_name(names, para);
  set_name_shrinked_box(names->nonunique, out, para->shrink);
  set_outname_by_suffix(names->star, out, "_quorlin.star");
}

int is_file_quorlin_done(const char* name) { return access(name, R_OK) == 0; }

// What holds before anything is found.
PickFindings findings_before(const Kestrix_Para* para) {
  PickFindings findings{};
  findings.matched = para->auto_template ? kDisc : kGivenTemplates;
  findings.rule = kGivenCutoff;
  findings.cutoff = findings.least = para->cc_cutoff;
  findings.score_unit = 1;
  findings.min_dist_px = para->min_dist_px;
  findings.distinct = para->auto_picks;
  return findings;
}

bool is_finished(const MicrographNames* names, const Kestrix_Para* para) {
  if (!para->do_unfinished) return false;
  if (!is_file_quorlin_done(names->box) && !is_file_quorlin_done(names->star)) return false;
  return !output_is_half_published(names->box);
}

void write_device_image(const float* d, const Run* run, const char* out, const char* suffix) {
  char name[kTextBytes];
  set_outname_by_suffix(name, out, suffix);
  mrcf_write_xyz_ddata(name, d, run->sizes.work_nx, run->sizes.work_ny, 1);
}

// Ends the run.
void refuse_size(const Run* run, const ImageFile& image, const char* mic) {
  if (!run->para.any_format) note_odd_image(mic);
  check_mrc_head_sizes_two(run->para.first_file, mic, &run->first_head, &image.head());
}

// Reads section 0, shrunk, into work_mic; zeros if the file holds no samples that can be read. Returns whether it does.
bool read_micrograph(Run* run, const ImageFile& image, const char* name) {
  const MRC_HEAD* head = &image.head();
  if (!run->para.any_format) note_extended_header(name, head);
  if (!image.unreadable().empty()) {
    safety_note(name, "%s; the image counts as 0 everywhere.", image.unreadable().c_str());
    memset(run->host.work_mic, 0, work_pixels(run) * sizeof(float));
    return false;
  }
  const unsigned long missing = image.missing_samples(0);
  if (!image.damage().empty()) safety_note(name, "%s.", image.damage().c_str());
  if (missing > 0)
    safety_note(name, "the file ends early; %lu of %lu samples are missing and count as 0.", missing,
                static_cast<unsigned long>(head->nx) * static_cast<unsigned long>(head->ny));
  const float deviations = run->para.clip_outliers;
  const ValueLimits limits = deviations > 0 ? clip_limits(image, deviations) : kNoLimits;
  read_shrunk_micrograph(image, run->para.shrink, limits, run->host.work_mic);
  if (missing == 0)
    note_outliers(run->host.work_mic, even_side(head->nx, run->para.shrink), even_side(head->ny, run->para.shrink),
                  static_cast<size_t>(run->sizes.work_nx), name);
  return true;
}

// Reads the micrograph's excluded coordinates, if it has any; otherwise their name becomes "NULL".
int read_excluded(Run* run, MicrographNames* names) {
  if (!check_box_file(names->excluded)) {
    strlcpy(names->excluded, "NULL");
    return 0;
  }
  const int n = read_all_ptcl_boxes(run->host.excluded_boxes, static_cast<int>(grid_cells(run)), names->excluded);
  printf("%8d particles in file %s excluded from auto-picking \n", n, names->excluded);
  const RunSizes& s = run->sizes;
  note_excluded_outside(run->host.excluded_boxes, n, s.work_nx, s.work_ny, run->para.shrink, names->excluded);
  return n;
}

bool is_flat(const float* d, size_t n) {
  const float first = d[0];
  return first == first && std::none_of(d, d + n, [first](float v) { return v < first || v > first; });
}

bool is_finite(const float* d, size_t n) {
  float sum = 0;
#pragma omp parallel for simd schedule(static) reduction(+ : sum)
  for (size_t i = 0; i < n; i++) sum += d[i] * 0.0f;
  return sum == 0.0f;
}

// Brings the shrunk image to the device. Returns false where nothing can be picked, of which the user has been told.
bool upload_working_image(Run* run, const char* name, bool readable) {
  const RunSizes& s = run->sizes;
  const size_t pixels = work_pixels(run);
  const int shrink = run->para.shrink;
  if (run->para.auto_picks)
    tame_outliers(run->host.work_mic, s.nx / (2 * shrink) * 2, s.ny / (2 * shrink) * 2, s.work_nx, name);
  cpu_2d_extend_even(run->host.work_mic, s.nx, s.ny, run->para.shrink);
  CHECK_DEVICE(cudaMemcpy(run->device.d_mic, run->host.work_mic, pixels * sizeof(float), cudaMemcpyHostToDevice));
  if (!is_finite(run->host.work_mic, pixels)) {
    safety_note(name, "holds values that are not finite, or too large to be averaged; nothing can be picked.");
    return false;
  }
  if (!is_flat(run->host.work_mic, pixels)) return true;
  if (readable) safety_note(name, "the image has no variation; nothing can be picked.");
  // Without a deviation to divide by no pixel has a normalised value; rounding must not make one up.
  hcuda_2d_memset(run->device.d_mic, std::numeric_limits<float>::quiet_NaN(), s.work_nx, s.work_ny);
  return false;
}

// Says so if the normalised d_mic holds no values. One pixel tells: a deviation of 0 or of no number spoils them all.
void note_not_normalised(const Run* run, const char* name) {
  float pixel = 0;
  CHECK_DEVICE(static_cast<cudaError_t>(memcpy_D2H(&pixel, run->device.d_mic, sizeof pixel)));
  if (!std::isfinite(pixel))
    safety_note(name,
                "can't be normalised, its values being too large or too small for single precision, or all filtered "
                "away; nothing can be picked.");
}

// Closes cells of d_grid: ice and contamination, the micrograph's excluded coordinates, those of all micrographs.
// Gathers what is closed for the peaks. Returns whether any cell is left open; says so if none is.
bool close_cells(Run* run, const MicrographNames* names, int excluded_n) {
  const Kestrix_Para& para = run->para;
  const RunSizes& s = run->sizes;
  unsigned* d_grid = run->device.d_grid;
  hcuda_empty(d_grid, grid_cells(run) * sizeof(unsigned));
  if (para.detect_ice)
    hcuda_2d_ice_detect(&run->pad, &run->ice, run->device.d_mic, s.work_nx, s.work_ny, kOrigin, d_grid, s.grid_size,
                        names->out);
  if (para.mask_excluded && excluded_n > 0)
    add_excluded_coords_to_ice(d_grid, s.work_nx, s.work_ny, s.grid_size, run->host.excluded_boxes, excluded_n,
                               para.shrink);
  if (!is_str_null(para.global_excluded_box))
    add_excluded_boxf_to_ice(d_grid, s.work_nx, s.work_ny, s.grid_size, para.global_excluded_box, para.shrink,
                             run->host.global_boxes);
  const unsigned open_cells = gather_excluded_points(&run->peaks, d_grid);
  run->findings.cells_closed = static_cast<int>(grid_cells(run) - open_cells);
  run->findings.closed = static_cast<float>(run->findings.cells_closed) / static_cast<float>(grid_cells(run));
  if (open_cells == 0) safety_note(names->mic, "every cell is excluded; nothing can be picked.");
  return open_cells > 0;
}

// From the shrunk micrograph to d_mic, normalised over the area that d_mask leaves open.
void condition_micrograph(Run* run, const MicrographNames* names, int excluded_n, bool readable) {
  const Kestrix_Para& para = run->para;
  const RunSizes& s = run->sizes;
  float* d_mic = run->device.d_mic;
  float* d_mask = run->device.d_mask;
  const size_t pixels = work_pixels(run);
  const float apix = static_cast<float>(para.shrink) * para.apixM;
  const float nyquist = (para.apixM + para.apixM) * static_cast<float>(para.shrink);
  const bool usable = upload_working_image(run, names->mic, readable);
  if (para.do_pre_filter) hcuda_2d_bandpass_softR_mpad_inplace(&run->pad, d_mic, apix, nyquist, para.pre_hp, 8.0f);
  if (para.write_pref_mic) write_device_image(d_mic, run, names->out, "_pref.mrc");
  hcuda_normz_inplace(d_mic, pixels, 1.0f, 0.0f);
  const bool open = close_cells(run, names, excluded_n);
  if (uses_auto_parts(&para)) set_open_area(run);
  const bool learns = para.auto_picks || para.learn_template;
  if (learns) learn_template(run, names->mic, usable);
  const bool filters = para.do_bandpass && !para.auto_picks;
  // Ice detection has left the transform of d_mic.
  if (filters && (!para.detect_ice || learns)) hcuda_2d_mpad_transform(&run->pad, d_mic);
  if (filters) hcuda_2d_bandpass_guas_transformed(&run->pad, d_mic, apix, para.lp, para.hp);
  // The band-pass leaves any scale; what follows takes it out, over the open area alone.
  hcuda_2d_generate_mask_by_coords(d_mask, s.work_nx, s.work_ny, s.grid_size, run->device.d_grid, 0);
  if (para.robust_ice || para.auto_picks) hcuda_x1d_multi(d_mask, d_mask, run->autos.d_open, pixels);
  if (para.write_mic_mask) write_device_image(d_mask, run, names->out, "_mask.mrc");
  hcuda_norm_withmask_inplace(d_mic, d_mask, pixels, 1.0f, 0.0f);
  if (usable && open) note_not_normalised(run, names->mic);
  if (para.write_bgfree_mic) write_device_image(d_mic, run, names->out, "_bgfree.mrc");
}

// The least score of a candidate: 0 where the cutoff is yet to be found.
float candidate_cutoff(const Kestrix_Para& para) { return para.auto_cutoff ? 0.0f : para.cc_cutoff; }

void make_template_maps(Run* run, const float* T) {
  const Kestrix_Para& para = run->para;
  const DeviceBuffers& device = run->device;
  quorlin_ccmax_psi_by_one_template(&run->scan, device.d_mic, device.d_mask, device.d_ccmax, device.d_psi, 1, T,
                                    para.radius_px, para.psi_start, para.psi_end, para.ang_step);
}

// The peaks of one template, from its maps or without them.
void find_template_peaks(Run* run, const float* T) {
  const Kestrix_Para& para = run->para;
  const RunSizes& s = run->sizes;
  const DeviceBuffers& device = run->device;
  HostBuffers& host = run->host;
  if (scan_searches(&run->scan)) {
    scan_search_by_one_template(&run->scan, &run->peaks, device.d_mic, device.d_mask, T, para.radius_px, para.psi_start,
                                para.psi_end, para.ang_step, para.cc_cutoff);
    filter_peaks(&run->peaks, host.grid_index, host.grid_cc, host.grid_psi, para.cc_cutoff, s.work_nx, s.grid_size,
                 run->peaks.excluded, run->peaks.n_excluded);
    return;
  }
  make_template_maps(run, T);
  gpu_find_filter_ccmax_psi_grids_exclusive(&run->peaks, device.d_ccmax, device.d_psi, host.grid_index, host.grid_cc,
                                            host.grid_psi, candidate_cutoff(para), s.work_nx, s.work_ny, s.grid_size,
                                            run->peaks.excluded, run->peaks.n_excluded);
}

// Takes peaks out that stand where pixels are closed.
void drop_closed_peaks(Run* run) {
  unsigned* index = run->host.grid_index;
  for (size_t i = 0; i < grid_cells(run); i++)
    if (index[i] != 0 && run->autos.host_open[index[i]] == 0.0f) index[i] = 0;
}

void write_template_candidates(Run* run, const float* T, int t, FILE* nonunique) {
  const RunSizes& s = run->sizes;
  find_template_peaks(run, T);
  if (run->para.robust_ice) drop_closed_peaks(run);
  output_quorlin_coord_one_temp(nonunique, run->host.grid_index, run->host.grid_cc, run->host.grid_psi, t,
                                static_cast<int>(grid_cells(run)), s.work_nx, s.work_ny,
                                run->para.boxsize / run->para.shrink);
}

// One template: scan, peaks, candidate lines; with --auto the maps alone, as candidates are those of all templates.
void match_template(Run* run, int t, FILE* nonunique) {
  const Kestrix_Para& para = run->para;
  const size_t pixels = work_pixels(run);
  const float* T = run->device.d_T_stack + static_cast<size_t>(t) * template_pixels(run);
  printf("Template %03d\n", t + 1);
  if (para.auto_picks) {
    make_template_maps(run, T);
  } else {
    write_template_candidates(run, T, t, nonunique);
  }
  if (run->autos.d_ccmin) take_template_maps(run, t);
  if (para.write_ccmax_mic)
    CHECK_DEVICE(cudaMemcpy(run->host.ccmax_stack + static_cast<size_t>(t) * pixels, run->device.d_ccmax,
                            pixels * sizeof(float), cudaMemcpyDeviceToHost));
}

void match_all_templates(Run* run, const char* out, FILE* nonunique) {
  quorlin_transform_micrograph(&run->scan, run->device.d_mic);
  if (run->autos.d_ccmin) begin_template_maps(run);
  for (int t = 0; t < run->sizes.T_num; t++)
    if (!run->host.T_empty[t]) match_template(run, t, nonunique);
  if (run->para.auto_picks) {
    pick_peaks(run, nonunique);
    if (run->para.write_ccmax_mic)
      hm_multi_inplace(run->host.ccmax_stack, work_pixels(run) * static_cast<size_t>(run->sizes.T_num),
                       run->findings.score_unit);
  } else if (run->para.auto_cutoff) {
    find_run_cutoff(run);
  }
  if (!run->para.write_ccmax_mic) return;
  char name[kTextBytes];
  set_outname_by_suffix(name, out, "_ccmax.mrc");
  mrcf_write_xyz_data(name, run->host.ccmax_stack, run->sizes.work_nx, run->sizes.work_ny, run->sizes.T_num);
}

// The map of the template that --auto has found, in its scores.
void write_own_map(Run* run, const char* out) {
  const SizeScanResult& found = run->autos.found;
  if (!found.usable) return;
  DiscWindow window = radial_window_new(&run->pad, found.found.values, found.found.n, found.found.step);
  correlate_with_window(&run->pad, &window, run->device.d_mic, run->device.d_ccmax);
  disc_window_free(&window);
  hcuda_multi_add_inplace(run->device.d_ccmax, work_pixels(run), run->findings.score_unit, 0.0f);
  write_device_image(run->device.d_ccmax, run, out, "_ccmax.mrc");
}

// With --auto: the peaks of the template that the micrograph has been found to ask for.
void match_own_template(Run* run, const char* out, FILE* nonunique) {
  printf("Template 001\n.\n");
  pick_peaks(run, nonunique);
  if (run->para.write_ccmax_mic) write_own_map(run, out);
}

void write_picks(const Run* run, const MicrographNames* names, const char* out, int kind) {
  const Kestrix_Para& para = run->para;
  const PickFindings& found = run->findings;
  const auto select = found.distinct ? box_filter_distinct : box_filter;
  select(run->sizes.shrink_nx, run->sizes.shrink_ny, found.min_dist_px, found.cutoff, static_cast<float>(para.shrink),
         para.boxsize, para.boxsize, kOrigin, output_at_hand(names->nonunique), names->excluded, out, kind);
}

// The final lists and the particle stack. An earlier list of this micrograph may be the one of its excluded places: it
// stays until all is published, so that both lists hold the same picks.
// image: where particles are cut from any format.
void select_picks(const Run* run, const MicrographNames* names, const ImageFile* image) {
  const Kestrix_Para& para = run->para;
  write_picks(run, names, names->box, 2);
  if (para.write_star) write_picks(run, names, names->star, 1);
  if (para.extract_raw && image)
    extract_particles_from_image(*image, names->mic, names->out, output_at_hand(names->box), para.boxsize);
  else if (para.extract_raw)
    extract_particles_from_micrograph(names->mic, names->out, output_at_hand(names->box), para.boxsize, 0);
}

// Either list marks its micrograph as done, so they come last.
void publish_outputs_of(const MicrographNames* names) {
  const char* const lists[] = {names->box, names->star};
  outputs_publish(lists, 2);
}

}  // namespace

bool is_finished_before(const Kestrix_Para* para, const char* mic) {
  MicrographNames names;
  set_names(&names, mic, para);
  return is_finished(&names, para);
}

bool look_at_micrograph(Run* run, const char* mic, std::unique_ptr<ImageFile> image) {
  MicrographNames names;
  set_names(&names, mic, &run->para);
  run->findings = findings_before(&run->para);
  if (!image) image = open_micrograph(&run->para, mic, "main");
  if (!fits_run(run, image->head())) return false;
  const bool readable = read_micrograph(run, *image, mic);
  condition_micrograph(run, &names, read_excluded(run, &names), readable);
  return true;
}

PickState pick_micrograph(Run* run, const char* mic, std::unique_ptr<ImageFile> image) {
  time_push();
  printf("\n");
  put_rule('-', 129, stdout);
  MicrographNames names;
  set_names(&names, mic, &run->para);
  if (is_finished(&names, &run->para)) {
    printf("Micrograph %s has already been processed. Automatically skipped.\n", mic);
    run->tally.skipped++;
    run->findings = {};
    count_lists(&run->findings, names.nonunique, access(names.box, R_OK) == 0 ? names.box : names.star);
    time_drop();
    return kFinishedBefore;
  }
  run->findings = findings_before(&run->para);
  const long notes_before = safety_notes_said();
  outputs_hold();
  FILE* nonunique = output_open(names.nonunique, "main", unit, __LINE__);
  if (!image) image = open_micrograph(&run->para, mic, "main");
  if (!fits_run(run, image->head())) refuse_size(run, *image, mic);
  printf("Reading File %s ...\n", mic);
  const bool readable = read_micrograph(run, *image, mic);
  if (!run->para.any_format || !run->para.extract_raw) image.reset();
  const int excluded_n = read_excluded(run, &names);
  time_pop("READING");

  time_push();
  printf("Normalizing the micrograph %s ...\n", mic);
  condition_micrograph(run, &names, excluded_n, readable);
  time_pop("NORMALIZATION");

  time_push();
  if (matches_own_template(&run->para)) {
    match_own_template(run, names.out, nonunique);
  } else {
    match_all_templates(run, names.out, nonunique);
  }
  KESTRIX_OUTPUT_CLOSE(nonunique);
  select_picks(run, &names, image.get());
  if (uses_auto_parts(&run->para)) tell_findings(run, mic);
  count_lists(&run->findings, output_at_hand(names.nonunique), output_at_hand(names.box));
  tally_micrograph(&run->tally, mic, &run->findings, notes_before, &run->para);
  publish_outputs_of(&names);
  printf("File %s finished.\n", mic);
  time_pop("PICKING");
  fflush(stdout);  // so that the log of a run that is killed tells how far it came
  return kPicked;
}
