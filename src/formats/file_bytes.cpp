// The bytes of a regular file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "formats/byte_source.h"

namespace {

class FileBytes : public ByteSource {
 public:
  FileBytes(int file, long size) : file_(file), size_(size) {}
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;
  ~FileBytes() override { close(file_); }

  size_t read(long position, size_t n, void* dst) const override {
    size_t done = 0;
    while (done < n) {
      const ssize_t got = pread(file_, static_cast<char*>(dst) + done, n - done, position + static_cast<long>(done));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      done += static_cast<size_t>(got);
    }
    return done;
  }

  long held(long limit) const override { return std::min(limit, size_); }

 private:
  int file_;
  long size_;
};

}  // namespace

std::unique_ptr<ByteSource> open_file_bytes(const char* name, std::string* problem) {
  const int file = open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a pipe without a writer is no reason to wait
  struct stat status {};
  if (file < 0 || fstat(file, &status) != 0) {
    *problem = errno == ENOENT ? "isn't there" : std::string("can't be read: ") + strerror(errno);
  } else if (!S_ISREG(status.st_mode)) {
    *problem = "is no regular file";
  } else {
    return std::make_unique<FileBytes>(file, status.st_size);
  }
  if (file >= 0) close(file);
  return nullptr;
}
