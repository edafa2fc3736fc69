// The rotational scan's own way on the host: two angles in each complex transform, eight columns or rows side by side
// in each step, all cores on the same angles. Gives the maps of the plain way up to the rounding of the transforms.
#pragma once

struct LaneScan;

/// Plans and allocates for scans of nx by ny images by T_nx by T_ny templates over n_angles angles; released with
/// lane_scan_free. band: the highest frequency of the images in cycles per pixel, as far as it is known, else 0.5; it
/// decides on the fastest way, not on the result. A lack of memory ends the run.
LaneScan* lane_scan_new(int nx, int ny, int T_nx, int T_ny, int n_angles, double band);
void lane_scan_free(LaneScan* scan);

/// Transforms the micrograph (nx*ny floats) for the scans that follow.
void lane_scan_transform_micrograph(LaneScan* scan, const float* mic);

/// Correlates the template T (T_nx*T_ny floats), turned by each of the angles psi (n_angles of them, in degrees,
/// ascending), with the micrograph. Writes the largest correlation of each pixel, re-centred, divided by divisor, into
/// ccmax and, unless map_psi is null, the earliest angle that gave it into map_psi: nx*ny floats each.
void lane_scan_template(LaneScan* scan, const float* T, const float* psi, int n_angles, float divisor, float* ccmax,
                        float* map_psi);
