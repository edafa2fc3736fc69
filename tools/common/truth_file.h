// The truth about a simulated micrograph as STAR files: where the particles are, and the outlines of ice and
// carbon.
#pragma once

#include <vector>

/// What a place lies on; a place can lie on both.
enum Contamination { kClean = 0, kOnIce = 1, kOnCarbon = 2 };

/// A particle of a truth file.
struct TrueParticle {
  double x, y;            // centre, pixels; whole numbers are centres of pixels, the first is 0
  double rot, tilt, psi;  // degrees, as RELION defines them
  int contamination;      // of the centre, bits of Contamination
};

/// A closed outline, its corners in pixels. What lies inside by the even-odd rule is covered.
struct Area {
  int kind;  // kOnIce or kOnCarbon
  std::vector<double> x, y;
};

/// The contamination at a point, bits of Contamination.
int contamination_at(const std::vector<Area>& areas, double x, double y);

/// Writes the particles as a STAR file that RELION reads; the column of our own stands last so that readers
/// of fixed keywords pass over it. Refuses a file that can't be written.
void write_truth(const char* name, const std::vector<TrueParticle>& particles);

/// Reads what write_truth wrote, or any STAR file with coordinates; columns that it lacks count as 0. Refuses
/// a file that can't be read.
std::vector<TrueParticle> read_truth(const char* name);

/// Writes the outlines, one corner per line, numbered from 1. Refuses a file that can't be written.
void write_areas(const char* name, const std::vector<Area>& areas);

/// Reads what write_areas wrote. Refuses a file that can't be read.
std::vector<Area> read_areas(const char* name);
