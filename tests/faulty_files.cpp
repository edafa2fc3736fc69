// Linked into a program whose calls of rename, fsync and fclose are wrapped, makes one of them fail as the environment
// variable KESTRIX_TEST_FILE_FAULT says: "rename 3 fail" lets the third rename fail, "rename 3 kill" kills the process
// instead of it.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
int __real_rename(const char* from, const char* to);
int __real_fsync(int descriptor);
int __real_fclose(FILE* file);
}

namespace {

// Whether this call, one of the kind `call`, fails.
bool fails(const char* call, int* count) {
  const char* fault = getenv("KESTRIX_TEST_FILE_FAULT");
  char kind[16] = "", how[16] = "";
  int at = 0;
  if (!fault || sscanf(fault, "%15s %d %15s", kind, &at, how) != 3) return false;
  if (strcmp(kind, call) != 0 || ++*count != at) return false;
  if (strcmp(how, "kill") == 0) raise(SIGKILL);
  errno = EIO;
  return true;
}

}  // namespace

extern "C" {

int __wrap_rename(const char* from, const char* to) {
  static int count = 0;
  return fails("rename", &count) ? -1 : __real_rename(from, to);
}

int __wrap_fsync(int descriptor) {
  static int count = 0;
  return fails("fsync", &count) ? -1 : __real_fsync(descriptor);
}

int __wrap_fclose(FILE* file) {
  static int count = 0;
  const bool failed = fails("fclose", &count);
  const int closed = __real_fclose(file);
  return failed ? EOF : closed;
}
}
