#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "platform/host_cuda.h"

namespace {

std::atomic<long> set_device_calls{0};
std::atomic<long> malloc_calls{0};
std::atomic<long> malloc_host_calls{0};
std::atomic<long> memcpy_calls{0};
std::atomic<long> launch_calls{0};

thread_local cudaError_t last_error = cudaSuccess;

std::mutex blocks_mutex;
std::unordered_map<void*, size_t> blocks;  // what cudaMalloc has given out
size_t bytes_in_use = 0;

// What a call gives; a failure stays the last error.
cudaError_t result(cudaError_t error) {
  if (error != cudaSuccess) last_error = error;
  return error;
}

size_t memory_of_machine() {
  return static_cast<size_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<size_t>(sysconf(_SC_PAGE_SIZE));
}

// Whether the device was used before this process was forked.
bool is_lost() {
  if (!host_device_faults().lost_by_fork) return false;
  static const pid_t user = getpid();
  return getpid() != user;
}

bool fails(std::atomic<long>& calls, long fail_at) {
  const long n = ++calls;
  return fail_at > 0 ? n >= fail_at : n == -fail_at;
}

cudaError_t allocate(void** pointer, size_t bytes) {
  constexpr size_t kAlignment = 64;
  *pointer = nullptr;
  if (bytes > SIZE_MAX - kAlignment) return result(cudaErrorMemoryAllocation);
  *pointer = aligned_alloc(kAlignment, (bytes + kAlignment - 1) / kAlignment * kAlignment);
  return result(*pointer || bytes == 0 ? cudaSuccess : cudaErrorMemoryAllocation);
}

}  // namespace

HostDeviceFaults& host_device_faults() {
  static HostDeviceFaults faults;
  return faults;
}

cudaError_t cudaGetDeviceCount(int* count) {
  *count = 0;
  if (is_lost()) return result(cudaErrorInitializationError);
  *count = host_device_faults().device_count;
  return result(*count > 0 ? cudaSuccess : cudaErrorNoDevice);
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* properties, int device) {
  const HostDeviceFaults& faults = host_device_faults();
  if (is_lost()) return result(cudaErrorInitializationError);
  if (device < 0 || device >= faults.device_count) return result(cudaErrorInvalidDevice);
  const int* capability = device < 8 ? faults.capability[device] : faults.capability[0];
  if (capability[0] < 0) return result(cudaErrorInvalidDevice);
  const bool healthy = capability[0] == 0 && capability[1] == 0;
  snprintf(properties->name, sizeof properties->name, "host (%ld cores)", sysconf(_SC_NPROCESSORS_ONLN));
  properties->totalGlobalMem = faults.memory ? faults.memory : memory_of_machine();
  properties->major = healthy ? 1 : capability[0];
  properties->minor = healthy ? 0 : capability[1];
  return cudaSuccess;
}

cudaError_t cudaSetDevice(int device) {
  const HostDeviceFaults& faults = host_device_faults();
  if (is_lost()) return result(cudaErrorInitializationError);
  if (device < 0 || device >= faults.device_count) return result(cudaErrorInvalidDevice);
  return result(fails(set_device_calls, faults.fail_set_device_at) ? cudaErrorDevicesUnavailable : cudaSuccess);
}

cudaError_t cudaMalloc(void** pointer, size_t bytes) {
  if (is_lost()) return result(cudaErrorInitializationError);
  if (fails(malloc_calls, host_device_faults().fail_malloc_at)) {
    *pointer = nullptr;
    return result(cudaErrorMemoryAllocation);
  }
  *pointer = nullptr;
  const std::lock_guard<std::mutex> lock(blocks_mutex);
  const size_t memory = host_device_faults().memory;
  if (memory > 0 && (bytes > memory || bytes_in_use > memory - bytes)) return result(cudaErrorMemoryAllocation);
  const cudaError_t status = allocate(pointer, bytes);
  if (status == cudaSuccess && *pointer) {
    blocks[*pointer] = bytes;
    bytes_in_use += bytes;
  }
  return status;
}

cudaError_t cudaFree(void* pointer) {
  const std::lock_guard<std::mutex> lock(blocks_mutex);
  const auto block = blocks.find(pointer);
  if (block != blocks.end()) {
    bytes_in_use -= block->second;
    blocks.erase(block);
  }
  free(pointer);
  return cudaSuccess;
}

size_t host_device_bytes_in_use() { return bytes_in_use; }

cudaError_t cudaMallocHost(void** pointer, size_t bytes) {
  if (fails(malloc_host_calls, host_device_faults().fail_malloc_host_at)) {
    *pointer = nullptr;
    return result(cudaErrorMemoryAllocation);
  }
  return allocate(pointer, bytes);
}

cudaError_t cudaFreeHost(void* pointer) {
  free(pointer);
  return cudaSuccess;
}

cudaError_t cudaMemcpy(void* to, const void* from, size_t bytes, cudaMemcpyKind) {
  if (fails(memcpy_calls, host_device_faults().fail_memcpy_at)) return result(cudaErrorInvalidValue);
  if (bytes > 0) memcpy(to, from, bytes);  // nothing may come from or go to nowhere
  return cudaSuccess;
}

cudaError_t cudaThreadSynchronize() {
  if (is_lost()) return result(cudaErrorInitializationError);
  const HostDeviceFaults& faults = host_device_faults();
  const bool failed = fails(launch_calls, faults.fail_launch_at);
  if (launch_calls == faults.killed_at) raise(SIGKILL);
  return result(failed ? cudaErrorLaunchFailure : cudaSuccess);
}

cudaError_t cudaPeekAtLastError() { return last_error; }

cudaError_t cudaGetLastError() {
  const cudaError_t error = last_error;
  last_error = cudaSuccess;
  return error;
}

const char* cudaGetErrorString(cudaError_t error) {
  switch (error) {
    case cudaSuccess:
      return "no error";
    case cudaErrorInvalidValue:
      return "invalid argument";
    case cudaErrorMemoryAllocation:
      return "out of memory";
    case cudaErrorInitializationError:
      return "initialization error";
    case cudaErrorDevicesUnavailable:
      return "CUDA-capable device(s) is/are busy or unavailable";
    case cudaErrorNoDevice:
      return "no CUDA-capable device is detected";
    case cudaErrorInvalidDevice:
      return "invalid device ordinal";
    case cudaErrorLaunchFailure:
      return "unspecified launch failure";
  }
  return "unknown error";
}
