#include "matching/host_scan/scan.h"

#include <omp.h>

#include <algorithm>
#include <cstdlib>

#include "matching/host_scan/interpolation.h"
#include "matching/host_scan/kept_turns.h"
#include "matching/host_scan/peak_search.h"
#include "matching/host_scan/regions.h"
#include "matching/host_scan/score_maps.h"
#include "matching/host_scan/template_turns.h"
#include "matching/peak_kernels.h"
#include "platform/host_memory.h"

namespace {

// Bytes that the spectra of a batch of turns may take: more than fits in a last-level cache only costs.
constexpr size_t kBytesOfTurns = size_t{24} << 20;

// Those of a search, which has other things to keep.
constexpr size_t kBytesOfSearchedTurns = size_t{16} << 20;

// Pairs of turns in a batch of maps: enough to keep the cores busy between two waits.
constexpr int kMostPairs = 8;

// What a score may change if a box taken backwards stands for the box turned by 180 degrees.
constexpr float kHalfTurnScore = 1e-6f;

// Fewer angles don't pay for the transforms of a divided micrograph.
constexpr int kFewAngles = 8;

size_t cells_of_side(int n, int cell) { return static_cast<size_t>((n - 1) / cell) + 1; }

// Divides the axes for a search of n_templates templates if that pays, or in any case. Returns whether it did.
bool divide_axes(HostScan* scan, double band, int cell, int n_templates, bool in_any_case) {
  scan->x = axis_parts_whole(scan->nx, scan->T_nx);
  scan->y = axis_parts_whole(scan->ny, scan->T_ny);
  if (cell < 1 || scan->n_angles < kFewAngles || band >= 0.5 || std::min(scan->T_nx, scan->T_ny) < 2) return false;
  AxisParts split_x = axis_parts_split(scan->nx, scan->T_nx, band);
  AxisParts split_y = axis_parts_split(scan->ny, scan->T_ny, band);
  const double T_pixels = static_cast<double>(scan->T_nx) * scan->T_ny;
  scan->budget = search_budget_new(split_x, split_y, scan->x, scan->y, scan->n_angles, T_pixels,
                                   cells_of_side(scan->nx, cell) * cells_of_side(scan->ny, cell));
  scan->budget.is_limited = !in_any_case;
  const double by_search = peak_search_cost(split_x, split_y, scan->n_angles, cell, T_pixels, n_templates);
  const bool pays = in_any_case || (by_search < score_maps_cost(scan->x, scan->y) &&
                                    trial_is_cheap(scan->budget, search_micrograph_cost(split_x, split_y),
                                                   scan->n_angles, n_templates));
  if (pays) {
    std::swap(scan->x, split_x);
    std::swap(scan->y, split_y);
  }
  axis_parts_free(&split_x);
  axis_parts_free(&split_y);
  return pays;
}

void set_up_region(const HostScan* scan, Region* region) {
  region->blocks = width_in_blocks(across(scan, *region));
  region->rows = up_to_lanes(static_cast<size_t>(down(scan, *region).plan.n));
  region->x_energy = host_new<double>(region->blocks * kLanes);
  region->y_energy = host_new<double>(region->rows);
}

void set_up_regions(HostScan* scan) {
  for (int j = 0; j < scan->y.n_parts; j++) {
    for (int i = 0; i < scan->x.n_parts; i++) {
      Region* region = &scan->regions[scan->n_regions++];
      region->across = i;
      region->down = j;
      set_up_region(scan, region);
      scan->scratch_values = std::max({scan->scratch_values, region->blocks * kLanes, region->rows});
      scan->kept_blocks[i] = {scan->n_angles == 1 ? half_spectrum_blocks(scan->x.parts[i]) : region->blocks, 0};
      scan->kept_rows[j] = {static_cast<size_t>(scan->y.parts[j].plan.n), 0};
    }
  }
}

// Values of the rows of one pair's templates, transformed, for a part of x.
size_t turned_values(const HostScan* scan, const AxisPart& part) { return most_kept_blocks(part) * scan->T_rows; }

size_t bytes_of_pair(const HostScan* scan) {
  if (scan->n_regions == 1) return score_maps_bytes_of_pair(scan);
  return (turned_values(scan, scan->x.parts[0]) + turned_values(scan, scan->x.parts[1])) * sizeof(LaneValue);
}

// The larger buffers, of spectra, as far as there are none.
void take_spectra(HostScan* scan) {
  for (Region* region = scan->regions; region < scan->regions + scan->n_regions; region++) {
    const size_t values = region->blocks * region->rows;
    if (!region->mic) region->mic = lane_values_new(values);
    if (!region->mic_half_turn && scan->n_angles > 1) region->mic_half_turn = lane_values_new(values);
  }
  for (int i = 0; i < scan->x.n_parts; i++)
    if (!scan->turned[i])
      scan->turned[i] = lane_values_new(static_cast<size_t>(scan->pairs) * turned_values(scan, scan->x.parts[i]));
}

// Frees them from that region on.
void drop_spectra(HostScan* scan, int first_region) {
  const auto drop = [](LaneValue*& values) {
    free(values);
    values = nullptr;
  };
  for (Region* region = scan->regions + first_region; region < scan->regions + scan->n_regions; region++) {
    drop(region->mic);
    drop(region->mic_half_turn);
  }
  for (LaneValue*& values : scan->turned) drop(values);
}

// What maps use of a search that was given up: the turned boxes and, if they are large enough, the spectra of the inner
// region.
void lend_buffers(const HostScan* search, HostScan* maps) {
  const Region& lent = search->regions[0];
  Region& region = maps->regions[0];
  maps->boxes = search->boxes;
  if (region.blocks * region.rows > lent.blocks * lent.rows) return;
  region.mic = lent.mic;
  region.mic_half_turn = lent.mic_half_turn;
}

void take_buffers_back(const HostScan* search, HostScan* maps) {
  Region& region = maps->regions[0];
  maps->boxes = TurnedBoxes{};
  if (region.mic == search->regions[0].mic) region.mic = region.mic_half_turn = nullptr;
}

// A scan without plans or buffers.
HostScan* scan_of_sizes(int nx, int ny, int T_nx, int T_ny, int n_angles) {
  auto* scan = host_new<HostScan>(1);
  *scan = HostScan{};
  scan->nx = nx;
  scan->ny = ny;
  scan->T_nx = T_nx;
  scan->T_ny = T_ny;
  scan->T_rows = up_to_lanes(static_cast<size_t>(T_ny));
  scan->n_angles = n_angles;
  scan->threads = omp_get_max_threads();
  return scan;
}

// How many pairs of turns make a batch: at most so many, and no more than fit into the bytes.
void set_up_batches(HostScan* scan, int most_pairs, size_t bytes) {
  const auto most = static_cast<size_t>(most_pairs);
  scan->pairs = static_cast<int>(std::clamp<size_t>(bytes / bytes_of_pair(scan), 1, most));
}

void take_spectra_and_scratch(HostScan* scan) {
  take_spectra(scan);
  scan->scratch = lane_values_new(static_cast<size_t>(scan->threads) * 6 * scan->scratch_values);
}

// Maps instead of a search.
HostScan* maps_instead_of(const HostScan* search) {
  HostScan* scan = scan_of_sizes(search->nx, search->ny, search->T_nx, search->T_ny, search->n_angles);
  scan->threads = search->threads;
  scan->x = axis_parts_whole(scan->nx, scan->T_nx);
  scan->y = axis_parts_whole(scan->ny, scan->T_ny);
  set_up_regions(scan);
  set_up_batches(scan, kMostPairs, kBytesOfTurns);
  lend_buffers(search, scan);
  take_spectra_and_scratch(scan);
  scan->maps = score_maps_new(scan);
  return scan;
}

// Ends what maps_instead_of began.
void drop_maps(HostScan* search) {
  if (!search->whole) return;
  take_buffers_back(search, search->whole);
  host_scan_free(search->whole);
  search->whole = nullptr;
}

// Gives the search of the micrograph at hand up: its memory goes to maps.
void give_search_up(HostScan* scan) {
  const auto nx = static_cast<size_t>(scan->nx);
  drop_spectra(scan, 1);
  peak_search_drop_candidates(scan);
  kept_turns_drop(scan);
  give_freed_memory_back();
  auto* mic = host_new<float>(nx * static_cast<size_t>(scan->ny));
  for (int y = 0; y < scan->ny; y++) std::copy_n(peak_search_row(scan, y), nx, mic + pixel_at(0, y, scan->nx));
  scan->whole = maps_instead_of(scan);
  host_scan_transform_micrograph(scan->whole, mic);
  free(mic);
}

// Ready for the search of the next micrograph.
void take_search_up(HostScan* scan) {
  drop_maps(scan);
  give_freed_memory_back();
  take_spectra(scan);
}

// The peaks of the cells from maps of the whole image: what a search falls back on.
void search_by_maps(HostScan* scan, const float* T, const float* psi, int n_angles, float divisor, unsigned* found,
                    float* cc, float* cell_psi) {
  const int nx = scan->nx;
  const int ny = scan->ny;
  const int cell = peak_search_cell(scan);
  const int grid_nx = (nx - 1) / cell + 1;
  const size_t pixels = static_cast<size_t>(nx) * static_cast<size_t>(ny);
  auto* ccmax = host_new<float>(pixels);
  auto* map_psi = host_new<float>(pixels);
  host_scan_template(scan->whole, T, psi, n_angles, divisor, ccmax, map_psi);
  for (int gy = 0; gy * cell < ny; gy++)
    for (int gx = 0; gx < grid_nx; gx++)
      cuda_find_ccmax_psi_grids(gx, gy, ccmax, map_psi, found, cc, cell_psi, nx, ny, grid_nx, cell);
  free(ccmax);
  free(map_psi);
}

// What two boxes may differ in their norm for the same scores: by the inequality of Cauchy and Schwarz a score differs by no
// more than kHalfTurnScore then.
float most_difference_of_half_turns(const HostScan* scan, float divisor) {
  return kHalfTurnScore * divisor / scan->largest_norm;
}

float energy_of(const float* T, int n) {
  double energy = 0;
  for (int i = 0; i < n; i++) energy += static_cast<double>(T[i]) * static_cast<double>(T[i]);
  return static_cast<float>(energy);
}

// The peaks by search. Returns false, with nothing written, if that would cost more than maps.
bool search_peaks(HostScan* scan, const float* T, const float* psi, int n_angles, float divisor, float least,
                  unsigned* found, float* cc, float* cell_psi) {
  if (scan->whole || peak_search_is_vague(scan, energy_of(T, scan->T_nx * scan->T_ny), divisor)) return false;
  auto* turns = host_new<TurnPair>(static_cast<size_t>(scan->boxes.room));
  const float most_difference = most_difference_of_half_turns(scan, divisor);
  const bool holds_all = n_angles <= scan->boxes.room;
  peak_search_begin(scan);
  bool pays = true;
  for (int first = 0; first < n_angles && pays; first += scan->boxes.room) {
    turn_boxes(&scan->boxes, T, psi + first, std::min(scan->boxes.room, n_angles - first));
    const int n_pairs = pair_turns(scan->boxes, psi + first, most_difference, turns);
    if (holds_all) kept_turns_take(scan, T, turns, n_pairs);
    pays = peak_search_take(scan, turns, static_cast<size_t>(n_pairs), first, least * divisor);
  }
  free(turns);
  if (!pays) return false;
  if (holds_all) kept_turns_note_paid(scan, T);
  peak_search_write(scan, psi, divisor, found, cc, cell_psi);
  return true;
}

}  // namespace

