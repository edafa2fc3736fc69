#include "fuzz/guard.h"

#include <csetjmp>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "platform/failure.h"

// The linker's --wrap sends every call of these functions to __wrap_..., and __real_... to the function itself.
extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_aligned_alloc(size_t alignment, size_t size);
void __real_free(void* block);
FILE* __real_fopen(const char* name, const char* mode);
int __real_fclose(FILE* file);
}

namespace {

// What the guarded call holds, in the order in which it took it.
struct Held {
  static constexpr int kMost = 10000;
  void* items[kMost];
  int n;
};

Held blocks, files;
bool guarding = false;
jmp_buf at_end;

[[noreturn]] void leave_call(int) { longjmp(at_end, 1); }

void* hold(Held* held, void* item) {
  if (!guarding || !item) return item;
  if (held->n == Held::kMost) abort();
  return held->items[held->n++] = item;
}

void let_go(Held* held, const void* item) {
  for (int i = held->n - 1; i >= 0; i--) {
    if (held->items[i] != item) continue;
    held->items[i] = held->items[--held->n];
    return;
  }
}

void release_all() {
  for (int i = 0; i < files.n; i++) __real_fclose(static_cast<FILE*>(files.items[i]));
  for (int i = 0; i < blocks.n; i++) __real_free(blocks.items[i]);
  files.n = blocks.n = 0;
}

}  // namespace

extern "C" {

void* __wrap_malloc(size_t size) { return hold(&blocks, __real_malloc(size)); }

void* __wrap_calloc(size_t count, size_t size) { return hold(&blocks, __real_calloc(count, size)); }

void* __wrap_aligned_alloc(size_t alignment, size_t size) {
  return hold(&blocks, __real_aligned_alloc(alignment, size));
}

void __wrap_free(void* block) {
  let_go(&blocks, block);
  __real_free(block);
}

FILE* __wrap_fopen(const char* name, const char* mode) {
  return static_cast<FILE*>(hold(&files, __real_fopen(name, mode)));
}

int __wrap_fclose(FILE* file) {
  let_go(&files, file);
  return __real_fclose(file);
}
}

bool returns_normally(void (*call)(const char*), const char* argument) {
  bool returned = false;
  set_way_out(leave_call);
  guarding = true;
  if (setjmp(at_end) == 0) {
    call(argument);
    returned = true;
  }
  guarding = false;
  set_way_out(nullptr);
  if (returned && blocks.n + files.n > 0) {
    fprintf(stderr, "%d blocks and %d files are left behind\n", blocks.n, files.n);
    abort();
  }
  release_all();
  return returned;
}
