// The manager's pure parts on a manager that never started: mask and id arithmetic, the
// support check, the reader of one configuration file (in a scratch directory), the merge
// of bound devices, and the variables the binding writes.
#include <stdlib.h>

#include <cstring>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mkfd/device_names.h"
#include "tests/utils/test_support.h"
#include "tests/virtual/dmvirtual_peer.h"
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

TEST(IdSets, EveryIntNamesOneOfThirtyTwoBits) {
  EXPECT_EQ(IdBit(3), 0x8u);
  EXPECT_EQ(IdBit(35), IdBit(3));
  EXPECT_EQ(IdBit(31), 0x80000000u);
  EXPECT_EQ(IdBit(-1), 0x80000000u);
  EXPECT_EQ(LowestIdBit(0), -1);
  EXPECT_EQ(LowestIdBit(0x28), 3);
  EXPECT_EQ(LowestIdBit(0x80000000u), 31);
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

class ConfigReader : public testing::Test {
 protected:
  void SetUp() override {
    peer_.AddDevice(0x3b, 60, 32768);
    peer_.AddDevice(0x5e, 64, 16384);
  }
  vdxStatus Read(const std::string& text, virtual_device_info* info) {
    EXPECT_TRUE(WriteTextFile(dir_.path(), "vdev.conf", text, false));
    return peer_.GetVirtualDevice(dir_.path(), "vdev.conf", info);
  }

  ScratchDir dir_;
  Dmvirtual dm_;
  DmvirtualPeer peer_{dm_};
};

TEST_F(ConfigReader, ReadsAnyOrderAndAnyBase) {
  virtual_device_info info{};
  ASSERT_EQ(Read("pipe_id: 010\nenable: 0x1\nmem: 0x1000 MiB\nvdev_id: 7\ncu_count: 9\n"
                 "cu_mask: 0xff\ncu_mask: 0x1\nunknown: 5\ndevice_id: 1\n"
                 "PciBusId: 0000:5e:00.0\n",
                 &info),
            VDX_STATUS_SUCCESS);
  EXPECT_EQ(info.pipe_id, 8);  // octal
  EXPECT_EQ(info.memLimit, 4096);
  EXPECT_EQ(info.vdev_id, 7);
  EXPECT_EQ(info.cuCount, 9) << "the count is not checked against the mask";
  EXPECT_EQ(info.device_id, 1);
  cu_mask_t expected(0xff);
  expected.set(64);
  EXPECT_EQ(info.cuMask, expected);
  unsigned long mtime = 0;
  ASSERT_TRUE(GetTimestamp(dir_ / "vdev.conf", nullptr, &mtime, nullptr));
  EXPECT_EQ(info.mtime, static_cast<time_t>(mtime));
}

TEST_F(ConfigReader, TheAddressDecidesTheDevice) {
  virtual_device_info info{};
  ASSERT_EQ(Read("PciBusId: 0000:3b:00.0\ndevice_id: 1\nenable: 1\n", &info), VDX_STATUS_SUCCESS);
  EXPECT_EQ(info.device_id, 0);
}

TEST_F(ConfigReader, RefusalsLeaveTheOutputAlone) {
  virtual_device_info info{};
  info.vdev_id = 99;
  const char* const refused[] = {
      "PciBusId: 0000:3b:00.0\nenable: 0\n",               // disabled
      "PciBusId: 0000:3b:00.0\n",                          // no enable line: disabled
      "PciBusId: 0000:3c:00.0\nenable: 1\n",               // no such device
      "PciBusId: 0000:3b:00.0\nenable: 1\ncu_count:\n",     // key without a value
      "PciBusId: 0000:3b:00.0\nenable: 1\ncu_mask: 1\ncu_mask: 1\ncu_mask: 1\n",
      "PciBusId: 3b:00.0\nenable: 1\n",                    // too few fields
      "enable: 1\n",                                       // no address at all
  };
  for (const char* text : refused) {
    EXPECT_EQ(Read(text, &info), VDX_STATUS_ERROR) << text;
    EXPECT_EQ(info.vdev_id, 99) << text;
  }
  EXPECT_EQ(peer_.GetVirtualDevice(dir_.path(), "missing.conf", &info), VDX_STATUS_VDEV_NOT_EXIST);
  EXPECT_EQ(peer_.GetVirtualDevice(dir_ / "missing", "vdev.conf", &info),
            VDX_STATUS_VDEV_NOT_EXIST);
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

virtual_device_info Bound(int device, int vdev, int pipe, int units, int mib) {
  virtual_device_info info{};
  info.device_id = device;
  info.vdev_id = vdev;
  info.pipe_id = pipe;
  info.cuCount = units;
  info.memLimit = mib;
  return info;
}

TEST(Merge, OneEntryPerDeviceWithIdAndPipeSets) {
  Dmvirtual dm;
  DmvirtualPeer peer(dm);
  int count = -1;
  EXPECT_EQ(peer.Merge(nullptr, 0, &count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 0) << "no physical device, no entry";

  for (uint32_t bus = 1; bus <= 3; ++bus) peer.AddDevice(bus, 64, 16384);
  peer.bound() = {Bound(2, 9, 3, 4, 100), Bound(0, 1, 0, 8, 1000), Bound(0, 2, 1, 16, 2000)};
  virtual_device_info out[3];
  ASSERT_EQ(peer.Merge(out, 3, &count), VDX_STATUS_SUCCESS);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(out[0].device_id, 0);
  EXPECT_EQ(out[0].vdev_id, 0x6);
  EXPECT_EQ(out[0].pipe_id, 0x3);
  EXPECT_EQ(out[0].cuCount, 24);
  EXPECT_EQ(out[0].memLimit, 3000);
  EXPECT_TRUE(out[0].cuMask.none());
  EXPECT_EQ(out[1].device_id, 2);
  EXPECT_EQ(out[1].vdev_id, 1 << 9);

  // A short output gets what fits; the count is complete.
  out[1].device_id = -5;
  ASSERT_EQ(peer.Merge(out, 1, &count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(out[1].device_id, -5);
}

TEST(Merge, MoreThanEightDevicesAreCountedWithAWarning) {
  Dmvirtual dm;
  DmvirtualPeer peer(dm);
  for (uint32_t bus = 0; bus < 9; ++bus) {
    peer.AddDevice(bus, 64, 16384);
    peer.bound().push_back(Bound(static_cast<int>(bus), static_cast<int>(bus), 0, 1, 1));
  }
  int count = 0;
  const std::string out = testing_support::CaptureLog("debug", [&] {
    EXPECT_EQ(peer.Merge(nullptr, 0, &count), VDX_STATUS_SUCCESS);
  }).out;
  EXPECT_EQ(count, 9);
  EXPECT_NE(out.find("device count(9), max support physical device(8)."), std::string::npos) << out;
}

TEST(ReleaseVirtualDevice, FreesItsOwnIdOnlyAndDropsOneRecord) {
  Dmvirtual dm;
  DmvirtualPeer peer(dm);
  peer.bitmap() = 0;
  peer.vdevs() = {Bound(0, 3, 0, 1, 1), Bound(0, 3, 1, 1, 1), Bound(0, 4, 2, 1, 1)};
  EXPECT_EQ(peer.Release(35), VDX_STATUS_SUCCESS);
  EXPECT_EQ(peer.Release(-29), VDX_STATUS_SUCCESS);
  EXPECT_EQ(peer.bitmap(), 0u) << "35 and -29 are no other id";
  EXPECT_EQ(peer.vdevs().size(), 3u) << "no record holds the id 35";
  EXPECT_EQ(peer.Release(3), VDX_STATUS_SUCCESS);
  ASSERT_EQ(peer.vdevs().size(), 2u);
  EXPECT_EQ(peer.vdevs()[0].pipe_id, 1) << "only the first record of the id goes";
}

TEST(BindingVariables, VisibleDevicesAndTheHostMask) {
  Dmvirtual dm;
  DmvirtualPeer peer(dm);
  std::vector<virtual_device_info> vdevs = {Bound(1, 0, 0, 1, 1), Bound(1, 1, 1, 1, 1),
                                            Bound(0, 2, 0, 1, 1)};
  EXPECT_EQ(peer.SetVisible(vdevs), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(getenv("HIP_VISIBLE_DEVICES"), "1,1,0");
  EXPECT_STREQ(getenv("CUDA_VISIBLE_DEVICES"), "1,1,0");
  vdevs.clear();
  EXPECT_EQ(peer.SetVisible(vdevs), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(getenv("HIP_VISIBLE_DEVICES"), "");

  EXPECT_EQ(peer.SetRunMask(0x21), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(getenv("VDX_VDEV_MASK"), "33");
  EXPECT_EQ(peer.SetRunMask(0x80000000u), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(getenv("VDX_VDEV_MASK"), "2147483648");
  unsetenv("VDX_VDEV_MASK");
  unsetenv("HIP_VISIBLE_DEVICES");
  unsetenv("CUDA_VISIBLE_DEVICES");
}

TEST(InitDevice, TheDeprecatedMemberOnlyClears) {
  Dmvirtual dm;
  vdxDeviceInfo infos[3];
  memset(infos, 0x5a, sizeof(infos));
  int count = 7;
  EXPECT_EQ(dm.InitDevice(infos, 0, &count), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(dm.InitDevice(nullptr, 2, &count), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(dm.InitDevice(infos, 2, nullptr), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(count, 7);
  EXPECT_EQ(dm.InitDevice(infos, 2, &count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(infos[1].device_id, 0);
  EXPECT_EQ(infos[1].name[255], 0);
  EXPECT_NE(infos[2].device_id, 0) << "only the first capacity records are cleared";
}

}  // namespace
