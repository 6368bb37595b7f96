// The exported functions that need no device, linked from the internal archive so that the
// log level can be set directly.
#include <string>

#include <gtest/gtest.h>

#include "tests/utils/test_support.h"
#include "utils/logger.h"
#include "zovdx/vdx.h"

namespace {

TEST(InitDevice, SaysItIsDeprecatedOnlyAtDebugLevel) {
  vdxDeviceInfo info;
  EXPECT_EQ(testing_support::CaptureLog("info", [&] {
              EXPECT_EQ(vdxInitDevice(&info), VDX_STATUS_SUCCESS);
            }).out,
            "");
  const std::string out = testing_support::CaptureLog("debug", [] {
    EXPECT_EQ(vdxInitDevice(nullptr), VDX_STATUS_SUCCESS);
  }).out;
  const std::string expected =
      "] [vdxInitDevice] \033[33mInfo\033[0m: this api has been deprecated, there's no need to "
      "invoked this interface while using virtual gpus.\n";
  ASSERT_GE(out.size(), expected.size()) << out;
  EXPECT_EQ(out.substr(out.size() - expected.size()), expected) << out;
  EXPECT_EQ(out[0], '[') << "a debug line starts with its time stamp";
}

}  // namespace
