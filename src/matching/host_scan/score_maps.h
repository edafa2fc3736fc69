// The maps of a scan on the host: the largest correlation of every pixel over the angles, from transforms of the whole
// image.
#pragma once

#include "matching/host_scan/regions.h"

/// Bytes of the buffers for each pair of turns, of a scan of one region.
size_t score_maps_bytes_of_pair(const HostScan* scan);

/// The buffers for scan->pairs pairs of turns; released with score_maps_free. A lack of memory ends the run.
ScoreMaps* score_maps_new(const HostScan* scan);
void score_maps_free(ScoreMaps* maps);

/// Empties the maps; of the lowest correlations there is one only with_least.
void score_maps_begin(const HostScan* scan, bool with_least);

/// Correlates the scan's boxes, in n_pairs pairs of turns of the angles psi (degrees), with the micrograph and takes the
/// results into the maps.
void score_maps_take(const HostScan* scan, const TurnPair* turns, size_t n_pairs, const float* psi);

/// Writes the maps as host_scan_template does; ccmin null unless begun with_least.
void score_maps_write(const HostScan* scan, float divisor, float* ccmax, float* map_psi, float* ccmin);
