// The rotational scan's own way on the host: two angles in each complex transform, eight columns or rows side by side
// in each step, all cores on the same template. Either it makes maps, by transforms of the whole image (score_maps.h), or
// it searches the cells of a grid for their peaks without making maps, which is several times faster where the micrograph
// is band-passed (peak_search.h).
#pragma once

struct HostScan;

/// Plans and allocates for scans of nx by ny images by T_nx by T_ny templates over n_angles angles; released with
/// host_scan_free. A lack of memory ends the run.
/// cell   side of the grid's cells in pixels where their peaks are all that is wanted, else 0
/// band   the highest frequency of the images in cycles per pixel, as far as it is known, else 0.5; it decides on the
///        fastest way, not on the result
/// search_if_possible   whether to search whatever it costs
/// n_templates          that are expected for each micrograph; for choosing, too
HostScan* host_scan_new(int nx, int ny, int T_nx, int T_ny, int n_angles, double band, int cell,
                        bool search_if_possible = false, int n_templates = 1);
void host_scan_free(HostScan* scan);

/// Whether it searches: then host_scan_search is to be called, else host_scan_template.
bool host_scan_searches(const HostScan* scan);

/// Transforms the micrograph (nx*ny floats) for the scans that follow.
void host_scan_transform_micrograph(HostScan* scan, const float* mic);

/// Correlates the template T (T_nx*T_ny floats), turned by each of the angles psi (n_angles of them, in degrees,
/// ascending), with the micrograph. Writes the largest correlation of each pixel, re-centred, divided by divisor, into
/// ccmax and, unless map_psi is null, the earliest angle that gave it into map_psi, and, unless ccmin is null, the
/// lowest one into ccmin: nx*ny floats each.
void host_scan_template(HostScan* scan, const float* T, const float* psi, int n_angles, float divisor, float* ccmax,
                        float* map_psi, float* ccmin = nullptr);

/// The peaks of the same map, by search or, where that would cost more, from the map: for each cell of the grid the pixel
/// y*nx + x of its largest value, the first in row order of those that tie, 0 if that is the cell's first pixel; the value;
/// the earliest angle that gave it. Cells whose largest value is below `least` may have 0 and a lower value.
/// found, cc, cell_psi   one entry per cell
void host_scan_search(HostScan* scan, const float* T, const float* psi, int n_angles, float divisor, float least,
                      unsigned* found, float* cc, float* cell_psi);
