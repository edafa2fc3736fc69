// The ranks of a run on MPI: how they were started, and what each takes of its machine.
#pragma once

#include <string>
#include <vector>

struct RankPlace {
  int rank = 0, ranks = 1;    // in the run
  int local = 0, locals = 1;  // among those of its machine
  std::string name;           // "rank 3 on node12"
};

/// Joins the run. Ends it with a fatal error where the launcher has started several processes that don't know of each
/// other, as when it is of another MPI library than this program, and where the library can't serve two threads in turn.
RankPlace join_ranks(int* argc, char*** argv);

/// Whether this process is the one of its launcher to speak, be it of this MPI library or not.
bool speaks_for_launcher();

/// Gives this rank its threads: SLURM_CPUS_PER_TASK, else its share of the cores that it and the other ranks of its machine
/// may use; what OMP_NUM_THREADS says goes before. Rank 0 says on standard error where the launcher has tied the ranks of
/// its machine to few of the cores. All ranks must call it.
void take_threads(const RankPlace& place);

/// The number of the device that this rank takes, its number on its machine modulo that of the devices there; -1 where there
/// is no choice.
int device_of(const RankPlace& place);

/// Rank 0 gives its texts, all others get them. Empty: there is nothing to do.
std::vector<std::string> share_texts(const RankPlace& place, const std::vector<std::string>& texts);

/// Leaves the run; all ranks must.
void leave_ranks();

/// Ends all ranks at once, wherever they are.
[[noreturn]] void abort_ranks(int status);
