// The flat driver functions without a driver: the instance check, the reference counting of
// the connection object, the debug line each function writes, and the EBADF report.
#include <cerrno>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "mkfd/include/dmkfd.h"
#include "mkfd/mkfd_interface.h"
#include "utils/logger.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

class FlatFunctions : public testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(MkfdInterface::IsAcquire()); }
  void TearDown() override {
    utils::SetLogLevel(utils::kLogInfo);
    while (MkfdInterface::IsAcquire()) dmkfdShutDown();
  }
};

struct FlatCall {
  const char* line;  // the debug line after its time stamp
  std::function<vdxStatus()> call;
};

uint32_t g_mask[4] = {0xF, 0, 0, 0};
dmkfdVdevInfo g_info;
dmkfdBusyCuInfo g_busy;
dmkfdNodeProperties g_props;
uint32_t g_u32;
uint64_t g_u64;
int g_fd;
char g_waves[64];

// Every function but dmkfdInit and dmkfdGetNodeCount, with the line it logs first.
const FlatCall kFlatCalls[] = {
    {"[dmkfdShutDown]\n", [] { return dmkfdShutDown(); }},
    {"[dmkfdOpenMkfd]\n", [] { return dmkfdOpenMkfd(); }},
    {"[dmkfdCloseMkfd] Close Over!\n", [] { return dmkfdCloseMkfd(); }},
    {"[dmkfdGetNodeGpuId] Node:3\n", [] { return dmkfdGetNodeGpuId(3, &g_u32); }},
    {"[dmkfdGetNodeByGpuId] Node:4660\n", [] { return dmkfdGetNodeByGpuId(0x1234, &g_u32); }},
    {"[dmkfdGetNodeProperties] Node:1\n", [] { return dmkfdGetNodeProperties(1, &g_props); }},
    {"[dmkfdSetRunMode] mode:2 Node:1 identif:0xabc\n",
     [] { return dmkfdSetRunMode(DM_PROCESS_VDEV_MODE, 1, 0xabc); }},
    {"[dmkfdCreateGroup] vdevId: 0x5 indentifier: 0xdead vram_limit:0xffffffffffffffff\n",
     [] { return dmkfdCreateGroup(5, 0xdead, UINT64_MAX); }},
    {"[dmkfdDestroyGroup] indentifier: 0xdead\n", [] { return dmkfdDestroyGroup(0xdead); }},
    {"[dmkfdUpdateGroup] Node: 1 indentifier: 0xdead limit: 0x100000\n",
     [] { return dmkfdUpdateGroup(1, 0xdead, 0x100000); }},
    {"[dmkfdQueryGroupInfo] Node: 0 indentifier:0xbeef\n",
     [] { return dmkfdQueryGroupInfo(0, 0xbeef, &g_info); }},
    {"[dmkfdQueryGroupInfoById] Node: 1 vdevId: 6\n",
     [] { return dmkfdQueryGroupInfoById(1, 6, &g_info); }},
    {"[dmkfdCreateVdev] Node:1 vdevId:7 vram:0x40000000\n",
     [] { return dmkfdCreateVdev(1, 7, 2, 0xabc, 0x40000000, 128, g_mask); }},
    {"[dmkfdDestroyVdev] Node:1 pipeId:2\n", [] { return dmkfdDestroyVdev(1, 2); }},
    {"[dmkfdUpdateVdev] Node:1 dmUpdateVdevType:1 pipeId:3 vram:0x800\n",
     [] { return dmkfdUpdateVdev(1, DM_UPDATE_VDEV_CU_MASK, 3, 0x800, 128, g_mask); }},
    {"[dmkfdQueryVdevInfo] Node:0 pipeId:3\n", [] { return dmkfdQueryVdevInfo(0, 3, &g_info); }},
    {"[dmkfdQueryVdevSeInfo] Node:1 pipeId:0\n",
     [] { return dmkfdQueryVdevSeInfo(1, 0, 128, g_mask, &g_busy); }},
    {"[dmkfdGetBusyCUInfo] Node:1\n", [] { return dmkfdGetBusyCUInfo(1, &g_busy, 8); }},
    {"[dmkfdGetAvailableMem] Node:0\n", [] { return dmkfdGetAvailableMem(0, &g_u64); }},
    {"[dmkfdGetBusyCodec] Node:1\n", [] { return dmkfdGetBusyCodec(1, true, &g_u32, &g_u32); }},
    {"[dmkfdGetDevWaveInfo] Node:0\n",
     [] { return dmkfdGetDevWaveInfo(0, g_waves, sizeof(g_waves), &g_u32, true); }},
    {"[dmkfdGetVmidPasid] Node:1\n", [] { return dmkfdGetVmidPasid(1, 8, &g_u32); }},
    {"[dmkfdReadRegister] Node:0\n", [] { return dmkfdReadRegister(0, 0x2000, &g_u32); }},
    {"[dmkfdWriteRegister] Node:1\n", [] { return dmkfdWriteRegister(1, 0x2000, 5); }},
    {"[dmkfdConnectZouds]\n", [] { return dmkfdConnectZouds(&g_fd); }},
};

