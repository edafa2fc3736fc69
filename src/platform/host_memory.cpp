#include "platform/host_memory.h"

#include <malloc.h>

#include <cstdint>
#include <cstdlib>

#include "platform/failure.h"

namespace {
constexpr char unit[] = "host_memory";
}

void* host_malloc(size_t count, size_t size) {
  void* memory = count <= SIZE_MAX / size ? malloc(count > 0 ? count * size : 1) : nullptr;
  if (!memory) KESTRIX_FATAL("Host memory allocation failed (%zu x %zu bytes)", count, size);
  return memory;
}

void give_freed_memory_back() { malloc_trim(0); }
