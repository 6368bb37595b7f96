// The flat driver functions without a driver: the instance check, the reference counting of
// the connection object, the debug line each function writes, and the EBADF report.
#include <cerrno>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mkfd/include/dmkfd.h"
#include "mkfd/mkfd_interface.h"
#include "tests/mkfd/flat_calls.h"
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

dmkfdNodeProperties g_props;
uint32_t g_u32;

// The functions that are not driver commands, with the line each logs first.
const mkfd_test::FlatCall kOtherCalls[] = {
    {"", "[dmkfdShutDown]\n", VDX_STATUS_SUCCESS, [] { return dmkfdShutDown(); }},
    {"", "[dmkfdOpenMkfd]\n", VDX_STATUS_SUCCESS, [] { return dmkfdOpenMkfd(); }},
    {"", "[dmkfdCloseMkfd] Close Over!\n", VDX_STATUS_SUCCESS, [] { return dmkfdCloseMkfd(); }},
    {"", "[dmkfdGetNodeGpuId] Node:3\n", VDX_STATUS_SUCCESS,
     [] { return dmkfdGetNodeGpuId(3, &g_u32); }},
    {"", "[dmkfdGetNodeByGpuId] Node:4660\n", VDX_STATUS_SUCCESS,
     [] { return dmkfdGetNodeByGpuId(0x1234, &g_u32); }},
    {"", "[dmkfdGetNodeProperties] Node:1\n", VDX_STATUS_SUCCESS,
     [] { return dmkfdGetNodeProperties(1, &g_props); }},
};

TEST_F(FlatFunctions, WithoutInstanceEveryFunctionLogsAndRefuses) {
  utils::SetLogLevel(utils::kLogDebug);
  std::vector<mkfd_test::FlatCall> calls(std::begin(kOtherCalls), std::end(kOtherCalls));
  calls.insert(calls.end(), mkfd_test::Commands().begin(), mkfd_test::Commands().end());
  for (const mkfd_test::FlatCall& flat : calls) {
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
  for (const mkfd_test::FlatCall& flat : mkfd_test::Commands()) {
    EXPECT_EQ(flat.call(), VDX_STATUS_MKFD_NOT_OPENED) << flat.line;
  }
  EXPECT_EQ(dmkfdGetNodeGpuId(0, &g_u32), VDX_STATUS_MKFD_NOT_OPENED);
  EXPECT_EQ(dmkfdGetNodeByGpuId(1, &g_u32), VDX_STATUS_MKFD_NOT_OPENED);
  // The connection is judged before the arguments, missing outputs included.
  EXPECT_EQ(dmkfdReadRegister(0, 0x10, nullptr), VDX_STATUS_MKFD_NOT_OPENED);
  EXPECT_EQ(dmkfdQueryVdevInfo(0, 0, nullptr), VDX_STATUS_MKFD_NOT_OPENED);
  EXPECT_EQ(dmkfdGetAvailableMem(0, nullptr), VDX_STATUS_MKFD_NOT_OPENED);
  EXPECT_EQ(dmkfdConnectZouds(nullptr), VDX_STATUS_MKFD_NOT_OPENED);
  EXPECT_EQ(dmkfdGetBusyCUInfo(0, nullptr, 0), VDX_STATUS_MKFD_NOT_OPENED);
  EXPECT_EQ(dmkfdGetBusyCodec(0, true, nullptr, nullptr), VDX_STATUS_MKFD_NOT_OPENED);
  // The sysfs reader knows no nodes before the first open.
  EXPECT_EQ(dmkfdGetNodeProperties(0, &g_props), VDX_STATUS_INVALID_ARGUMENTS);
}

}  // namespace