TEST_F(FlatFunctions, WithoutInstanceEveryFunctionLogsAndRefuses) {
  utils::SetLogLevel(utils::kLogDebug);
  for (const FlatCall& flat : kFlatCalls) {
    CaptureStdout();
    const vdxStatus status = flat.call();
    const std::string out = GetCapturedStdout();
    EXPECT_EQ(status, VDX_STATUS_ERROR_NOT_INITIALIZED) << flat.line;
    // One line: "[time stamp] " then the function's own text.
    const std::string::size_type stamp_end = out.find("] ");
    ASSERT_NE(stamp_end, std::string::npos) << out;
    EXPECT_EQ(out.substr(stamp_end + 2), flat.line);
  }
}

TEST_F(FlatFunctions, NodeCountChecksBeforeItLogsAndTouchesNothing) {
  utils::SetLogLevel(utils::kLogDebug);
  uint32_t count = 77;
  CaptureStdout();
  EXPECT_EQ(dmkfdGetNodeCount(&count), VDX_STATUS_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(count, 77u);

  // With an instance that never opened the device there are no nodes yet.
  ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
  CaptureStdout();
  EXPECT_EQ(dmkfdGetNodeCount(&count), VDX_STATUS_SUCCESS);
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(count, 0u);
  EXPECT_NE(out.find("] [dmkfdGetNodeCount] count: 0\n"), std::string::npos) << out;
}

TEST_F(FlatFunctions, TraceLinesCarryTheSourceLocation) {
  utils::SetLogLevel(utils::kLogTrace);
  CaptureStdout();
  dmkfdDestroyGroup(1);
  const std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("] [mkfd/dmkfd.cpp : "), std::string::npos) << out;
  EXPECT_NE(out.find("] [dmkfdDestroyGroup] indentifier: 0x1\n"), std::string::npos) << out;
}

TEST_F(FlatFunctions, ReferenceCounting) {
  ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
  MkfdInterface* const instance = MkfdInterface::mkfd_singleton_;
  ASSERT_NE(instance, nullptr);

  EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(MkfdInterface::IsAcquire());
  EXPECT_EQ(MkfdInterface::mkfd_singleton_, instance);
  EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  EXPECT_FALSE(MkfdInterface::IsAcquire());
  EXPECT_EQ(MkfdInterface::mkfd_singleton_, nullptr);
  // After the last holder has gone, a further shut-down must not release again.
  EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_ERROR_NOT_INITIALIZED);

  // A new holder gets a fresh, closed connection.
  ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
  EXPECT_EQ(MkfdInterface::mkfd_singleton_->OpenCount(), 0);
  EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_MKFD_NOT_OPENED);
}

TEST_F(FlatFunctions, CommandsBeforeOpenReportNotOpened) {
  ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
  for (const FlatCall& flat : kFlatCalls) {
    const std::string line = flat.line;
    // The life-cycle functions and the sysfs reader are not commands.
    if (line.find("ShutDown") != std::string::npos || line.find("OpenMkfd") != std::string::npos ||
        line.find("NodeProperties") != std::string::npos) {
      continue;
    }
    EXPECT_EQ(flat.call(), VDX_STATUS_MKFD_NOT_OPENED) << flat.line;
  }
  // The sysfs reader knows no nodes before the first open.
  EXPECT_EQ(dmkfdGetNodeProperties(0, &g_props), VDX_STATUS_INVALID_ARGUMENTS);
}

TEST(MkfdIoctl, BadDescriptorIsReportedAtErrorLevel) {
  utils::SetLogLevel(utils::kLogInfo);
  mkfd_ioctl_get_available_mem_size_args args{};
  CaptureStderr();
  errno = 0;
  EXPECT_EQ(MkfdInterface::MkfdIoctl(-1, MKFD_IOC_GET_AVAILABLE_MEM, &args), -1);
  EXPECT_EQ(errno, EBADF);
  const std::string err = GetCapturedStderr();
  EXPECT_EQ(err.rfind("\033[31mError\033[0m: [", 0), 0u) << err;
  EXPECT_NE(err.find("] MKFD file descriptor not valid in this process\n"), std::string::npos)
      << err;
}

}  // namespace
