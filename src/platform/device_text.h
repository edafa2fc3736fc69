// What the program computes on.
#pragma once

#include <string>

/// The kind of device of this build and the version of what transforms there: "host, FFTW 3.3.10" or "GPU, CUDA 13.0".
std::string device_text();
