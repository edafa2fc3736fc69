// A session of micrographs on the ranks of an MPI run: each picks, and rank 0 prints what one process would.
#pragma once

#include "mpi/ranks.h"
#include "session/book.h"

/// At rank 0: picks the micrographs of a command line together with the other ranks, which must be in follow_session.
/// Prints, in the order of the list, what pick_session would, and writes the summary and what failed. A rank on which the
/// run must end ends it: micrographs under way are finished, the output goes on to where one process would have stopped,
/// and the process ends with the status of that rank.
SessionEnd lead_session(const RankPlace& place, int argc, char** argv);

/// At the other ranks: picks what the leader gives, until there is nothing left. Prints nothing.
void follow_session(const RankPlace& place);
