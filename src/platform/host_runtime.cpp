#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/host_cuda.h"

namespace {

std::atomic<long> malloc_calls{0};
std::atomic<long> malloc_host_calls{0};
std::atomic<long> memcpy_calls{0};
std::atomic<long> launch_calls{0};

bool fails(std::atomic<long>& calls, long fail_at) {
  const long n = ++calls;
  return fail_at > 0 ? n >= fail_at : n == -fail_at;
}

cudaError_t allocate(void** pointer, size_t bytes) {
  constexpr size_t kAlignment = 64;
  *pointer = nullptr;
  if (bytes > SIZE_MAX - kAlignment) return cudaErrorMemoryAllocation;
  *pointer = aligned_alloc(kAlignment, (bytes + kAlignment - 1) / kAlignment * kAlignment);
  return *pointer || bytes == 0 ? cudaSuccess : cudaErrorMemoryAllocation;
}

}  // namespace

HostDeviceFaults& host_device_faults() {
  static HostDeviceFaults faults;
  return faults;
}

cudaError_t cudaGetDeviceCount(int* count) {
  *count = host_device_faults().device_count;
  return *count > 0 ? cudaSuccess : cudaErrorNoDevice;
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* properties, int device) {
  const HostDeviceFaults& faults = host_device_faults();
  if (device < 0 || device >= faults.device_count) return cudaErrorInvalidDevice;
  const int* capability = device < 8 ? faults.capability[device] : faults.capability[0];
  if (capability[0] < 0) return cudaErrorInvalidDevice;
  const bool healthy = capability[0] == 0 && capability[1] == 0;
  snprintf(properties->name, sizeof properties->name, "host (%ld cores)", sysconf(_SC_NPROCESSORS_ONLN));
  properties->totalGlobalMem =
      static_cast<size_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<size_t>(sysconf(_SC_PAGE_SIZE));
  properties->major = healthy ? 1 : capability[0];
  properties->minor = healthy ? 0 : capability[1];
  return cudaSuccess;
}

cudaError_t cudaSetDevice(int device) {
  return device >= 0 && device < host_device_faults().device_count ? cudaSuccess : cudaErrorInvalidDevice;
}

cudaError_t cudaMalloc(void** pointer, size_t bytes) {
  if (fails(malloc_calls, host_device_faults().fail_malloc_at)) {
    *pointer = nullptr;
    return cudaErrorMemoryAllocation;
  }
  return allocate(pointer, bytes);
}

cudaError_t cudaFree(void* pointer) {
  free(pointer);
  return cudaSuccess;
}

cudaError_t cudaMallocHost(void** pointer, size_t bytes) {
  if (fails(malloc_host_calls, host_device_faults().fail_malloc_host_at)) {
    *pointer = nullptr;
    return cudaErrorMemoryAllocation;
  }
  return allocate(pointer, bytes);
}

cudaError_t cudaFreeHost(void* pointer) { return cudaFree(pointer); }

cudaError_t cudaMemcpy(void* to, const void* from, size_t bytes, cudaMemcpyKind) {
  if (fails(memcpy_calls, host_device_faults().fail_memcpy_at)) return cudaErrorInvalidValue;
  if (bytes > 0) memcpy(to, from, bytes);  // nothing may come from or go to nowhere
  return cudaSuccess;
}

cudaError_t cudaThreadSynchronize() {
  return fails(launch_calls, host_device_faults().fail_launch_at) ? cudaErrorLaunchFailure : cudaSuccess;
}

const char* cudaGetErrorString(cudaError_t error) {
  switch (error) {
    case cudaSuccess:
      return "no error";
    case cudaErrorInvalidValue:
      return "invalid argument";
    case cudaErrorMemoryAllocation:
      return "out of memory";
    case cudaErrorNoDevice:
      return "no CUDA-capable device is detected";
    case cudaErrorInvalidDevice:
      return "invalid device ordinal";
    case cudaErrorLaunchFailure:
      return "unspecified launch failure";
  }
  return "unknown error";
}