HostScan* host_scan_new(int nx, int ny, int T_nx, int T_ny, int n_angles, double band, int cell,
                        bool search_if_possible, int n_templates) {
  HostScan* scan = scan_of_sizes(nx, ny, T_nx, T_ny, n_angles);
  const bool searches = divide_axes(scan, band, cell, n_templates, search_if_possible);
  scan->boxes = turned_boxes_new(T_nx, T_ny, n_angles);
  set_up_regions(scan);
  set_up_batches(scan, searches ? n_angles : kMostPairs, searches ? kBytesOfSearchedTurns : kBytesOfTurns);
  take_spectra_and_scratch(scan);
  if (searches) {
    peak_search_new(scan, cell);
    kept_turns_new(scan, n_templates);
  } else {
    scan->maps = score_maps_new(scan);
  }
  return scan;
}

void host_scan_free(HostScan* scan) {
  if (!scan) return;
  axis_parts_free(&scan->x);
  axis_parts_free(&scan->y);
  drop_maps(scan);
  drop_spectra(scan, 0);
  turned_boxes_free(&scan->boxes);
  for (Region& region : scan->regions)
    for (double* energies : {region.x_energy, region.y_energy}) free(energies);
  score_maps_free(scan->maps);
  peak_search_free(scan->search);
  kept_turns_free(scan);
  free(scan->scratch);
  free(scan);
}

