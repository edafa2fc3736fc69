// How far interpolated correlations of a micrograph can be from the true ones, cell by cell.
#pragma once

#include "matching/host_scan/interpolation.h"
#include "matching/host_scan/regions.h"

/// Cells of a grid from pixel (0, 0) on, in rows of nx.
struct CellGrid {
  int side, nx, ny;
};

inline size_t cells_of(const CellGrid& grid) { return static_cast<size_t>(grid.nx) * static_cast<size_t>(grid.ny); }

/// The weights of the inner parts for a micrograph, and for each cell what, times the norm of a template, no interpolated
/// correlation of a pixel of the cell is further from the truth.
struct ErrorBounds {
  SampleWeights x, y;
  float* error_norms;
  float mean_norm;  // of the cells'

  int halo;                // what follows is of use while they are found
  float* surrounded;       // the image continued as the inner parts continue it, halo pixels on all sides
  double* squared_errors;  // in blocks (interpolation.h)
};

/// Room for the bounds of a divided scan; released with error_bounds_free. A lack of memory ends the run.
ErrorBounds error_bounds_new(const HostScan* scan, const CellGrid& cells);
void error_bounds_free(ErrorBounds* bounds);

/// Finds them for the micrograph (nx*ny floats) whose spectra the scan holds.
void find_error_bounds(ErrorBounds* bounds, const HostScan* scan, const CellGrid& cells, const float* mic);
