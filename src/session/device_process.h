// A process that picks micrographs on one device, and what it tells its parent.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>

#include "run/tally.h"
#include "session/streams.h"

/// What a process tells: that it is ready, that it begins a micrograph, that it has finished one.
enum NoteKind { kReady, kBegun, kFinished };

/// A note, as it goes through a pipe; `out` and `err` bytes follow: what the two streams have taken since the last note,
/// nothing where a micrograph begins.
struct Note {
  NoteKind kind;
  int micrograph;   // position in the list
  int micrographs;  // in the list
  RunTally tally;   // of the process so far
  size_t out, err;
};

/// Micrographs are given out by one count, shared among the processes of a run.
using Counter = std::atomic<int>;

/// A started process, as its parent sees it.
struct DeviceProcess {
  int device;
  pid_t pid;
  Descriptor notes;     // to read from
  Descriptor out, err;  // files that take its streams; what lies there has not been sent
};

/// What a process is to do: a command line, and which of its arguments is the device's number.
struct DeviceWork {
  int argc;
  char** argv;
  int value_at;
  int processes;  // of the run, which share the cores
};

/// Starts a process that prepares the run for a device, tells that it is ready, waits for a byte from the pipe `go`, and
/// picks micrographs until `next` has gone past the last. It dies with its parent. Ends the run if it can't be started.
DeviceProcess start_device_process(const DeviceWork& work, int device, int go, Counter* next);

struct Pipe {
  Descriptor from, to;
};

/// Ends the run if there is none to be had.
Pipe new_pipe();