bool host_scan_searches(const HostScan* scan) { return scan->search != nullptr; }

void host_scan_transform_micrograph(HostScan* scan, const float* mic) {
  if (scan->whole) take_search_up(scan);
  transform_regions(scan, mic);
  if (scan->n_angles > 1) scan->largest_norm = largest_window_norm(mic, scan->nx, scan->ny, scan->T_nx, scan->T_ny);
  if (scan->search) peak_search_prepare(scan, mic);
}

void host_scan_template(HostScan* scan, const float* T, const float* psi, int n_angles, float divisor, float* ccmax,
                        float* map_psi, float* ccmin) {
  auto* turns = host_new<TurnPair>(static_cast<size_t>(scan->boxes.room));
  const float most_difference = most_difference_of_half_turns(scan, divisor);
  score_maps_begin(scan, ccmin != nullptr);
  for (int first = 0; first < n_angles; first += scan->boxes.room) {
    turn_boxes(&scan->boxes, T, psi + first, std::min(scan->boxes.room, n_angles - first));
    const int n_pairs = pair_turns(scan->boxes, psi + first, most_difference, turns);
    score_maps_take(scan, turns, static_cast<size_t>(n_pairs), psi + first);
  }
  score_maps_write(scan, divisor, ccmax, map_psi, ccmin);
  free(turns);
}

void host_scan_search(HostScan* scan, const float* T, const float* psi, int n_angles, float divisor, float least,
                      unsigned* found, float* cc, float* cell_psi) {
  if (search_peaks(scan, T, psi, n_angles, divisor, least, found, cc, cell_psi)) return;
  if (!scan->whole) give_search_up(scan);
  search_by_maps(scan, T, psi, n_angles, divisor, found, cc, cell_psi);
}
