#include "cuda_general.h"

#include <cstdio>
#include <cstdlib>

#include "platform/failure.h"
#include "platform/launch.h"

namespace {

constexpr char unit[] = "cuda_general";

KERNEL void cuda_empty(unsigned long i, unsigned char* d) { d[i] = 0; }

// Whether the device of that number, of count there are, gives its properties.
bool is_usable(int device, int count, cudaDeviceProp* properties) {
  if (device < 0 || device >= count) return false;
  if (cudaGetDeviceProperties(properties, device) == cudaSuccess) return true;
  cudaGetLastError();  // has been taken: the first launch on another device is not to hear of it
  return false;
}

}  // namespace

void device_failure(const char* text, int line, const char* unit_name) {
  fflush(stdout);
  fprintf(stderr, "Error %s at line %d in file %s\n", text, line, unit_name);
  end_run(EXIT_FAILURE);
}

int check_and_set_gid(int& gid) {
  int count = 0;
  if (cudaGetDeviceCount(&count) != cudaSuccess || count < 1) {
    printf("Warning: no GPU device found!\n");
    return -1;
  }
  cudaDeviceProp properties;
  if (is_usable(gid, count, &properties)) return 0;
  int best_major = 0;
  int best_minor = 0;
  for (int device = 0; device < count; device++) {
    if (!is_usable(device, count, &properties)) continue;
    const bool better =
        properties.major > best_major || (properties.major == best_major && properties.minor > best_minor);
    if (!better) continue;
    best_major = properties.major;
    best_minor = properties.minor;
    gid = device;
  }
  return is_usable(gid, count, &properties) ? 0 : -1;
}

int safe_cudaMalloc(void** p, unsigned long bytes) {
  if (cudaMalloc(p, bytes) != cudaSuccess) KESTRIX_FATAL("Device memory allocation failed");
  return 0;
}

void hcuda_empty(void* d, unsigned long bytes) {
  CHECK_DEVICE(launch_1d<cuda_empty>(bytes, static_cast<unsigned char*>(d)));
}

int memcpy_H2D(void* dst, const void* src, unsigned long bytes) {
  return cudaMemcpy(dst, src, bytes, cudaMemcpyHostToDevice);
}

int memcpy_D2H(void* dst, const void* src, unsigned long bytes) {
  return cudaMemcpy(dst, src, bytes, cudaMemcpyDeviceToHost);
}

const char* cuFFT_GetErrorString(cufftResult_t e) {
  static const char* const texts[] = {
      "CUFFT_SUCCESS, cuFFT operation was successful",
      "CUFFT_INVALID_PLAN, cuFFT was passed an invalid plan handle",
      "CUFFT_ALLOC_FAILED, cuFFT failed to allocate GPU or CPU memory",
      "CUFFT_INVALID_TYPE",
      "CUFFT_INVALID_VALUE, An invalid pointer or parameter has been specified",
      "CUFFT_INTERNAL_ERROR, Driver or internal cuFFT library error",
      "CUFFT_EXEC_FAILED, Failed to execute an FFT on the GPU",
      "CUFFT_SETUP_FAILED, The cuFFT library failed to initialize",
      "CUFFT_INVALID_SIZE, User specified an invalid transform size",
      "CUFFT_UNALIGNED_DATA",
      "CUFFT_INCOMPLETE_PARAMETER_LIST,  Missing parameters in call",
      "CUFFT_INVALID_DEVICE, Execution of a plan was on different GPU than plan creation",
      "CUFFT_PARSE_ERROR,  Internal plan database error",
      "CUFFT_NO_WORKSPACE, No workspace has been provided prior to plan execution",
      "CUFFT_NOT_IMPLEMENTED, Function does not implement functionality for parameters given.",
  };
  const int code = static_cast<int>(e);
  return code >= 0 && code < static_cast<int>(sizeof texts / sizeof texts[0]) ? texts[code] : "Unkown error";
}
