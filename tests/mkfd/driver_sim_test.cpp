// The driver interface end to end, through the flat functions, against the simulated
// driver: each test runs in a sandbox of its own on the default machine (one CPU node, then
// accelerators of 60 and 64 compute units), and checks what the driver holds afterwards.
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mkfd/include/dmkfd.h"
#include "sim/ctl_client.h"
#include "tests/mkfd/flat_calls.h"
#include "tests/mkfd/private_machine.h"
#include "utils/logger.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

constexpr uint64_t kGiB = 1ull << 30;

std::string Ctl(const std::vector<std::string>& args) {
  std::string out;
  const int status = vdxsim::SimControl(args, &out);
  EXPECT_EQ(status, 0) << args[0] << ": " << out;
  return out;
}

std::string Dump() { return Ctl({"dump"}); }

bool Contains(const std::string& text, const std::string& what) {
  return text.find(what) != std::string::npos;
}

class DriverTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
    ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
    ASSERT_EQ(dmkfdGetNodeGpuId(0, &gpu0_), VDX_STATUS_SUCCESS);
    ASSERT_EQ(dmkfdGetNodeGpuId(1, &gpu1_), VDX_STATUS_SUCCESS);
  }
  void TearDown() override {
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  }
  std::string Gpu0() const { return std::to_string(gpu0_); }

  uint32_t gpu0_ = 0;
  uint32_t gpu1_ = 0;
};

