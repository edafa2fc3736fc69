// The maps of a scan on the host: the largest correlation of every pixel over the angles, from transforms of the whole
// image.
#pragma once

#include "matching/lane_regions.h"

/// Bytes of the buffers for each pair of turns, of a scan of one region.
size_t lane_maps_bytes_of_pair(const LaneScan* scan);

/// The buffers for scan->pairs pairs of turns; released with lane_maps_free. A lack of memory ends the run.
LaneMaps* lane_maps_new(const LaneScan* scan);
void lane_maps_free(LaneMaps* maps);

/// Empties the maps.
void lane_maps_begin(const LaneScan* scan);

/// Correlates the scan's boxes, in n_pairs pairs of turns of the angles psi (degrees), with the micrograph and takes the
/// results into the maps.
void lane_maps_take(const LaneScan* scan, const TurnPair* turns, size_t n_pairs, const float* psi);

/// Writes the maps as lane_scan_template does.
void lane_maps_write(const LaneScan* scan, float divisor, float* ccmax, float* map_psi);
