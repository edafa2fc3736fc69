// How every run begins, in whatever process.
#pragma once

#include "run/picking.h"

/// From the command line to a run that is ready for its micrographs: what the list must not hold is taken out or refused,
/// and the report and the time of the preparation are printed. Ends the run on what can't work. run: all zero before.
void begin_run(int argc, char** argv, Run* run);
