// Tests that run for each way of transforming the mirrored image that this build has.
#pragma once

#include <string>
#include <vector>

#include "conditioning/conditioning.h"
#include "test_numeric.h"

inline const std::vector<PadWay> kPadWays =
    kOnGpu ? std::vector<PadWay>{kPaddedTransforms} : std::vector<PadWay>{kPaddedTransforms, kHostCosines};

struct PadWayTest : testing::TestWithParam<PadWay> {
  void SetUp() override { REQUIRE_DEVICE(); }
};

inline std::string pad_way_name(const testing::TestParamInfo<PadWay>& way) {
  return way.param == kHostCosines ? "HostCosines" : "PaddedTransforms";
}
