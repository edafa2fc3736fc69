#include "run/auto_picks.h"
#include "run/output_names.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>

#include "compute/robust_statistics.h"
#include "cuda_general.h"
#include "math_utils.h"
#include "particles/pick_records.h"
#include "platform/failure.h"
#include "platform/host_memory.h"
#include "process2d_raw.h"
#include "run/session_learning.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "auto_picks";

// Values this many robust deviations from the median say no more than that they lie far outside.
constexpr float kOutlier = 8.0f;

// Fewer pixels along a side leave nothing to look for a particle in.
constexpr int kFewestPixels = 32;

// A micrograph of which more than this share is closed is worth a line.
constexpr float kMostlyClosed = 0.5f;

int true_side(int raw, int shrink) { return raw / (2 * shrink) * 2; }

// Closes what is nearer than the diagonal of a cell to a point, as peaks are by the scan's own filter.
void close_around(Run* run, unsigned point) {
  const RunSizes& s = run->sizes;
  const int px = static_cast<int>(point % static_cast<unsigned>(s.work_nx));
  const int py = static_cast<int>(point / static_cast<unsigned>(s.work_nx));
  const int limit = 2 * s.grid_size * s.grid_size;
  const int reach = static_cast<int>(std::sqrt(static_cast<double>(limit))) + 1;
  for (int y = std::max(py - reach, 0); y <= std::min(py + reach, s.work_ny - 1); y++)
    for (int x = std::max(px - reach, 0); x <= std::min(px + reach, s.work_nx - 1); x++)
      if ((x - px) * (x - px) + (y - py) * (y - py) < limit)
        run->autos.host_open[static_cast<size_t>(y) * s.work_nx + x] = 0.0f;
}

float share_closed(const Run* run) {
  const RunSizes& s = run->sizes;
  const int nx = true_side(s.nx, run->para.shrink);
  const int ny = true_side(s.ny, run->para.shrink);
  size_t open = 0;
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) open += run->autos.host_open[static_cast<size_t>(y) * s.work_nx + x] != 0.0f;
  return 1.0f - static_cast<float>(open) / (static_cast<float>(nx) * static_cast<float>(ny));
}

SizeScanSettings scan_settings(const Run* run) {
  const Kestrix_Para& para = run->para;
  const float apix = static_cast<float>(para.shrink) * para.apixM;
  return {para.diameter / apix, para.keeps_min_dist ? para.min_dist_px : 0, true_side(run->sizes.nx, para.shrink),
          true_side(run->sizes.ny, para.shrink), para.auto_template && !para.learn_template};
}

// Writes the template as a stack of one image in working pixels, bright as class averages are.
void write_learned(const RoundTemplate& found, const Kestrix_Para& para, const char* mic) {
  const int side = round_template_side(found);
  auto* image = host_new<float>(static_cast<size_t>(side) * static_cast<size_t>(side));
  draw_round_template(found, side, image);
  if (!para.dont_invertT) hm_invert_inplace(image, static_cast<unsigned long>(side) * static_cast<unsigned long>(side));
  char out[kTextBytes];
  set_output_name(out, mic, &para);
  char name[kTextBytes];
  set_outname_by_suffix(name, out, "_learned.mrcs");
  mrcf_write_xyz_data(name, image, side, side, 1);
  free(image);
}

// Puts the template in the automatic one's place, in its box.
void replace_template(Run* run, const RoundTemplate& found) {
  const size_t n = template_pixels(run);
  auto* image = host_new<float>(n);
  draw_round_template(found, run->sizes.T_nx, image);
  CHECK_DEVICE(cudaMemcpy(run->device.d_T_stack, image, n * sizeof(float), cudaMemcpyHostToDevice));
  free(image);
}

void set_size_findings(Run* run) {
  const SizeScanResult& found = run->autos.found;
  PickFindings& findings = run->findings;
  if (run->para.auto_template)
    findings.matched = !found.learned ? kBall : findings.by_session ? kSessionMean : kLearned;
  findings.size = found.share * run->para.diameter;
  findings.size_at_end = found.share <= kSizeShares[0] || found.share >= kSizeShares[kSizes - 1];
  findings.score_unit = found.score_unit;
  const SizeScanSettings& settings = run->autos.sizes.settings;
  if (run->para.auto_picks) findings.min_dist_px = peak_distance(settings, found.share * settings.diameter);
}

