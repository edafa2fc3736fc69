#include "matching/host_scan/scan.h"

#include <omp.h>

#include <algorithm>
#include <cstdlib>

#include "matching/host_scan/peak_search.h"
#include "matching/host_scan/regions.h"
#include "matching/host_scan/score_maps.h"
#include "matching/host_scan/template_turns.h"
#include "matching/peak_kernels.h"
#include "platform/host_memory.h"

namespace {

// Bytes that the spectra of a batch of turns may take: more than fits in a last-level cache only costs.
constexpr size_t kBytesOfTurns = size_t{24} << 20;

// Pairs of turns in a batch of maps: enough to keep the cores busy between two waits.
constexpr size_t kMostPairs = 8;

// Fewer angles don't pay for the transforms of a divided micrograph.
constexpr int kFewAngles = 8;

// Divides the axes for a search if that pays, or in any case. Returns whether it did.
bool divide_axes(HostScan* scan, double band, int cell, bool in_any_case) {
  scan->x = axis_parts_whole(scan->nx, scan->T_nx);
  scan->y = axis_parts_whole(scan->ny, scan->T_ny);
  if (cell < 1 || scan->n_angles < kFewAngles || band >= 0.5 || std::min(scan->T_nx, scan->T_ny) < 2) return false;
  AxisParts split_x = axis_parts_split(scan->nx, scan->T_nx, band);
  AxisParts split_y = axis_parts_split(scan->ny, scan->T_ny, band);
  const bool pays =
      in_any_case || peak_search_cost(split_x, split_y, scan->n_angles, cell,
                                      static_cast<double>(scan->T_nx) * scan->T_ny) < score_maps_cost(scan->x, scan->y);
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
  region->mic = lane_values_new(region->blocks * region->rows);
  if (scan->n_angles > 1) region->mic_half_turn = lane_values_new(region->blocks * region->rows);
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
  if (!scan->whole) scan->whole = host_scan_new(nx, ny, scan->T_nx, scan->T_ny, scan->n_angles, 0.5, 0);
  if (!scan->whole_has_mic) {
    for (int y = 0; y < ny; y++) std::copy_n(peak_search_row(scan, y), nx, ccmax + pixel_at(0, y, nx));
    host_scan_transform_micrograph(scan->whole, ccmax);
    scan->whole_has_mic = true;
  }
  host_scan_template(scan->whole, T, psi, n_angles, divisor, ccmax, map_psi);
  for (int gy = 0; gy * cell < ny; gy++)
    for (int gx = 0; gx < grid_nx; gx++)
      cuda_find_ccmax_psi_grids(gx, gy, ccmax, map_psi, found, cc, cell_psi, nx, ny, grid_nx, cell);
  free(ccmax);
  free(map_psi);
}

float energy_of(const float* T, int n) {
  double energy = 0;
  for (int i = 0; i < n; i++) energy += static_cast<double>(T[i]) * static_cast<double>(T[i]);
  return static_cast<float>(energy);
}

}  // namespace

HostScan* host_scan_new(int nx, int ny, int T_nx, int T_ny, int n_angles, double band, int cell,
                        bool search_if_possible) {
  auto* scan = host_new<HostScan>(1);
  *scan = HostScan{};
  scan->nx = nx;
  scan->ny = ny;
  scan->T_nx = T_nx;
  scan->T_ny = T_ny;
  scan->T_rows = up_to_lanes(static_cast<size_t>(T_ny));
  scan->n_angles = n_angles;
  scan->threads = omp_get_max_threads();
  const bool searches = divide_axes(scan, band, cell, search_if_possible);
  set_up_regions(scan);
  scan->boxes = turned_boxes_new(T_nx, T_ny, n_angles);
  const size_t most = searches ? static_cast<size_t>(n_angles) : kMostPairs;
  scan->pairs = static_cast<int>(std::clamp<size_t>(kBytesOfTurns / bytes_of_pair(scan), 1, most));
  for (int i = 0; i < scan->x.n_parts; i++)
    scan->turned[i] = lane_values_new(static_cast<size_t>(scan->pairs) * turned_values(scan, scan->x.parts[i]));
  scan->scratch = lane_values_new(static_cast<size_t>(scan->threads) * 6 * scan->scratch_values);
  if (searches) {
    peak_search_new(scan, cell);
  } else {
    scan->maps = score_maps_new(scan);
  }
  return scan;
}

void host_scan_free(HostScan* scan) {
  if (!scan) return;
  axis_parts_free(&scan->x);
  axis_parts_free(&scan->y);
  for (Region& region : scan->regions) {
    for (LaneValue* values : {region.mic, region.mic_half_turn}) free(values);
    for (double* energies : {region.x_energy, region.y_energy}) free(energies);
  }
  for (LaneValue* values : scan->turned) free(values);
  turned_boxes_free(&scan->boxes);
  score_maps_free(scan->maps);
  peak_search_free(scan->search);
  host_scan_free(scan->whole);
  free(scan->scratch);
  free(scan);
}

bool host_scan_searches(const HostScan* scan) { return scan->search != nullptr; }

void host_scan_transform_micrograph(HostScan* scan, const float* mic) {
  transform_regions(scan, mic);
  if (scan->search) peak_search_prepare(scan, mic);
  scan->whole_has_mic = false;
}

void host_scan_template(HostScan* scan, const float* T, const float* psi, int n_angles, float divisor, float* ccmax,
                        float* map_psi, float* ccmin) {
  auto* turns = host_new<TurnPair>(static_cast<size_t>(scan->boxes.room));
  score_maps_begin(scan, ccmin != nullptr);
  for (int first = 0; first < n_angles; first += scan->boxes.room) {
    turn_boxes(&scan->boxes, T, psi + first, std::min(scan->boxes.room, n_angles - first));
    const int n_pairs = pair_turns(scan->boxes, psi + first, turns);
    score_maps_take(scan, turns, static_cast<size_t>(n_pairs), psi + first);
  }
  score_maps_write(scan, divisor, ccmax, map_psi, ccmin);
  free(turns);
}

void host_scan_search(HostScan* scan, const float* T, const float* psi, int n_angles, float divisor, float least,
                      unsigned* found, float* cc, float* cell_psi) {
  if (peak_search_is_vague(scan, energy_of(T, scan->T_nx * scan->T_ny), divisor))
    return search_by_maps(scan, T, psi, n_angles, divisor, found, cc, cell_psi);
  auto* turns = host_new<TurnPair>(static_cast<size_t>(scan->boxes.room));
  peak_search_begin(scan);
  for (int first = 0; first < n_angles; first += scan->boxes.room) {
    turn_boxes(&scan->boxes, T, psi + first, std::min(scan->boxes.room, n_angles - first));
    const int n_pairs = pair_turns(scan->boxes, psi + first, turns);
    peak_search_take(scan, turns, static_cast<size_t>(n_pairs), first, least * divisor);
  }
  peak_search_write(scan, psi, divisor, found, cc, cell_psi);
  free(turns);
}
