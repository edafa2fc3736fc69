// The host as a device: what the program uses of the CUDA runtime and cuFFT, with ordinary memory, loops over all
// cores and FFTW. One device answers, number 0 of compute capability 1.0.
#pragma once

#include <cstddef>

struct float2 {
  float x, y;
};

struct int2 {
  int x, y;
};

enum cudaError_t {
  cudaSuccess = 0,
  cudaErrorInvalidValue = 1,
  cudaErrorMemoryAllocation = 2,
  cudaErrorInitializationError = 3,
  cudaErrorDevicesUnavailable = 46,
  cudaErrorNoDevice = 100,
  cudaErrorInvalidDevice = 101,
  cudaErrorLaunchFailure = 719
};

enum cudaMemcpyKind { cudaMemcpyHostToDevice = 1, cudaMemcpyDeviceToHost = 2 };

struct cudaDeviceProp {
  char name[256];
  size_t totalGlobalMem;
  int major;
  int minor;
};

cudaError_t cudaGetDeviceCount(int* count);
cudaError_t cudaGetDeviceProperties(cudaDeviceProp* properties, int device);
cudaError_t cudaSetDevice(int device);

/// Allocates bytes of device memory, aligned to 64 bytes and not cleared; the caller frees it with cudaFree.
cudaError_t cudaMalloc(void** pointer, size_t bytes);
cudaError_t cudaFree(void* pointer);

/// Allocates host memory for transfers; the caller frees it with cudaFreeHost.
cudaError_t cudaMallocHost(void** pointer, size_t bytes);
cudaError_t cudaFreeHost(void* pointer);

cudaError_t cudaMemcpy(void* to, const void* from, size_t bytes, cudaMemcpyKind kind);

/// Waits for the device; returns the first pending error. On the host every launch is over when it returns.
cudaError_t cudaThreadSynchronize();

/// The error of the last call that failed, which the first of the two forgets. A launch asks for it, and so hears of an
/// earlier failure that nobody took.
cudaError_t cudaGetLastError();
cudaError_t cudaPeekAtLastError();
const char* cudaGetErrorString(cudaError_t error);

template <class T>
cudaError_t cudaMalloc(T** pointer, size_t bytes) {
  return cudaMalloc(reinterpret_cast<void**>(pointer), bytes);
}
template <class T>
cudaError_t cudaMallocHost(T** pointer, size_t bytes) {
  return cudaMallocHost(reinterpret_cast<void**>(pointer), bytes);
}

enum cufftResult_t {
  CUFFT_SUCCESS = 0,
  CUFFT_INVALID_PLAN = 1,
  CUFFT_ALLOC_FAILED = 2,
  CUFFT_INVALID_TYPE = 3,
  CUFFT_INVALID_VALUE = 4,
  CUFFT_INTERNAL_ERROR = 5,
  CUFFT_EXEC_FAILED = 6,
  CUFFT_SETUP_FAILED = 7,
  CUFFT_INVALID_SIZE = 8,
  CUFFT_UNALIGNED_DATA = 9
};
using cufftResult = cufftResult_t;

enum cufftType { CUFFT_R2C = 0x2a, CUFFT_C2R = 0x2c };
using cufftReal = float;
using cufftComplex = float2;
using cufftHandle = int;

/// Plans one out-of-place 2D transform of ny rows of nx values. The plan lives until cufftDestroy.
cufftResult cufftPlan2d(cufftHandle* plan, int ny, int nx, cufftType type);

/// Plans `batch` such transforms, images one behind the other. As cufftPlanMany of cuFFT, for rank 2 and the
/// dense layout (inembed and onembed null) only.
cufftResult cufftPlanMany(cufftHandle* plan, int rank, int* n, int* inembed, int istride, int idist, int* onembed,
                          int ostride, int odist, cufftType type, int batch);

/// Unnormalised transforms. The inverse may destroy its input. Buffers are to be aligned as cudaMalloc gives them.
cufftResult cufftExecR2C(cufftHandle plan, float* in, float2* out);
cufftResult cufftExecC2R(cufftHandle plan, float2* in, float* out);
cufftResult cufftDestroy(cufftHandle plan);

// --- How a test makes the host device differ from a healthy one ---

/// What the host device pretends. Counts of calls start at 1 and include every call since the process began;
/// 0 lets every call succeed.
struct HostDeviceFaults {
  int device_count = 1;            // devices 0 .. device_count - 1 exist
  int capability[8][2] = {};       // compute capability of each; 0.0 stands for the healthy 1.0, one below 0 for a
                                   // device that gives no properties
  long fail_set_device_at = 0;     // the n-th and every later cudaSetDevice fails; -n: the n-th alone
  bool lost_by_fork = false;       // children of a process that has used the device can't, as with CUDA
  long killed_at = 0;              // the n-th wait after a launch ends the process by SIGKILL
  size_t memory = 0;               // bytes that cudaMalloc may give out at a time; 0: no limit
  long fail_malloc_at = 0;         // likewise cudaMalloc
  long fail_malloc_host_at = 0;    // likewise cudaMallocHost
  long fail_memcpy_at = 0;         // likewise cudaMemcpy
  long fail_launch_at = 0;         // likewise the wait after a launch
  long fail_fft_at = 0;            // the n-th and every later planning or running of a transform
  bool device_transforms = false;  // runs go a GPU's road, by the transforms above; an inverse spoils its input
};

/// The pretence in force; all healthy unless a test changes it.
HostDeviceFaults& host_device_faults();

/// Bytes that cudaMalloc has given out and cudaFree has not taken back.
size_t host_device_bytes_in_use();
