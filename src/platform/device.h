// The device layer: the CUDA runtime and cuFFT under their own names, on a CUDA device or on the host.
// A CUDA build takes both from the toolkit; a host build gives the names their host meaning (host_cuda.h).
#pragma once

#ifdef KESTRIX_CUDA

#include <cuda_runtime.h>
#include <cufft.h>

/// Marks a kernel body: a function of one element or pixel that both devices run.
#define KERNEL inline __host__ __device__

/// Whether the device is a GPU: what suits one, a host build takes otherwise.
constexpr bool kOnGpu = true;

/// Whether a run goes by the device's own transforms rather than by the host's ways (ScanWay, PadWay).
inline bool device_transforms_wanted() { return true; }

#if CUDART_VERSION >= 13000
/// Waits for the device; returns the first pending error. CUDA 13 dropped this name for the one it calls.
inline cudaError_t cudaThreadSynchronize() { return cudaDeviceSynchronize(); }
#endif

#else

#include "platform/host_cuda.h"

/// Marks a kernel body: a function of one element or pixel that both devices run.
#define KERNEL inline

/// Whether the device is a GPU: what suits one, a host build takes otherwise.
constexpr bool kOnGpu = false;

/// Whether a run goes by the device's own transforms rather than by the host's ways (ScanWay, PadWay): where a test
/// wants a GPU's road on the host.
inline bool device_transforms_wanted() { return host_device_faults().device_transforms; }

#endif
