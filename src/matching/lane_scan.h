// The rotational scan's own way on the host: two angles in each complex transform, eight columns or rows side by side
// in each step, all cores on the same angles. Gives the maps of the plain way up to the rounding of the transforms.
#pragma once

#include "quorlin56.h"

struct LaneScan;

/// Plans and allocates for scans of nx by ny images by T_nx by T_ny templates; released with lane_scan_free. A lack of
/// memory ends the run.
LaneScan* lane_scan_new(int nx, int ny, int T_nx, int T_ny);
void lane_scan_free(LaneScan* scan);

/// Most angles that lane_scan_add takes together.
int lane_scan_batch(const LaneScan* scan);

/// Transforms the micrograph (nx*ny floats) for the scans that follow.
void lane_scan_transform_micrograph(LaneScan* scan, const float* mic);

/// Empties the maps.
void lane_scan_begin(LaneScan* scan);

/// Correlates the template T (T_nx*T_ny floats), turned by each of the count angles, with the micrograph and takes the
/// results into the maps, in the order of the angles.
void lane_scan_add(LaneScan* scan, const float* T, const ScanAngles& angles, int count);

/// Writes the maps, re-centred, the correlation divided by divisor: nx*ny floats each; psi may be null.
void lane_scan_finish(const LaneScan* scan, float divisor, float* ccmax, float* psi);
