// Tests that need a device, on machines that may have none.
#pragma once

#include <gtest/gtest.h>

#include "platform/device.h"

/// Whether this build's device is there: always in a host build.
inline bool has_device() {
  int count = 0;
  return cudaGetDeviceCount(&count) == cudaSuccess && count > 0;
}

/// Skips a test that starts programs which need a device. One that uses the device itself needs no such line: where
/// there is none it fails and counts as skipped (test_without_gpu.cpp).
#define SKIP_WITHOUT_DEVICE() \
  if (!has_device()) GTEST_SKIP() << "no CUDA device on this machine"