// By what the session shares where a micrograph needs that, else by itself.
SizeScanResult match_or_scan(Run* run) {
  if (shares_learned(run)) {
    SizeScanResult matched = match_learned(run);
    run->findings.by_session = !has_enough_alone(run, matched);
    if (run->findings.by_session) return matched;
    size_scan_result_free(&matched);
  }
  return scan_sizes(&run->autos.sizes, &run->pad, run->device.d_mic, run->autos.d_open, is_all_open(run));
}

// Scans for dark particles or, where templates aren't inverted, for bright ones, and leaves the template in the
// micrograph's contrast.
SizeScanResult scan_for_contrast(Run* run) {
  const bool bright = run->para.dont_invertT != 0;
  float* d_mic = run->device.d_mic;
  if (bright) hcuda_invert_inplace(d_mic, work_pixels(run));
  SizeScanResult found = match_or_scan(run);
  if (!bright) return found;
  hcuda_invert_inplace(d_mic, work_pixels(run));
  if (found.usable) hm_invert_inplace(found.found.values, static_cast<unsigned long>(found.found.n));
  return found;
}

// Peaks and decoys of the best of all templates.
void find_best_peaks(Run* run, PeakList* peaks, PeakList* decoys) {
  const RunSizes& s = run->sizes;
  const size_t bytes = work_pixels(run) * sizeof(float);
  AutoBuffers& autos = run->autos;
  float* const from[4] = {autos.all.best, autos.all.least, autos.all.best_psi, autos.all.best_T};
  for (int i = 0; i < 4; i++) CHECK_DEVICE(cudaMemcpy(autos.host_map[i], from[i], bytes, cudaMemcpyDeviceToHost));
  const RobustScale scale = robust_scale(autos.host_map[0], autos.host_open, s.work_nx, s.work_ny);
  if (!(scale.deviation > 0) || !std::isfinite(scale.deviation)) return;
  const float unit_score = run->para.auto_picks ? 1.0f / scale.deviation : 1.0f;
  run->findings.score_unit = unit_score;
  const PeakArea area = peak_area(scan_settings(run), s.work_nx, autos.host_open, run->findings.min_dist_px);
  *peaks = find_peaks(autos.host_map[0], 1.0f, unit_score, area);
  *decoys = find_peaks(autos.host_map[1], -1.0f, unit_score, area);
}

void set_cutoff(Run* run, const PeakList& peaks, const PeakList& decoys) {
  PickFindings& findings = run->findings;
  const float size = findings.size > 0 ? findings.size : run->para.diameter;
  const float apart = size / (static_cast<float>(run->para.shrink) * run->para.apixM);
  const ScoreCutoff found = findings.by_session ? session_cutoff(run, peaks, decoys, apart)
                                                : find_cutoff(peaks, decoys, run->sizes.work_nx, apart);
  findings.least = found.least;
  if (run->para.auto_cutoff) {
    findings.rule = found.rule;
    // Lists hold six digits behind the point; a peak at the cutoff must still reach it when it is read back.
    findings.cutoff =
        std::isfinite(found.cutoff) ? found.cutoff - 1e-6f * std::max(1.0f, std::fabs(found.cutoff)) : found.cutoff;
  }
  findings.least = std::min(findings.least, findings.cutoff);
  findings.picks = peaks_from(peaks, findings.cutoff);
}

// The peaks of one template as candidate lines; template_map null: all are of template 0 at the angle 0.
void write_candidates(Run* run, FILE* nonunique, const PeakList& peaks, int t, const float* template_map,
                      const float* psi_map) {
  const auto n = static_cast<size_t>(peaks.n);
  auto* index = host_new<unsigned>(n);
  auto* score = host_new<float>(n);
  auto* psi = host_new<float>(n);
  int count = 0;
  for (int i = 0; i < peaks.n && peaks.peaks[i].score >= run->findings.least; i++) {
    const ScorePeak peak = peaks.peaks[i];
    if (template_map && static_cast<int>(template_map[peak.pixel]) != t) continue;
    index[count] = static_cast<unsigned>(peak.pixel);
    score[count] = peak.score;
    psi[count++] = psi_map ? psi_map[peak.pixel] : 0.0f;
  }
  output_quorlin_coord_one_temp(nonunique, index, score, psi, t, count, run->sizes.work_nx, run->sizes.work_ny,
                                run->para.boxsize / run->para.shrink);
  free(index);
  free(score);
  free(psi);
}

}  // namespace

