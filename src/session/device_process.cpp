#include "session/device_process.h"

#include <fcntl.h>
#include <omp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/failure.h"
#include "session/begin_run.h"
#include "session/micrograph_list.h"

namespace {

constexpr char unit[] = "devices";

[[noreturn]] void fail_to_start(const char* what) {
  KESTRIX_FATAL("a process for a device can't be started: %s: %s", what, strerror(errno));
}

// --- In the process ---

void write_all(int file, const void* data, size_t bytes) {
  const char* from = static_cast<const char*>(data);
  while (bytes > 0) {
    const ssize_t written = write(file, from, bytes);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) _exit(EXIT_FAILURE);  // nobody is left to tell
    from += written;
    bytes -= static_cast<size_t>(written);
  }
}

void tell(const DeviceProcess& process, int notes, NoteKind kind, int micrograph, const Run& run) {
  Note note{kind, micrograph, run.para.n_files, run.tally, 0, 0};
  if (kind == kBegun) return write_all(notes, &note, sizeof note);
  fflush(stdout);
  const std::string out = text_in(process.out), err = text_in(process.err);
  note.out = out.size();
  note.err = err.size();
  write_all(notes, &note, sizeof note);
  write_all(notes, out.data(), out.size());
  write_all(notes, err.data(), err.size());
  if (ftruncate(process.out.number(), 0) != 0 || ftruncate(process.err.number(), 0) != 0) _exit(EXIT_FAILURE);
}

// The cores, unless the user has said how many, are shared out.
void take_share_of_cores(int processes) {
  if (!getenv("OMP_NUM_THREADS")) omp_set_num_threads(std::max(1, omp_get_num_procs() / processes));
}

void pick_shared(Run* run, const DeviceProcess& process, int notes, Counter* next) {
  const std::vector<std::vector<int>> groups = groups_by_outputs(run->para.files, run->para.n_files, &run->para);
  for (int g = (*next)++; g < static_cast<int>(groups.size()); g = (*next)++) {
    for (const int i : groups[static_cast<size_t>(g)]) {
      tell(process, notes, kBegun, i, *run);
      pick_micrograph(run, run->para.files[i]);
      tell(process, notes, kFinished, i, *run);
    }
  }
}

[[noreturn]] void live(const DeviceWork& work, const DeviceProcess& process, int notes, int go, Counter* next) {
  dup2(process.out.number(), STDOUT_FILENO);
  dup2(process.err.number(), STDERR_FILENO);
  take_share_of_cores(work.processes);
  std::string number = std::to_string(process.device);
  work.argv[work.value_at] = &number[0];
  Run run{};
  begin_run(work.argc, work.argv, &run);
  tell(process, notes, kReady, 0, run);
  char word = 0;
  if (read(go, &word, 1) == 1) pick_shared(&run, process, notes, next);
  free_run(&run);
  end_run(EXIT_SUCCESS);
}

}  // namespace

Pipe new_pipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) fail_to_start("pipe");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

DeviceProcess start_device_process(const DeviceWork& work, int device, int go, Counter* next) {
  Pipe notes = new_pipe();
  DeviceProcess process{device, 0, std::move(notes.from), memory_file("stdout"), memory_file("stderr")};
  fflush(nullptr);
  const pid_t parent = getpid();
  process.pid = fork();
  if (process.pid < 0) fail_to_start("fork");
  if (process.pid > 0) return process;
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(EXIT_FAILURE);
  live(work, process, notes.to.number(), go, next);
}
