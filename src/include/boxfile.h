// Particle lists: the record of one particle, the reader of coordinate files, and the final selection of
// picks.
#pragma once

#include <cstdio>

#include "platform/device.h"

/// One particle. Its centre is x + w/2, y + h/2 with integer division, for records of either kind of file.
struct PTCL_BOX {
  int x, y;          // left and lower edge in pixels; from a STAR file the centre
  int w, h;          // size in pixels; 0 from a STAR file
  float score;       // correlation score
  int class_number;  // template or class
  float psi;         // in-plane angle, degrees
};

/// Zeroes the first n records; of more than 10000000 only so many, after a warning. Returns 0.
int empty_all_ptcl_boxes(PTCL_BOX* boxes, int n);

/// Gives the first n records the box size `size` around the same centre; a record of size 0 so turns from a
/// centre into a box. Returns 0.
int resize_ptcl_boxes(PTCL_BOX* boxes, int n, int size);

/// The kind of coordinate file by its name: 1 for ".star", 2 for ".box", else 0. Case matters.
int get_boxf_suffixf(const char* name);

/// Whether name is that of a coordinate file that can be read. A missing or unreadable one is a warning on standard
/// output, a folder, pipe or device a line on standard error; a null name is neither.
bool check_box_file(const char* name);

/// Reads a coordinate file, whose kind is told by get_boxf_suffixf, into the caller's `capacity` records;
/// what lies beyond them is not read. Returns the number of records filled.
///
/// A box file holds lines of 4 to 7 columns, x y w h [score [class [psi]]]; further columns are ignored. Of a
/// STAR file those lines are read that have as many tokens as the head has columns, or more; psi in whole
/// degrees.
///
/// A file that can't be opened and a box line of 1 to 3 columns end the run. Another kind of name gives a
/// warning and 0 records, a STAR file without coordinate columns 0 records and a note on standard error.
int read_all_ptcl_boxes(PTCL_BOX* boxes, int capacity, const char* name);

/// Side of the cells of the final selection in shrunk pixels, for the least distance of two picks in shrunk
/// pixels: a cell's diagonal is about min_dist. box_filter needs it to be at least 1.
int box_filter_cell_size(float min_dist);

/// The final selection for one micrograph: keeps the best candidate of each cell, removes those that have a
/// better one nearby, score below cc_cutoff, lie near an excluded box or closer to the image's edge than half
/// a box, and writes the rest to `out`, in raw micrograph pixels and in the order of the cells. Candidates in
/// the outermost ring of cells are removed too.
///
/// shrink_nx, _ny  size of the micrograph in shrunk pixels
/// min_dist        least distance of two picks, shrunk pixels
/// shrink          raw pixels per shrunk pixel
/// box_w, box_h    box size in raw pixels
/// origin          added to every written coordinate
/// candidates      name of the candidate file, complete; lines of fewer than seven columns or with a negative
///                 centre are skipped
/// excluded        name of a coordinate file, or "NULL"
/// kind            2 writes a box file, 1 a STAR file of the box centres
///
/// The list appears when it is complete (platform/outputs.h). Files that can't be opened
/// or written and a cell size below 1 end the run. Returns 0.
int box_filter(int shrink_nx, int shrink_ny, float min_dist, float cc_cutoff, float shrink, int box_w, int box_h,
               int2 origin, const char* candidates, const char* excluded, const char* out, int kind);

/// The same of candidates no two of which are nearer than min_dist: none has a better one nearby, and those in the
/// outermost ring of cells stay.
int box_filter_distinct(int shrink_nx, int shrink_ny, float min_dist, float cc_cutoff, float shrink, int box_w,
                        int box_h, int2 origin, const char* candidates, const char* excluded, const char* out,
                        int kind);

/// Rewinds and writes the head of a STAR list of picks: x, y, psi, class, score. Returns 0.
int output_starbox_head(FILE* file);

/// Rewinds and writes the head of a STAR list of bare coordinates. Returns 0.
int output_starbox_head_XYonly(FILE* file);
