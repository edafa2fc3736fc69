// Writing what was simulated as MRC files of every readable sample type, with pixel size and statistics.
#pragma once

#include "simulate/phantom.h"
#include "simulate/settings.h"

/// Writes micrograph number `index`: settings.frames sections of Poisson counts about the expected ones (nx *
/// ny floats), or these themselves for a noise-free micrograph, rounded for whole-number sample types.
/// Refuses a file that can't be written.
void write_micrograph(const char* name, const Settings& settings, long index, const float* expected);

/// Writes the projections of the particle in settings.templates directions spread evenly over the sphere, as
/// floats, bright on 0, turning about the middle ((boxT - 1) / 2) of the box. Refuses a file that can't be
/// written.
void write_templates(const char* name, const Settings& settings, const Phantom& phantom);
