// What a run makes once and every micrograph shares: its sizes, buffers and workspaces.
#pragma once

#include "boxfile.h"
#include "conditioning/conditioning.h"
#include "mrcfile.h"
#include "quorlin56.h"
#include "run/findings.h"
#include "run/learned_picks.h"
#include "run/parameters.h"
#include "run/size_scan.h"
#include "run/tally.h"

/// Sizes of the run, from the first micrograph's header and the templates. "Shrunk" pixels are pixels of
/// apixM * shrink Å.
struct RunSizes {
  int nx, ny;                // raw micrograph
  int work_nx, work_ny;      // the even square working image, shrunk pixels
  int shrink_nx, shrink_ny;  // true image size, shrunk pixels
  int T_nx, T_ny, T_num;     // template box in shrunk pixels, number of templates
  int grid_size;             // side of a grid cell, shrunk pixels
  int grid_nx, grid_ny;      // cells across and down
};

/// Host buffers, allocated once.
struct HostBuffers {
  float* work_mic;           // work_nx*work_ny: the shrunk even square; pinned
  float* T_stack;            // T_num templates of T_nx*T_ny as acquired
  bool* T_empty;             // one per template: zero everywhere and not to be matched
  float* ccmax_stack;        // T_num maps of work_nx*work_ny, or null where no map is written
  unsigned* grid_index;      // one per cell: pixel of the peak, 0 for none; pinned
  float* grid_cc;            // one per cell: score of the peak; pinned
  float* grid_psi;           // one per cell: angle of the peak, degrees; pinned
  PTCL_BOX* excluded_boxes;  // one per cell: the micrograph's excluded coordinates
  PTCL_BOX* global_boxes;    // one per cell: those of the list for all micrographs
};

/// Device buffers, allocated once.
struct DeviceBuffers {
  float* d_T_stack;  // T_num templates of T_nx*T_ny, normalised, of the micrograph's contrast
  float* d_mic;      // work_nx*work_ny: the working image through all conditioning steps
  float* d_ccmax;    // work_nx*work_ny: best correlation per pixel of the current template
  float* d_psi;      // work_nx*work_ny: angle of it
  float* d_mask;     // work_nx*work_ny: 1 on usable, 0 on excluded pixels
  unsigned* d_grid;  // one per cell: 0, or the pixel that marks the cell as closed to picking
};

/// What the parts that need no tuning share; empty where none is asked for.
struct AutoBuffers {
  SizeScan sizes;        // empty where no template is looked for
  SizeScanResult found;  // of the micrograph at hand
  float* d_open;         // device, work_nx*work_ny: 1 where peaks count, else 0
  float* host_open;      // the same on the host
  // The best of all templates, for the cutoff; null without it or where the template is found:
  TemplateMaps all;    // device, work_nx*work_ny each
  float* d_ccmin;      // device, work_nx*work_ny: the lowest score of the current template
  float* host_map[4];  // the same on the host
};

struct SessionLearning;

struct Run {
  Kestrix_Para para;
  MRC_HEAD first_head;  // of the first readable micrograph
  RunSizes sizes;
  HostBuffers host;
  DeviceBuffers device;
  MirrorPad pad;     // empty where neither filter nor ice detection runs
  IceWorkspace ice;  // empty without ice detection
  ScanWorkspace scan;
  PeakWorkspace peaks;
  RunTally tally;
  AutoBuffers autos;
  PickFindings findings;  // of the micrograph at hand
  // Kept from one preparation to the next:
  LearnedPicks learned;       // what the session's micrographs share; all zero: nothing
  SessionLearning* learning;  // not owned: what micrographs are looked at for; null: they are picked
};

/// Sets the sizes that follow from the first micrograph's header and the parameters, all but the templates'. Ends the
/// run if the header's size or the cell size can't work.
void set_run_sizes(Run* run);

/// Acquires the templates (host.T_stack) and sets their sizes.
void acquire_templates(Run* run);

/// Device memory that a run takes by the device's own transforms with so many angles in one pass of the scan: all its
/// buffers, in bytes, the work areas of its transforms not included. Sizes and templates must be known.
size_t device_bytes(const Run* run, int angles);

/// Ends the run where the device has no room for it even with one angle at a time.
void check_device_memory(const Run* run);

/// Allocates every buffer and workspace of the run but host.T_stack. Where a GPU is short of memory the scan takes fewer
/// angles at a time. Failure ends the run.
void allocate_run(Run* run);

/// Normalises the templates one by one and moves them to the device, inverted unless dont_invertT.
void prepare_templates(Run* run);

/// Pixels of the working image, of a template, cells of the grid.
size_t work_pixels(const Run* run);
size_t template_pixels(const Run* run);
size_t grid_cells(const Run* run);
