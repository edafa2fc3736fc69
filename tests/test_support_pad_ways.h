// Tests that run for each way of transforming the mirrored image that this build has.
#pragma once

#include <string>

#include "conditioning.h"
#include "test_numeric.h"

#ifdef KESTRIX_CUDA
constexpr PadWay kPadWays[] = {kPaddedTransforms};
#else
constexpr PadWay kPadWays[] = {kPaddedTransforms, kHostCosines};
#endif

struct PadWayTest : testing::TestWithParam<PadWay> {
  void SetUp() override { REQUIRE_DEVICE(); }
};

inline std::string pad_way_name(const testing::TestParamInfo<PadWay>& way) {
  return way.param == kHostCosines ? "HostCosines" : "PaddedTransforms";
}
