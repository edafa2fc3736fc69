// What a session's micrographs share is learned before any is picked, or read where another run has learned it.
#pragma once

#include "run/picking.h"

/// Reads what was learned before into run->learned, where the run is to share it. Ends the run where its options can't go
/// together or the file can't be used. run: read, and not prepared.
void read_learned(Run* run);

/// Ends the run where it is yet to learn: in front ends of several processes, of which none can learn for all. `what` they
/// are begins the message.
void refuse_to_learn(const Run* run, const char* what);

/// Learns from run->para's micrographs where that is yet to be done, tells what, and writes the file.
void learn_for_session(Run* run);
