#include "mpi/ranks.h"

#include <mpi.h>
#include <omp.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/device.h"
#include "platform/failure.h"

namespace {

constexpr char unit[] = "ranks";

// --- The launcher ---

// What launchers tell their processes: how many they are, and which one this is.
struct LauncherWords {
  const char* launcher;
  const char* size;
  const char* rank;
};

// The nearest first: mpirun of either library may run within a job of Slurm.
constexpr LauncherWords kLaunchers[] = {
    {"OpenMPI's mpirun", "OMPI_COMM_WORLD_SIZE", "OMPI_COMM_WORLD_RANK"},
    {"MPICH's mpiexec, or srun --mpi=pmi2,", "PMI_SIZE", "PMI_RANK"},
    {"srun", "SLURM_NTASKS", "SLURM_PROCID"},
};

int number_in(const char* variable) {
  const char* value = getenv(variable);
  return value ? atoi(value) : 0;
}

const LauncherWords* launcher_of_process() {
  for (const LauncherWords& words : kLaunchers)
    if (getenv(words.size)) return &words;
  return nullptr;
}

std::string library_name() {
  char text[MPI_MAX_LIBRARY_VERSION_STRING];
  int length = 0;
  MPI_Get_library_version(text, &length);
  std::string name(text, std::min(static_cast<size_t>(length), strcspn(text, ",\n")));
  std::replace(name.begin(), name.end(), '\t', ' ');
  return name;
}

// All processes of a wrong launcher are rank 0 of their own run: one speaks, and the others leave with 0, since the first to
// leave with another status ends the rest.
void check_launcher(int ranks) {
  const LauncherWords* words = launcher_of_process();
  if (ranks > 1 || !words || number_in(words->size) <= 1) return;
  if (!speaks_for_launcher()) {
    MPI_Finalize();
    exit(EXIT_SUCCESS);
  }
  KESTRIX_FATAL(
      "%s has started %d processes that don't know of each other (%s=%d), and each would pick the whole list; this "
      "program is built with %s: start it with that library's mpirun, or with srun --mpi=pmix (OpenMPI) or --mpi=pmi2 "
      "(MPICH)",
      words->launcher, number_in(words->size), words->size, number_in(words->size), library_name().c_str());
}

// --- Threads ---

cpu_set_t cores_of(pid_t process) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  sched_getaffinity(process, sizeof cores, &cores);
  return cores;
}

MPI_Comm machine = MPI_COMM_NULL;  // the ranks of this machine

// Where ranks may use the same cores, each has its share of them.
int share_of_cores(const std::vector<cpu_set_t>& of_ranks, const cpu_set_t& own) {
  double share = 0;
  for (int core = 0; core < CPU_SETSIZE; core++)
    if (CPU_ISSET(core, &own)) {
      const auto uses = [core](const cpu_set_t& cores) { return CPU_ISSET(core, &cores); };
      share += 1.0 / static_cast<double>(std::count_if(of_ranks.begin(), of_ranks.end(), uses));
    }
  return std::max(1, static_cast<int>(std::floor(share + 1e-6)));
}

// mpirun ties each of two ranks to a core, on a machine of many.
void note_idle_cores(const std::vector<cpu_set_t>& of_ranks) {
  if (getenv("SLURM_JOB_ID")) return;
  cpu_set_t used = of_ranks[0];
  for (const cpu_set_t& cores : of_ranks) CPU_OR(&used, &used, &cores);
  const cpu_set_t launchers = cores_of(getppid());
  if (2 * CPU_COUNT(&used) > CPU_COUNT(&launchers)) return;
  safety_note(nullptr,
              "the launcher has tied the ranks of this machine to %d of its %d cores; mpirun --bind-to none lets them "
              "share all.",
              CPU_COUNT(&used), CPU_COUNT(&launchers));
}

}  // namespace

bool speaks_for_launcher() {
  const LauncherWords* words = launcher_of_process();
  return !words || number_in(words->rank) == 0;
}

RankPlace join_ranks(int* argc, char*** argv) {
  int granted = 0;
  MPI_Init_thread(argc, argv, MPI_THREAD_SERIALIZED, &granted);
  RankPlace place;
  MPI_Comm_rank(MPI_COMM_WORLD, &place.rank);
  MPI_Comm_size(MPI_COMM_WORLD, &place.ranks);
  check_launcher(place.ranks);
  if (granted < MPI_THREAD_SERIALIZED)
    KESTRIX_FATAL("%s grants no threads (MPI_THREAD_SERIALIZED), which the sharing out needs", library_name().c_str());
  MPI_Comm_split_type(MPI_COMM_WORLD, MPI_COMM_TYPE_SHARED, place.rank, MPI_INFO_NULL, &machine);
  MPI_Comm_rank(machine, &place.local);
  MPI_Comm_size(machine, &place.locals);
  char host[MPI_MAX_PROCESSOR_NAME];
  int length = 0;
  MPI_Get_processor_name(host, &length);
  place.name = "rank " + std::to_string(place.rank) + " on " + std::string(host, static_cast<size_t>(length));
  return place;
}

void take_threads(const RankPlace& place) {
  const cpu_set_t own = cores_of(0);
  std::vector<cpu_set_t> of_ranks(static_cast<size_t>(place.locals));
  MPI_Allgather(&own, sizeof own, MPI_BYTE, of_ranks.data(), sizeof own, MPI_BYTE, machine);
  if (getenv("OMP_NUM_THREADS")) return;
  const int of_slurm = number_in("SLURM_CPUS_PER_TASK");
  omp_set_num_threads(of_slurm > 0 ? of_slurm : share_of_cores(of_ranks, own));
  if (place.rank == 0 && !kOnGpu) note_idle_cores(of_ranks);
}

int device_of(const RankPlace& place) {
  int devices = 0;
  return cudaGetDeviceCount(&devices) == cudaSuccess && devices > 1 ? place.local % devices : -1;
}

std::vector<std::string> share_texts(const RankPlace& place, const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += text + '\0';
  unsigned long long length = all.size();
  MPI_Bcast(&length, 1, MPI_UNSIGNED_LONG_LONG, 0, MPI_COMM_WORLD);
  if (place.rank == 0 && length >= 1ULL << 31) abort_ranks(EXIT_FAILURE);
  all.resize(length);
  MPI_Bcast(&all[0], static_cast<int>(length), MPI_BYTE, 0, MPI_COMM_WORLD);
  if (place.rank == 0) return texts;
  std::vector<std::string> received;
  for (size_t at = 0; at < all.size(); at += received.back().size() + 1) received.emplace_back(all.c_str() + at);
  return received;
}

void leave_ranks() {
  MPI_Comm_free(&machine);
  MPI_Finalize();
}

void abort_ranks(int status) {
  MPI_Abort(MPI_COMM_WORLD, status);
  _exit(status);
}
