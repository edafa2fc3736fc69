// A whole session of micrographs on one device, in this process.
#pragma once

/// How a session ended.
struct SessionEnd {
  int finished;  // micrographs that have their lists; -1 where they were only looked through
  int status;    // of the process: 3 where any failed, or where --check has found problems
};

/// Picks the micrographs of a command line, one after the other, as its options ask for: those of the list, or those that
/// appear while it runs. Ends the run on what can't work and, unless it is to keep going, on the first micrograph that
/// can't be picked.
SessionEnd pick_session(int argc, char** argv);
