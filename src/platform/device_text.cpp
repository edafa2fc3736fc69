#include "platform/device_text.h"

#include <cstring>

#include "platform/device.h"

#ifdef KESTRIX_CUDA

std::string device_text() {
  return "GPU, CUDA " + std::to_string(CUDART_VERSION / 1000) + "." + std::to_string(CUDART_VERSION % 1000 / 10);
}

#else

#include <fftw3.h>

std::string device_text() {
  // "fftw-3.3.10-sse2-avx"
  const std::string version = fftwf_version + strlen("fftw-");
  return "host, FFTW " + version.substr(0, version.find('-'));
}

#endif