bool is_all_open(const Run* run) {
  const float* open = run->autos.host_open;
  return std::all_of(open, open + work_pixels(run), [](float v) { return v != 0.0f; });
}

const char* template_used_name(TemplateUsed used) {
  switch (used) {
    case kDisc:
      return "disc";
    case kBall:
      return "ball";
    case kLearned:
      return "mean of the micrograph's own particles";
    case kSessionMean:
      return "mean of the session's particles";
    default:
      return "given templates";
  }
}

bool uses_auto_parts(const Kestrix_Para* para) {
  return para->auto_picks || para->robust_ice || para->learn_template || para->auto_cutoff;
}

bool matches_own_template(const Kestrix_Para* para) { return para->auto_picks && para->auto_template; }

void limit_auto_shrink(Kestrix_Para* para, int nx, int ny) {
  const int most = std::max(1, std::min(nx, ny) / kFewestPixels);
  if (para->auto_picks && para->shrink > most) kestrix_set_shrink(para, most);
}

void auto_buffers_new(Run* run) {
  const Kestrix_Para& para = run->para;
  if (!uses_auto_parts(&para)) return;
  const size_t pixels = work_pixels(run);
  AutoBuffers& autos = run->autos;
  autos.d_open = device_new<float>(pixels);
  autos.host_open = host_new<float>(pixels);
  if (para.auto_picks || para.learn_template) autos.sizes = size_scan_new(&run->pad, scan_settings(run));
  if (matches_own_template(&para) || !(para.auto_cutoff || para.auto_picks)) return;
  for (float** map : {&autos.all.best, &autos.all.best_psi, &autos.all.best_T, &autos.all.least, &autos.d_ccmin})
    *map = device_new<float>(pixels);
  for (float*& map : autos.host_map) map = host_new<float>(pixels);
}

void auto_buffers_free(AutoBuffers* autos) {
  size_scan_result_free(&autos->found);
  if (autos->sizes.nx > 0) size_scan_free(&autos->sizes);
  const TemplateMaps& all = autos->all;
  for (float* map : {autos->d_open, autos->d_ccmin, all.best, all.best_psi, all.best_T, all.least}) cudaFree(map);
  for (float* map : autos->host_map) free(map);
  free(autos->host_open);
  *autos = AutoBuffers{};
}

void tame_outliers(float* image, int nx, int ny, int stride, const char* name) {
  const auto pixels = static_cast<size_t>(nx) * static_cast<size_t>(ny);
  auto* finite = host_new<float>(pixels);
  size_t lost = 0;
#pragma omp parallel for schedule(static) reduction(+ : lost)
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) {
      const float v = image[static_cast<size_t>(y) * stride + x];
      const bool is_number = std::isfinite(v);
      finite[static_cast<size_t>(y) * nx + x] = is_number ? v : std::numeric_limits<float>::quiet_NaN();
      lost += !is_number;
    }
  const RobustScale scale = robust_scale(finite, nullptr, nx, ny);
  free(finite);
  if (lost > pixels / 100) return;
  if (lost > 0)
    safety_note(name, "%zu of %zu working pixels are not finite; they count as the median of the others.", lost,
                pixels);
  const float reach = scale.deviation > 0 ? kOutlier * scale.deviation : std::numeric_limits<float>::infinity();
#pragma omp parallel for schedule(static)
  for (int y = 0; y < ny; y++)
    for (int x = 0; x < nx; x++) {
      const size_t i = static_cast<size_t>(y) * stride + x;
      const float v = image[i];
      image[i] = std::isfinite(v) ? std::clamp(v, scale.median - reach, scale.median + reach) : scale.median;
    }
}

