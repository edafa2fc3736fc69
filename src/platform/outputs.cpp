#include "platform/outputs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "platform/failure.h"

namespace {

constexpr char unit[] = "outputs";

// More outputs than one micrograph can have.
constexpr int kMostOutputs = 32;

struct Output {
  char name[PATH_MAX];
  char temporary[PATH_MAX];
  FILE* file;  // null once it is closed
};

// While it lives signals that end a run wait, so that what belongs together is published together.
class SignalsHeld {
 public:
  SignalsHeld() {
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&ending, signal);
    pthread_sigmask(SIG_BLOCK, &ending, &before_);
  }
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;
  ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

Output outputs[kMostOutputs];
volatile int n_outputs = 0;
bool holding = false;

[[noreturn]] void refuse_output(const char* name, const char* function, const char* unit_name, int line) {
  printf("Cannot write to file %s. Permission denied or no space left!\n", name);
  fatal_error(function, unit_name, line, "open file failed.");
}

// What stands under a name may be an earlier file to be replaced, and nothing else.
bool can_replace(const char* name) {
  struct stat earlier {};
  if (stat(name, &earlier) != 0) return errno == ENOENT;
  return S_ISREG(earlier.st_mode) && access(name, W_OK) == 0;
}

// The end of a name from its last dot on: readers of lists go by it.
const char* extension_of(const char* name) {
  const char* dot = strrchr(name, '.');
  return dot && !strchr(dot, '/') && strlen(dot) <= 5 ? dot : "";
}

// ".kx_XXXXXX" with the extension, in the folder of `name`: shorter than any candidate list's name, so that it is never
// too long where that isn't. Returns false where it doesn't fit all the same.
bool set_temporary_name(char* temporary, const char* name) {
  const char* slash = strrchr(name, '/');
  const int folder = slash ? static_cast<int>(slash - name) + 1 : 0;
  return snprintf(temporary, PATH_MAX, "%.*s.kx_XXXXXX%s", folder, name, extension_of(name)) < PATH_MAX;
}

// Creates the temporary file with the rights that fopen would give.
FILE* create_temporary(char* temporary, const char* name) {
  const int descriptor = mkstemps(temporary, static_cast<int>(strlen(extension_of(name))));
  if (descriptor < 0) return nullptr;
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(descriptor, 0666 & ~mask);
  return fdopen(descriptor, "w+");
}

Output* output_of(const FILE* file) {
  for (int i = 0; i < n_outputs; i++)
    if (outputs[i].file == file) return &outputs[i];
  return nullptr;
}

void forget(Output* output) {
  *output = outputs[n_outputs - 1];
  n_outputs = n_outputs - 1;
}

// On the disk, so that not even a power cut leaves an empty list under a final name.
void bring_to_disk(const Output& output) {
  const int descriptor = open(output.temporary, O_RDONLY | O_CLOEXEC);
  const bool there = descriptor >= 0 && fsync(descriptor) == 0;
  const int cause = errno;
  if (descriptor >= 0) close(descriptor);
  if (!there) KESTRIX_FATAL("%s can't be brought to the disk: %s", output.name, strerror(cause));
}

void publish(const Output& output) {
  if (rename(output.temporary, output.name) != 0)
    KESTRIX_FATAL("%s can't be put in place: %s", output.name, strerror(errno));
}

bool is_among(const char* name, const char* const* names, int n) {
  for (int i = 0; i < n; i++)
    if (strcmp(name, names[i]) == 0) return true;
  return false;
}

void publish_all_but(const char* const* last, int n_last) {
  for (int i = 0; i < n_outputs; i++)
    if (!is_among(outputs[i].name, last, n_last)) publish(outputs[i]);
}

void publish_last(const char* const* last, int n_last) {
  for (int k = 0; k < n_last; k++)
    for (int i = 0; i < n_outputs; i++)
      if (strcmp(outputs[i].name, last[k]) == 0) publish(outputs[i]);
}

void set_mark_name(char* mark, const char* name) { snprintf(mark, PATH_MAX, "%.*s~", PATH_MAX - 2, name); }

void set_mark(const char* mark, const char* name) {
  const int descriptor =
      open(mark, O_CREAT | O_WRONLY | O_NONBLOCK | O_CLOEXEC, 0666);  // doesn't wait for a pipe's reader
  if (descriptor < 0 || close(descriptor) != 0) refuse_output(name, "outputs_publish", unit, __LINE__);
}

}  // namespace

FILE* output_open(const char* name, const char* function, const char* unit_name, int line) {
  if (n_outputs == kMostOutputs) KESTRIX_FATAL("more than %d outputs at a time", kMostOutputs);
  Output& output = outputs[n_outputs];
  const bool fits = strlen(name) < PATH_MAX && set_temporary_name(output.temporary, name);
  if (!fits || !can_replace(name)) refuse_output(name, function, unit_name, line);
  strcpy(output.name, name);
  n_outputs = n_outputs + 1;  // before there is a file that a signal must remove
  output.file = create_temporary(output.temporary, name);
  if (!output.file) refuse_output(name, function, unit_name, line);
  return output.file;
}

void output_close(FILE* file, const char* function, const char* unit_name, int line) {
  Output* output = output_of(file);
  output->file = nullptr;
  close_written(file, output->name, function, unit_name, line);
  if (holding) return;
  const SignalsHeld held;
  bring_to_disk(*output);
  publish(*output);
  forget(output);
}

const char* output_at_hand(const char* name) {
  for (int i = 0; i < n_outputs; i++)
    if (strcmp(outputs[i].name, name) == 0) return outputs[i].temporary;
  return name;
}

void outputs_hold() { holding = true; }

void outputs_publish(const char* const* last, int n_last) {
  char mark[PATH_MAX];
  set_mark_name(mark, last[0]);
  for (int i = 0; i < n_outputs; i++)
    if (is_among(outputs[i].name, last, n_last)) bring_to_disk(outputs[i]);
  const SignalsHeld held;
  set_mark(mark, last[0]);
  publish_all_but(last, n_last);
  publish_last(last, n_last);
  unlink(mark);
  n_outputs = 0;
  holding = false;
}

bool output_is_half_published(const char* name) {
  char mark[PATH_MAX];
  set_mark_name(mark, name);
  return access(mark, F_OK) == 0;
}

void outputs_discard() {
  for (int i = 0; i < n_outputs; i++) unlink(outputs[i].temporary);
  n_outputs = 0;
  holding = false;
}
