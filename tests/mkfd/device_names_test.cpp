// The product data: which vendors are accepted, and the marketing name of each board.
#include <gtest/gtest.h>

#include "mkfd/device_names.h"

namespace {

TEST(DeviceNames, DefaultAndSubsystemRows) {
  struct Case {
    uint32_t device, subsystem;
    const char* name;
  };
  const Case cases[] = {
      {0x5010, 0x0000, "ZO XC-100"},      {0x5010, 0x0101, "ZO XC-100 32G"},
      {0x5020, 0x0999, "ZO XC-200"},      // an unlisted subsystem falls back to the default
      {0x7110, 0x0800, "ZO ZX-800 Pro"},  {0x7110, 0x0801, "ZO ZX-800 Pro 64G"},
      // One name for several device ids.
      {0x5110, 0x0000, "ZO XC-100L"},     {0x5210, 0x0000, "ZO XC-100L"},
  };
  for (const Case& c : cases) {
    EXPECT_STREQ(GetMarketingName(kVendorIdOwn, c.device, c.subsystem), c.name)
        << std::hex << c.device << "/" << c.subsystem;
  }
  // The other accepted vendor id reads the same table.
  EXPECT_STREQ(GetMarketingName(0x1002, 0x5020, 0x0202), "ZO XC-200 96G");
}

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
