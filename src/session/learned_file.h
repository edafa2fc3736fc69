// The STAR file of what a session's micrographs share.
#pragma once

#include <string>

#include "run/learned_picks.h"
#include "run/parameters.h"

/// Where a run keeps it: --learned, else kestrix_learned.star among its outputs.
std::string learned_file(const Kestrix_Para& para);

/// Writes it whole or not at all. Ends the run where that fails.
void write_learned_file(const std::string& name, const LearnedPicks& learned);

/// Reads it for a run with these parameters. Ends the run where it is damaged or was learned with another diameter, pixel
/// size or contrast.
LearnedPicks read_learned_file(const std::string& name, const Kestrix_Para& para);
