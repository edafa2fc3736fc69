// What kestrix_simulate is asked to do: its options, with the defaults that follow from others worked out.
#pragma once

#include <cstdint>

#include "simulate/ctf.h"
#include "simulate/phantom.h"

/// Settings of one run of kestrix_simulate. Lengths in Å unless another unit is given.
struct Settings {
  const char* prefix;
  long number;  // micrographs
  long nx, ny;  // pixels
  double apix;  // pixel size
  long mode;    // MRC sample type
  long frames;  // sections of each micrograph
  long seed;
  double diameter;  // of the particle
  const char* shape_name;
  Shape shape;
  long count;       // particles per micrograph
  double coverage;  // share of the area between the margins that particles cover, where count isn't given
  double min_spacing;
  double margin;    // least distance of a particle's centre from the edges
  double snr;       // per pixel of a section
  double dose;      // electrons per square Å and section
  double gradient;  // relative change of the illumination across the micrograph
  long ice;         // crystals per micrograph
  double carbon;    // share of the micrograph that is carbon
  Optics optics;
  int noise_free;  // 1: expected counts are written, without shot noise
  long templates;  // projections in the template stack
  double apixT;    // their pixel size
  long boxT;       // their side, pixels
  double lowpass;  // their resolution
};

/// The settings of a command line. Prints the help and returns false where it is asked for; refuses what
/// can't work.
bool settings_from_arguments(int argc, char** argv, Settings* settings);
