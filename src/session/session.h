// A whole session of micrographs on one device, in this process.
#pragma once

#include "session/book.h"

/// Picks the micrographs of a command line, one after the other, as its options ask for: those of the list, or those that
/// appear while it runs. Ends the run on what can't work and, unless it is to keep going, on the first micrograph that
/// can't be picked.
SessionEnd pick_session(int argc, char** argv);
