// Places and angles that may be a cell's peak, and which of them are: decided by the correlations themselves, summed up
// pixel by pixel.
#pragma once

#include <cstddef>

#include "matching/host_scan/template_turns.h"

/// A pixel of a map at one angle.
struct Candidate {
  unsigned pixel;  // y * nx + x
  int cell;
  int angle;    // its place among the scan's
  float value;  // correlation, interpolated
};

/// A list that grows.
struct CandidateList {
  Candidate* items;
  size_t count, room;
};

/// Appends to the list. When it is full, those below the limits of their cells are dropped first. A lack of memory ends
/// the run.
void candidates_add(CandidateList* list, const Candidate& candidate, const float* limits);

/// An image continued by its own beginning, so that a template reaches over the edge: pixel (x, y) of nx by ny at
/// pixels[y * width + x], and nothing else beyond it than what a template of T_nx by T_ny needs.
struct WrappedImage {
  int nx, ny, T_nx, T_ny;
  size_t width;
  float* pixels;
};

/// Buffers for images of nx by ny and templates of T_nx by T_ny; released with wrapped_image_free. A lack of memory ends
/// the run.
WrappedImage wrapped_image_new(int nx, int ny, int T_nx, int T_ny);
void wrapped_image_free(WrappedImage* image);

/// Takes over the pixels of mic (nx*ny floats).
void wrapped_image_set(WrappedImage* image, const float* mic);

/// What was found in a cell: the exact correlation, its pixel and the place of its angle.
struct CellPeak {
  float value;
  unsigned pixel;
  int angle;  // -1 where there is none
};

/// Takes for each cell the correlation of the most promising candidate of n_lists lists for its peak, if it is better than
/// what is there; arguments as of update_peaks.
void take_best_candidates(const WrappedImage& mic, const TurnedBoxes& boxes, int first_angle,
                          const CandidateList* lists, int n_lists, size_t n_cells, CellPeak* peaks);

/// The same as update_peaks with all of one list, which is sorted in place, in one thread.
void update_peaks_alone(const WrappedImage& mic, const TurnedBoxes& boxes, int first_angle, CandidateList* list,
                        const float* errors, CellPeak* peaks);

/// Drops what is below the limits of its cell.
void candidates_drop(CandidateList* list, const float* limits);

/// Brings the peaks of n_cells cells up to date with the candidates of n_lists lists: the largest exact correlation, of
/// those that tie that of the first pixel and then of the first angle.
/// limits       for each cell what an interpolated value must reach to count
/// boxes        the candidates' angles are places among these; first_angle is added in the peaks
/// errors       for each cell how far an interpolated value can be from the truth
/// sorted       room for as many candidates as the lists have together
/// peaks        what is known of earlier angles, replaced where there is better
void update_peaks(const WrappedImage& mic, const TurnedBoxes& boxes, int first_angle, const CandidateList* lists,
                  int n_lists, const float* limits, const float* errors, size_t n_cells, Candidate* sorted,
                  CellPeak* peaks);
