// The exported functions that need no device, linked from the internal archive so that the
// log level can be set directly.
#include <string>

#include <gtest/gtest.h>

#include "utils/logger.h"
#include "zovdx/vdx.h"

namespace {

TEST(InitDevice, SaysItIsDeprecatedOnlyAtDebugLevel) {
  vdxDeviceInfo info;
  testing::internal::CaptureStdout();
  EXPECT_EQ(vdxInitDevice(&info), VDX_STATUS_SUCCESS);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

  utils::SetLogLevel("debug");
  testing::internal::CaptureStdout();
  EXPECT_EQ(vdxInitDevice(nullptr), VDX_STATUS_SUCCESS);
  const std::string out = testing::internal::GetCapturedStdout();
  utils::SetLogLevel("info");
  const std::string expected =
      "] [vdxInitDevice] \033[33mInfo\033[0m: this api has been deprecated, there's no need to "
      "invoked this interface while using virtual gpus.\n";
  ASSERT_GE(out.size(), expected.size()) << out;
  EXPECT_EQ(out.substr(out.size() - expected.size()), expected) << out;
  EXPECT_EQ(out[0], '[') << "a debug line starts with its time stamp";
}

}  // namespace
