// The manager's pure parts: mask arithmetic, the support check, and which file names count
// as virtual devices.
#include <string>

#include <gtest/gtest.h>

#include "mkfd/device_names.h"
#include "tests/utils/test_support.h"
#include "utils/file.h"
#include "virtual/cu_mask.h"
#include "virtual/include/dmvirtual.h"

namespace {

using testing_support::ScratchDir;

TEST(CuMask, WordsOfSixtyFourAndThirtyTwoBits) {
  cu_mask_t mask;
  for (size_t bit : {0u, 31u, 32u, 63u, 64u, 100u, 127u}) mask.set(bit);
  EXPECT_EQ(CuMaskWord64(mask, 0), 0x8000000180000001ull);
  EXPECT_EQ(CuMaskWord64(mask, 1), 0x8000001000000001ull);
  EXPECT_EQ(CuMaskWord64(mask, 2), 0u);
  EXPECT_EQ(CuMaskFromWord64(CuMaskWord64(mask, 0), 0) | CuMaskFromWord64(CuMaskWord64(mask, 1), 1),
            mask);
  EXPECT_TRUE(CuMaskFromWord64(UINT64_MAX, 2).none()) << "a third word falls off the top";
  uint32_t words[4];
  CuMaskToWords32(mask, words);
  EXPECT_EQ(words[0], 0x80000001u);
  EXPECT_EQ(words[1], 0x80000001u);
  EXPECT_EQ(words[2], 0x00000001u);
  EXPECT_EQ(words[3], 0x80000010u);
}

TEST(SupportCheck, FamiliesByMaskedDeviceId) {
  for (uint32_t device : {0x5010u, 0x5f10u, 0x5020u, 0x5120u, 0x6200u, 0x620fu, 0x7100u, 0x71f0u,
                          0x7300u, 0x73f0u}) {
    EXPECT_TRUE(IsSupportedAccelerator(0x2E70, device)) << std::hex << device;
    EXPECT_TRUE(IsSupportedAccelerator(0x1002, device)) << std::hex << device;
  }
  for (uint32_t device : {0x5011u, 0x5030u, 0x6210u, 0x7101u, 0x7200u, 0x0u}) {
    EXPECT_FALSE(IsSupportedAccelerator(0x2E70, device)) << std::hex << device;
  }
  EXPECT_FALSE(IsSupportedAccelerator(0x10DE, 0x5010));
}

TEST(PresentVdevIds, OnlyTheNamesTheWriterMakes) {
  ScratchDir dir;
  for (const char* name : {"vdev0.conf", "vdev7.conf", "vdev31.conf", "vdev32.conf", "vdev07.conf",
                           "vdev-1.conf", "vdev1.conf.tmp", "vdev.conf", "xvdev2.conf",
                           "vdev3.confx", "vdev1x.conf"}) {
    ASSERT_TRUE(WriteTextFile(dir.path(), name, "", false)) << name;
  }
  ASSERT_TRUE(CreateDirectory(dir / "vdev9.conf"));  // any kind of entry counts, as a look-up would
  EXPECT_EQ(PresentVdevIds(dir.path()), (1u << 0) | (1u << 7) | (1u << 9) | (1u << 31));
  EXPECT_EQ(PresentVdevIds(dir / "missing"), 0u);
}

}  // namespace