TEST_F(DriverTest, VirtualDeviceLifeCycle) {
  uint32_t mask[4] = {0x0000F0F0, 0, 0, 0};
  ASSERT_EQ(dmkfdCreateVdev(0, 5, 2, 0xabc, kGiB, 128, mask), VDX_STATUS_SUCCESS);
  std::string dump = Dump();
  EXPECT_TRUE(Contains(dump, "vgpu 2 group_id 5 indentifier 0xabc vram_limit 1073741824 "))
      << dump;
  EXPECT_TRUE(Contains(dump, "cu_bits 128 cu_mask 0x0000f0f0 0x00000000")) << dump;
  // A second instance on the same pipe is refused by the driver.
  EXPECT_EQ(dmkfdCreateVdev(0, 6, 2, 0xabc, kGiB, 128, mask), VDX_STATUS_CREATE_VDEV_FAILED);

  dmkfdVdevInfo info;
  memset(&info, 0xA5, sizeof(info));
  ASSERT_EQ(dmkfdQueryVdevInfo(0, 2, &info), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(info.isExist);
  EXPECT_EQ(info.vram_limit, kGiB);
  EXPECT_EQ(info.vram_usage, 0u);
  EXPECT_EQ(info.indentifier, 0xabcu);
  EXPECT_EQ(info.refcount, 1u);
  // The driver writes the mask through the record's pointer into the caller's record.
  EXPECT_EQ(info.cu_mask[0], 0x0000F0F0u);
  EXPECT_EQ(info.cu_mask[1], 0u);
  EXPECT_EQ(info.cu_mask[4], 0u);
  // 16 units per shader engine: units 4-7 and 12-15 are all in engine 0.
  EXPECT_EQ(info.se_mask[0], 0xF0F0u);
  EXPECT_EQ(info.se_mask[1], 0u);

  Ctl({"usage", Gpu0(), "2", "4096"});
  Ctl({"refcount", Gpu0(), "2", "3"});
  ASSERT_EQ(dmkfdQueryVdevInfo(0, 2, &info), VDX_STATUS_SUCCESS);
  EXPECT_EQ(info.vram_usage, 4096u);
  EXPECT_EQ(info.refcount, 3u);

  dmkfdBusyCuInfo se;
  memset(&se, 0xA5, sizeof(se));
  uint32_t probe[4] = {0x000F0000, 0, 0, 0};
  ASSERT_EQ(dmkfdQueryVdevSeInfo(0, 2, 128, probe, &se), VDX_STATUS_SUCCESS);
  // Units 16-19 are the first four of shader engine 1.
  EXPECT_EQ(se.se_mask[0], 0u);
  EXPECT_EQ(se.se_mask[1], 0xFu);
  EXPECT_EQ(se.se_mask[7], 0u);

  // A memory-only update passes no mask.
  ASSERT_EQ(dmkfdUpdateVdev(0, DM_UPDATE_VDEV_VRAM_LIMIT, 2, 2 * kGiB, 0, nullptr),
            VDX_STATUS_SUCCESS);
  EXPECT_TRUE(Contains(Dump(), "vgpu 2 group_id 5 indentifier 0xabc vram_limit 2147483648 "));
  uint32_t wider[4] = {0x0F0F0F0F, 0x1, 0, 0};
  ASSERT_EQ(dmkfdUpdateVdev(0, DM_UPDATE_VDEV_CU_MASK, 2, 2 * kGiB, 128, wider),
            VDX_STATUS_SUCCESS);
  dump = Dump();
  EXPECT_TRUE(Contains(dump, "cu_mask 0x0f0f0f0f 0x00000001 0x00000000")) << dump;

  ASSERT_EQ(dmkfdDestroyVdev(0, 2), VDX_STATUS_SUCCESS);
  EXPECT_FALSE(Contains(Dump(), "vgpu 2 "));
  EXPECT_EQ(dmkfdDestroyVdev(0, 2), VDX_STATUS_DESTROY_VDEV_FAILED);
  memset(&info, 0xA5, sizeof(info));
  EXPECT_EQ(dmkfdQueryVdevInfo(0, 2, &info), VDX_STATUS_QUERY_VDEV_INFO_FAILED);
  EXPECT_FALSE(info.isExist);
  EXPECT_EQ(info.vram_limit, 0u);
}

TEST_F(DriverTest, ContainerGroupLifeCycle) {
  ASSERT_EQ(dmkfdCreateGroup(0x3, 0x77, UINT64_MAX), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(Contains(Dump(), "group 0x77 group_id 3 "));
  // The driver answers EBUSY for a group that exists, and keeps it: that is success here.
  EXPECT_EQ(dmkfdCreateGroup(0x5, 0x77, kGiB), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(Contains(Dump(), "group 0x77 group_id 3 "));

  ASSERT_EQ(dmkfdUpdateGroup(1, 0x77, kGiB), VDX_STATUS_SUCCESS);
  std::string dump = Dump();
  EXPECT_TRUE(Contains(dump, "  gpu " + std::to_string(gpu1_) + " vram_limit 1073741824 "))
      << dump;

  Ctl({"group-usage", "0x77", std::to_string(gpu1_), "8192"});
  Ctl({"group-refcount", "0x77", "2"});
  dmkfdVdevInfo info;
  memset(&info, 0xA5, sizeof(info));
  ASSERT_EQ(dmkfdQueryGroupInfo(1, 0x77, &info), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(info.isExist);
  EXPECT_EQ(info.vram_limit, kGiB);
  EXPECT_EQ(info.vram_usage, 8192u);
  EXPECT_EQ(info.refcount, 2u);
  EXPECT_EQ(info.cu_mask[0], 0u);  // cleared, not the caller's bytes

  memset(&info, 0xA5, sizeof(info));
  ASSERT_EQ(dmkfdQueryGroupInfoById(1, 0x3, &info), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(info.isExist);
  EXPECT_EQ(info.indentifier, 0x77u);
  EXPECT_EQ(info.vram_limit, kGiB);

  ASSERT_EQ(dmkfdSetRunMode(DM_PROCESS_GROUP_MODE, 0, 0x77), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(Contains(Dump(), " mode group group 0x77"));

  ASSERT_EQ(dmkfdDestroyGroup(0x77), VDX_STATUS_SUCCESS);
  dump = Dump();
  EXPECT_FALSE(Contains(dump, "group 0x77 group_id")) << dump;
  EXPECT_EQ(dmkfdDestroyGroup(0x77), VDX_STATUS_DESTROY_VDEV_FAILED);
}

TEST_F(DriverTest, VirtualDeviceRunMode) {
  uint32_t mask[4] = {0xFF, 0, 0, 0};
  ASSERT_EQ(dmkfdCreateVdev(0, 1, 0, 0, kGiB, 128, mask), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdCreateVdev(0, 2, 2, 0, kGiB, 128, mask), VDX_STATUS_SUCCESS);
  // The pipe set travels in the identifier argument.
  ASSERT_EQ(dmkfdSetRunMode(DM_PROCESS_VDEV_MODE, 0, 0x5), VDX_STATUS_SUCCESS);
  const std::string dump = Dump();
  EXPECT_TRUE(Contains(dump, " mode vgpu gpu " + Gpu0() + " pipes 0x5")) << dump;
}

TEST_F(DriverTest, LiveQueries) {
  Ctl({"busy", Gpu0(), "1", "2", "3", "4", "5", "6", "7", "8"});
  dmkfdBusyCuInfo busy;
  memset(&busy, 0xA5, sizeof(busy));
  ASSERT_EQ(dmkfdGetBusyCUInfo(0, &busy, 3), VDX_STATUS_SUCCESS);
  EXPECT_EQ(busy.se_mask[0], 1u);
  EXPECT_EQ(busy.se_mask[2], 3u);
  EXPECT_EQ(busy.se_mask[3], 0xA5A5A5A5u);  // beyond count: untouched
  ASSERT_EQ(dmkfdGetBusyCUInfo(0, &busy, 8), VDX_STATUS_SUCCESS);
  EXPECT_EQ(busy.se_mask[7], 8u);

  // Free memory is the device's less its instances' limits, unless the driver is told.
  uint64_t available = 0;
  uint32_t mask[4] = {0x1, 0, 0, 0};
  ASSERT_EQ(dmkfdCreateVdev(1, 1, 0, 0, 3 * kGiB, 128, mask), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdGetAvailableMem(1, &available), VDX_STATUS_SUCCESS);
  EXPECT_EQ(available, 13 * kGiB);
  Ctl({"available", std::to_string(gpu1_), "123456789"});
  ASSERT_EQ(dmkfdGetAvailableMem(1, &available), VDX_STATUS_SUCCESS);
  EXPECT_EQ(available, 123456789u);

  Ctl({"codec", Gpu0(), "dec", "3", "4"});
  uint32_t busy_codecs = 0, total_codecs = 0;
  ASSERT_EQ(dmkfdGetBusyCodec(0, true, &busy_codecs, &total_codecs), VDX_STATUS_SUCCESS);
  EXPECT_EQ(busy_codecs, 3u);
  EXPECT_EQ(total_codecs, 4u);

  // Only the low 8 bits of the vmid reach the driver.
  Ctl({"pasid", Gpu0(), "5", "0x1234"});
  uint32_t pasid = 0;
  ASSERT_EQ(dmkfdGetVmidPasid(0, 5 + 256, &pasid), VDX_STATUS_SUCCESS);
  EXPECT_EQ(pasid, 0x1234u);

  ASSERT_EQ(dmkfdWriteRegister(1, 0x2040, 0xCAFE), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(Contains(Dump(), "  reg 0x2040 0xcafe"));
  uint32_t value = 0;
  ASSERT_EQ(dmkfdReadRegister(1, 0x2040, &value), VDX_STATUS_SUCCESS);
  EXPECT_EQ(value, 0xCAFEu);

  // One wave per busy unit: the busy words above hold 13 units. With registers a wave takes
  // 96 bytes of the caller's buffer.
  std::vector<unsigned char> waves(1 << 16, 0xA5);
  uint32_t wave_count = 0;
  ASSERT_EQ(dmkfdGetDevWaveInfo(0, waves.data(), waves.size(), &wave_count, true),
            VDX_STATUS_SUCCESS);
  EXPECT_EQ(wave_count, 13u);
  EXPECT_EQ(waves[0], 0u);  // the first wave runs on shader engine 0
  EXPECT_NE(waves[13 * 96 - 1], 0xA5);
  EXPECT_EQ(waves[13 * 96], 0xA5);
  // Only what fits in buffer_size is written; without registers a wave takes 32 bytes.
  ASSERT_EQ(dmkfdGetDevWaveInfo(0, waves.data(), 100, &wave_count, false), VDX_STATUS_SUCCESS);
  EXPECT_EQ(wave_count, 3u);
}

using mkfd_test::Commands;
using mkfd_test::FlatCall;

uint32_t g_mask[4] = {0xFF, 0, 0, 0};
dmkfdVdevInfo g_info;
dmkfdBusyCuInfo g_busy;
uint32_t g_u32;
uint64_t g_u64;
char g_waves[64];

// Brings the driver to a state where every call of Commands() succeeds: an instance on
// pipe 0 of node 0, none on pipe 1, and the group 0x77. Failures here are expected (the
// instance or the group may exist already).
void MakeEveryCommandValid() {
  dmkfdDestroyVdev(0, 1);
  dmkfdCreateVdev(0, 1, 0, 0, kGiB, 128, g_mask);
  ASSERT_EQ(dmkfdCreateGroup(3, 0x77, UINT64_MAX), VDX_STATUS_SUCCESS);
}

// Runs one command; closes the service socket it may have received.
vdxStatus Call(const FlatCall& command) {
  int* socket = mkfd_test::ServiceSocket();
  *socket = -1;
  const vdxStatus status = command.call();
  if (*socket >= 0) close(*socket);
  return status;
}

TEST_F(DriverTest, DriverFailuresGiveEachCommandsStatus) {
  for (const FlatCall& c : Commands()) {
    MakeEveryCommandValid();
    const std::string before = Dump();
    Ctl({"fault", c.sim_name, "EIO", "1"});
    EXPECT_EQ(Call(c), c.on_failure) << c.line;
    // The fault was taken by this very call, and the driver state did not move.
    EXPECT_EQ(Dump(), before) << c.line;
  }
}

TEST_F(DriverTest, InterruptedAndBusyCallsAreRetried) {
  for (const char* err : {"EINTR", "EAGAIN"}) {
    for (const FlatCall& c : Commands()) {
      MakeEveryCommandValid();
      Ctl({"fault", c.sim_name, err, "5"});
      EXPECT_EQ(Call(c), VDX_STATUS_SUCCESS) << err << " " << c.line;
      // All five refusals were taken, then the driver's own answer.
      EXPECT_FALSE(Contains(Dump(), std::string("fault ") + c.sim_name + " "))
          << err << " " << c.line;
    }
  }
}

TEST_F(DriverTest, BadDescriptorIsReportedAsAnError) {
  Ctl({"fault", "available-mem", "EBADF", "1"});
  uint64_t available = 0;
  CaptureStderr();
  EXPECT_EQ(dmkfdGetAvailableMem(0, &available), VDX_STATUS_ERROR);
  const std::string err = GetCapturedStderr();
  EXPECT_EQ(err.rfind("\033[31mError\033[0m: ", 0), 0u) << err;
  EXPECT_TRUE(Contains(err, "MKFD file descriptor not valid in this process\n")) << err;
  // Other failures are reported by status only.
  Ctl({"fault", "available-mem", "EIO", "1"});
  CaptureStderr();
  EXPECT_EQ(dmkfdGetAvailableMem(0, &available), VDX_STATUS_ERROR);
  EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(DriverTest, ArgumentChecksNeverReachTheDriver) {
  // Arm a fault on every command: a call that reached the driver would consume it.
  for (const FlatCall& c : Commands()) Ctl({"fault", c.sim_name, "EIO", "1"});
  const vdxStatus bad = VDX_STATUS_INVALID_ARGUMENTS;
  EXPECT_EQ(dmkfdSetRunMode(static_cast<dmRunMode>(7), 0, 0), bad);
  EXPECT_EQ(dmkfdSetRunMode(DM_PROCESS_NONE_MODE, 2, 0), bad);
  EXPECT_EQ(dmkfdCreateVdev(0, 1, 1, 0, kGiB, 100, g_mask), bad);
  EXPECT_EQ(dmkfdCreateVdev(0, 1, 1, 0, kGiB, 0, g_mask), bad);
  EXPECT_EQ(dmkfdCreateVdev(0, 1, 1, 0, kGiB, 128, nullptr), bad);
  EXPECT_EQ(dmkfdCreateVdev(2, 1, 1, 0, kGiB, 128, g_mask), bad);
  EXPECT_EQ(dmkfdDestroyVdev(2, 0), bad);
  EXPECT_EQ(dmkfdDestroyVdev(0xFFFFFFFF, 0), bad);  // negative as an int
  EXPECT_EQ(dmkfdUpdateVdev(0, static_cast<dmUpdateVdevType>(2), 0, kGiB, 0, nullptr), bad);
  EXPECT_EQ(dmkfdUpdateVdev(3, DM_UPDATE_VDEV_VRAM_LIMIT, 0, kGiB, 0, nullptr), bad);
  EXPECT_EQ(dmkfdUpdateGroup(2, 0x77, kGiB), bad);
  EXPECT_EQ(dmkfdQueryGroupInfo(2, 0x77, &g_info), bad);
  EXPECT_EQ(dmkfdQueryGroupInfoById(2, 3, &g_info), bad);
  EXPECT_EQ(dmkfdQueryVdevInfo(0, 0, nullptr), bad);
  EXPECT_EQ(dmkfdQueryVdevSeInfo(2, 0, 128, g_mask, &g_busy), bad);
  EXPECT_EQ(dmkfdGetDevWaveInfo(0, nullptr, 16, &g_u32, false), bad);
  EXPECT_EQ(dmkfdGetDevWaveInfo(0, g_waves, 16, nullptr, false), bad);
  EXPECT_EQ(dmkfdGetBusyCUInfo(0, &g_busy, 0), bad);
  EXPECT_EQ(dmkfdGetBusyCUInfo(0, &g_busy, 9), bad);
  EXPECT_EQ(dmkfdGetAvailableMem(2, &g_u64), bad);
  EXPECT_EQ(dmkfdGetVmidPasid(2, 1, &g_u32), bad);
  EXPECT_EQ(dmkfdReadRegister(2, 0x10, &g_u32), bad);
  EXPECT_EQ(dmkfdWriteRegister(2, 0x10, 1), bad);
  EXPECT_EQ(dmkfdGetBusyCodec(2, true, &g_u32, &g_u32), bad);
  const std::string dump = Dump();
  for (const FlatCall& c : Commands()) {
    EXPECT_TRUE(Contains(dump, std::string("fault ") + c.sim_name + " errno 5 remaining 1"))
        << c.sim_name << "\n" << dump;
  }
}

TEST(DriverConnection, OpenCloseCountingLeavesNoDescriptor) {
  const int descriptors = mkfd_test::CountOpenDescriptors();
  ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
  const int open_descriptors = mkfd_test::CountOpenDescriptors();
  EXPECT_GT(open_descriptors, descriptors);
  uint32_t gpu1 = 0;
  ASSERT_EQ(dmkfdGetNodeGpuId(1, &gpu1), VDX_STATUS_SUCCESS);
  const std::string pid = " pid " + std::to_string(getpid()) + " ";
  EXPECT_TRUE(Contains(Dump(), pid));

  CaptureStdout();
  EXPECT_EQ(dmkfdOpenMkfd(), VDX_STATUS_MKFD_ALREADY_OPENED);
  const std::string out = GetCapturedStdout();
  // Exactly one warning line, and it is this one.
  EXPECT_EQ(out.rfind("\033[31mWarning\033[0m: [", 0), 0u) << out;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
  EXPECT_NE(out.find("] mkfd has already openned.\n"), std::string::npos) << out;
  EXPECT_EQ(mkfd_test::CountOpenDescriptors(), open_descriptors);
  EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
  EXPECT_EQ(mkfd_test::CountOpenDescriptors(), open_descriptors);
  EXPECT_TRUE(Contains(Dump(), pid));
  EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
  // The driver saw the last close.
  EXPECT_FALSE(Contains(Dump(), pid));
  EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_MKFD_NOT_OPENED);
  uint64_t available = 0;
  EXPECT_EQ(dmkfdGetAvailableMem(0, &available), VDX_STATUS_MKFD_NOT_OPENED);

  // Opening again scans again: the numbering is the same.
  ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
  uint32_t count = 0, node = 9;
  EXPECT_EQ(dmkfdGetNodeCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(dmkfdGetNodeByGpuId(gpu1, &node), VDX_STATUS_SUCCESS);
  EXPECT_EQ(node, 1u);
  EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
  EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  EXPECT_EQ(mkfd_test::CountOpenDescriptors(), descriptors);
}

TEST(DriverConnection, FailedOpenOfTheDevice) {
  Ctl({"fault", "open", "EACCES", "1"});
  ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
  const int descriptors = mkfd_test::CountOpenDescriptors();
  EXPECT_EQ(dmkfdOpenMkfd(), VDX_STATUS_OPEN_MKFD_FAILED);
  EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_MKFD_NOT_OPENED);
  EXPECT_EQ(mkfd_test::CountOpenDescriptors(), descriptors);
  // The next open works.
  EXPECT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
  EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
  EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
}

}  // namespace
