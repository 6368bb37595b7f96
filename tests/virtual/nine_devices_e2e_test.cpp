// Virtual device ids run out before the devices do: on a machine with nine accelerators,
// eight of them hold all 32 ids, through the shipped library.
#include <string>

#include <gtest/gtest.h>

#include "tests/virtual/e2e_support.h"
#include "zovdx/vdx.h"

namespace {

TEST(Create, ShortageOfIds) {
  e2e::ShowDebugLines();
  int count = 0;
  ASSERT_EQ(vdxGetDeviceCount(&count), VDX_STATUS_SUCCESS);
  ASSERT_EQ(count, 9);
  for (int device = 0; device < 8; ++device) {
    ASSERT_EQ(vdxCreateVDevices(device, 4, nullptr, nullptr), VDX_STATUS_SUCCESS) << device;
  }
  EXPECT_TRUE(e2e::Has(e2e::ReadAll("/etc/vdev/vdev31.conf"), "vdev_id: 31\n"));
  const std::string out = e2e::Stdout(
      [] { EXPECT_EQ(vdxCreateVDevices(8, 1, nullptr, nullptr), VDX_STATUS_OUT_OF_RESOURCES); });
  EXPECT_TRUE(e2e::Has(out, "allocate vdev id failed.")) << out;
  size_t cus = 0, bytes = 0;
  ASSERT_EQ(vdxGetDeviceRemainingInfo(8, &cus, &bytes), VDX_STATUS_SUCCESS);
  EXPECT_EQ(cus, 16u) << "nothing was taken from the ninth";
}

}  // namespace
