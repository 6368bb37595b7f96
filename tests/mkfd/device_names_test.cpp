// The product data: which vendors are accepted, and that a board without a row has no name.
#include <gtest/gtest.h>

#include "mkfd/device_names.h"

namespace {

TEST(DeviceNames, UnknownBoardsHaveNoName) {
  // Supported device ids without a row, an id outside the product line, id 0.
  for (uint32_t device : {0x5310u, 0x620Au, 0x71F0u, 0x1234u, 0x0u}) {
    EXPECT_STREQ(GetMarketingName(kVendorIdOwn, device, 0), "") << std::hex << device;
  }
  // A known device id under a foreign vendor is not ours.
  for (uint32_t vendor : {0x10DEu, 0x8086u, 0x0u, 0x2E71u}) {
    EXPECT_FALSE(IsAcceptedVendor(vendor));
    EXPECT_STREQ(GetMarketingName(vendor, 0x5010, 0x0101), "") << std::hex << vendor;
  }
  EXPECT_TRUE(IsAcceptedVendor(0x2E70));
  EXPECT_TRUE(IsAcceptedVendor(0x1002));
}

}  // namespace
