// Creating virtual devices on a machine whose /etc is read-only, through the shipped library.
#include <string>

#include <gtest/gtest.h>

#include "tests/virtual/e2e_support.h"
#include "zovdx/vdx.h"

namespace {

TEST(WriteFailure, AReadOnlyConfigurationStore) {
  e2e::ShowDebugLines();
  int units[] = {4};
  int mib[] = {100};
  const std::string out = e2e::Stdout(
      [&] { EXPECT_EQ(vdxCreateVDevices(0, 1, units, mib), VDX_STATUS_ERROR); });
  EXPECT_TRUE(e2e::Has(out, "create directory /etc/vdev failed.")) << out;
  size_t cus = 0, bytes = 0;
  ASSERT_EQ(vdxGetDeviceRemainingInfo(0, &cus, &bytes), VDX_STATUS_SUCCESS);
  EXPECT_EQ(cus, 60u);
  EXPECT_EQ(bytes, 32768ull << 20);
}

}  // namespace
