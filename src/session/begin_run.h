// How every run begins, in whatever process.
#pragma once

#include "run/picking.h"
#include "session/shard.h"

/// Reads the command line, takes out of the list or refuses what it must not hold, makes the folder of the outputs, and
/// prints the report; with --check it reads the command line alone. Returns the share of the list that is left. Ends the run
/// on what can't work. run: all zero before.
Shard read_run(int argc, char** argv, Run* run);

/// The same for one of several processes, and the preparation with its time: the run is ready for its micrographs. Ends
/// the run where it asks for what one process alone can do.
void begin_run(int argc, char** argv, Run* run);
