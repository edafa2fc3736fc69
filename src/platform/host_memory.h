// Host memory with a fatal test.
#pragma once

#include <cstddef>

/// malloc of count * size bytes, for free. A failure, or a product that no size can hold, ends the run with a fatal
/// error. Never null, even for no bytes.
void* host_malloc(size_t count, size_t size);

/// Gives memory that was freed back to the system, as far as the C library can: for when much of it was freed and little of
/// that will be wanted again soon.
void give_freed_memory_back();

/// host_malloc of count elements of T, not initialised.
template <class T>
T* host_new(size_t count) {
  return static_cast<T*>(host_malloc(count, sizeof(T)));
}
