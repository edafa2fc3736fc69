// The candidate file of a micrograph: the picks of all its templates, a line each, in pixels of the shrunk
// image.
#pragma once

#include <cstdio>

/// Clears out (1024 bytes) and makes it the name of the candidate file that belongs to the micrograph `mic`:
/// without its micrograph suffix, with "_nonunique.box". shrink has no effect. Returns 0; a name that doesn't
/// fit ends the run.
int set_name_shrinked_box(char* out, const char* mic, int shrink);

/// Appends the picks of one template to the open candidate file, cell by cell. Returns 0.
///
/// grid_index      host, n_cells pixel indices of the cells' peaks; 0: no peak
/// grid_cc         their scores
/// grid_psi        their in-plane angles, degrees
/// template_index  counted from 0
/// nx, ny          size of the working image, pixels
/// box             box size in those pixels; peaks within half a box of the border are dropped
int output_quorlin_coord_one_temp(FILE* file, const unsigned* grid_index, const float* grid_cc, const float* grid_psi,
                                  int template_index, int n_cells, int nx, int ny, int box);

/// A line of the candidate file.
struct CandidatePick {
  long x, y;  // centre, pixels of the shrunk image
  float score;
  int template_index;  // counted from 0
  float psi;           // in-plane angle, degrees
};

/// Reads the next candidate of the open file; lines of fewer than seven columns are passed over. Returns false at the
/// end of the file.
bool read_next_candidate(FILE* file, CandidatePick* candidate);
