// Device services: choosing the device, memory with a fatal test, and the one way a device failure is reported.
#pragma once

#include "platform/device.h"

/// Ends the run with "Error TEXT at line LINE in file UNIT" on standard error and status 1.
[[noreturn]] void device_failure(const char* text, int line, const char* unit);

/// device_failure unless status is success. For launches and copies of a unit that names itself by `unit`.
#define CHECK_DEVICE(status)                                                                                         \
  do {                                                                                                               \
    const cudaError_t check_device_status = (status);                                                                \
    if (check_device_status != cudaSuccess) device_failure(cudaGetErrorString(check_device_status), __LINE__, unit); \
  } while (0)

/// The same for results of cuFFT.
#define CHECK_CUFFT(result)                                                                                            \
  do {                                                                                                                 \
    const cufftResult check_cufft_result = (result);                                                                   \
    if (check_cufft_result != CUFFT_SUCCESS) device_failure(cuFFT_GetErrorString(check_cufft_result), __LINE__, unit); \
  } while (0)

/// Makes gid the number of a usable device: itself if it is one, else the first device of the highest compute
/// capability. Returns 0, or -1 if there is none (after a warning on standard output if there is no device at all).
int check_and_set_gid(int& gid);

/// cudaMalloc of bytes into *p, which the caller frees with cudaFree. Failure ends the run with the fatal error
/// "Device memory allocation failed". Returns 0.
int safe_cudaMalloc(void** p, unsigned long bytes);

/// safe_cudaMalloc of count elements of T.
template <class T>
T* device_new(unsigned long count) {
  void* p = nullptr;
  safe_cudaMalloc(&p, count * sizeof(T));
  return static_cast<T*>(p);
}

/// Sets bytes bytes of device memory to 0. Ends the run on a device error.
void hcuda_empty(void* d, unsigned long bytes);

/// Blocking copy of bytes bytes from host to device; gives the result of cudaMemcpy.
int memcpy_H2D(void* dst, const void* src, unsigned long bytes);

/// Blocking copy of bytes bytes from device to host; gives the result of cudaMemcpy.
int memcpy_D2H(void* dst, const void* src, unsigned long bytes);

/// The text for a cuFFT result.
const char* cuFFT_GetErrorString(cufftResult_t e);