void set_open_area(Run* run) {
  const Kestrix_Para& para = run->para;
  const size_t pixels = work_pixels(run);
  float* open = run->autos.host_open;
  if (para.detect_ice && para.robust_ice) {
    memcpy(open, run->ice.host_open, pixels * sizeof(float));
  } else {
    std::fill_n(open, pixels, 1.0f);
  }
  for (unsigned i = 0; i < run->peaks.n_excluded; i++)
    if (run->peaks.host_excluded[i] != 0) close_around(run, run->peaks.host_excluded[i]);
  CHECK_DEVICE(cudaMemcpy(run->autos.d_open, open, pixels * sizeof(float), cudaMemcpyHostToDevice));
  run->findings.closed = share_closed(run);
}

void learn_template(Run* run, const char* mic, bool usable) {
  AutoBuffers& autos = run->autos;
  float* d_mic = run->device.d_mic;
  size_scan_result_free(&autos.found);
  if (run->learning) {
    if (usable) take_into_learning(run);
    return;
  }
  if (usable) autos.found = scan_for_contrast(run);
  if (!autos.found.usable) {
    // The disc again, where an earlier micrograph's template has taken its place.
    if (!run->para.auto_picks) prepare_templates(run);
    return;
  }
  set_size_findings(run);
  if (run->para.write_learned && run->para.auto_template) write_learned(autos.found.found, run->para, mic);
  if (!run->para.auto_picks) return replace_template(run, autos.found.found);
  size_band_make(&autos.sizes.band, &run->pad, autos.found.band_size, d_mic);
}

void begin_template_maps(Run* run) {
  const TemplateMaps& all = run->autos.all;
  const int nx = run->sizes.work_nx;
  const int ny = run->sizes.work_ny;
  hcuda_2d_memset(all.best, -std::numeric_limits<float>::infinity(), nx, ny);
  hcuda_2d_memset(all.least, std::numeric_limits<float>::infinity(), nx, ny);
  hcuda_2d_empty(all.best_psi, nx, ny);
  hcuda_2d_empty(all.best_T, nx, ny);
}

void take_template_maps(Run* run, int t) {
  hcuda_take_template(run->autos.all, run->device.d_ccmax, run->device.d_psi, run->autos.d_ccmin, t, work_pixels(run));
}

void pick_peaks(Run* run, FILE* nonunique) {
  AutoBuffers& autos = run->autos;
  if (matches_own_template(&run->para)) {
    set_cutoff(run, autos.found.peaks, autos.found.decoys);
    write_candidates(run, nonunique, autos.found.peaks, 0, nullptr, nullptr);
    return;
  }
  PeakList peaks{};
  PeakList decoys{};
  find_best_peaks(run, &peaks, &decoys);
  set_cutoff(run, peaks, decoys);
  for (int t = 0; t < run->sizes.T_num; t++)
    write_candidates(run, nonunique, peaks, t, autos.host_map[3], autos.host_map[2]);
  peak_list_free(&peaks);
  peak_list_free(&decoys);
}

void find_run_cutoff(Run* run) {
  PeakList peaks{};
  PeakList decoys{};
  find_best_peaks(run, &peaks, &decoys);
  set_cutoff(run, peaks, decoys);
  peak_list_free(&peaks);
  peak_list_free(&decoys);
}

void tell_findings(const Run* run, const char* mic) {
  const PickFindings& f = run->findings;
  if (isatty(STDERR_FILENO) != 0) {
    if (f.size > 0)
      safety_note(mic, "particles of %.0f Å, matched with the %s.", static_cast<double>(f.size),
                  template_used_name(f.matched));
    if (run->para.auto_cutoff)
      safety_note(mic, "cutoff %.3f (%s), %d picks, %.0f %% closed.", static_cast<double>(f.cutoff),
                  cutoff_rule_name(f.rule), f.picks, 100 * static_cast<double>(f.closed));
  }
  if (run->para.auto_cutoff && f.rule == kNoParticles)
    safety_note(mic, "peaks don't stand out against chance; nothing is picked.");
  else if (f.size_at_end && !f.by_session)
    safety_note(mic, "particles of %.0f Å fit best, an end of the sizes tried; is --diameter %g right?",
                static_cast<double>(f.size), static_cast<double>(run->para.diameter));
  if (f.closed > kMostlyClosed)
    safety_note(mic, "%.0f %% is closed as ice, contamination or carbon, or excluded.",
                100 * static_cast<double>(f.closed));
}
