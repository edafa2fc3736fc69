#include "session/streams.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/failure.h"

namespace {

constexpr char unit[] = "streams";

Descriptor copy_of(int descriptor) { return Descriptor(fcntl(descriptor, F_DUPFD_CLOEXEC, 3)); }

}  // namespace

Descriptor::~Descriptor() {
  if (number_ >= 0) close(number_);
}

Descriptor memory_file(const char* name) {
  const int file = memfd_create(name, MFD_CLOEXEC);
  if (file < 0 || fcntl(file, F_SETFL, O_APPEND) != 0)
    KESTRIX_FATAL("there is no file in memory for what is printed: %s", strerror(errno));
  return Descriptor(file);
}

std::string text_in(const Descriptor& file) {
  std::string text(static_cast<size_t>(std::max<off_t>(0, lseek(file.number(), 0, SEEK_END))), '\0');
  const ssize_t bytes = pread(file.number(), &text[0], text.size(), 0);
  text.resize(static_cast<size_t>(std::max<ssize_t>(0, bytes)));
  return text;
}

void print(const Printed& printed) {
  fwrite(printed.out.data(), 1, printed.out.size(), stdout);
  fflush(stdout);
  if (!printed.err.empty()) fputs(text_before_notes(), stderr);
  fwrite(printed.err.data(), 1, printed.err.size(), stderr);
}

CapturedStreams::CapturedStreams()
    : out_(memory_file("stdout")),
      err_(memory_file("stderr")),
      real_out_(copy_of(STDOUT_FILENO)),
      real_err_(copy_of(STDERR_FILENO)) {}

void CapturedStreams::begin() {
  fflush(stdout);
  dup2(out_.number(), STDOUT_FILENO);
  dup2(err_.number(), STDERR_FILENO);
  open_ = true;
}

Printed CapturedStreams::end() {
  fflush(stdout);
  Printed printed{text_in(out_), text_in(err_)};
  forget();
  dup2(real_out_.number(), STDOUT_FILENO);
  dup2(real_err_.number(), STDERR_FILENO);
  open_ = false;
  return printed;
}

void CapturedStreams::forget() {
  fflush(stdout);
  if (ftruncate(out_.number(), 0) != 0 || ftruncate(err_.number(), 0) != 0)
    KESTRIX_FATAL("what was printed can't be forgotten: %s", strerror(errno));
}
