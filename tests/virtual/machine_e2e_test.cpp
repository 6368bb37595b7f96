// A start-up that fails on the machine itself, through the shipped library: built once per
// machine description (ZOVDX_MACHINE_STATUS is the status that machine must give).
#include <string>

#include <gtest/gtest.h>

#include "tests/virtual/e2e_support.h"
#include "zovdx/vdx.h"

namespace {

TEST(StartupFailure, OnThisMachineEveryGatedCallFails) {
  e2e::ShowDebugLines();
  const vdxStatus expected = static_cast<vdxStatus>(ZOVDX_MACHINE_STATUS);
  const std::string out = e2e::Stdout([expected] {
    int count = -7;
    EXPECT_EQ(vdxGetMaxVDeviceCount(&count), expected);
    EXPECT_EQ(count, -7);
  });
  EXPECT_TRUE(e2e::Has(out, ZOVDX_MACHINE_MESSAGE)) << out;
  EXPECT_EQ(vdxSetLogLevel("info"), expected);
  EXPECT_EQ(vdxGetMaxVDeviceCount(nullptr), expected);
  bool encrypted = true;
  EXPECT_EQ(vdxGetEncryptionVMStatus(&encrypted), VDX_STATUS_SUCCESS);
  EXPECT_FALSE(encrypted);
}

}  // namespace
