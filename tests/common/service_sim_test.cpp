// The manager service client and the two queries inside the simulated machine: the socket
// the driver hands over, the abstract socket as the fallback, and every way the service
// can misbehave.
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "common/env_check.h"
#include "common/zomgr_client.h"
#include "sim/ctl_client.h"
#include "tests/utils/test_support.h"
#include "utils/logger.h"

namespace {

using testing_support::CaptureLog;
using testing_support::OpenDescriptorCount;

void Sim(std::initializer_list<std::string> args) {
  std::string out;
  ASSERT_EQ(vdxsim::SimControl(args, &out), 0) << out;
}

TEST(ServiceInSim, QueriesWithTheirOwnConnectionLeaveNothingOpen) {
  ASSERT_TRUE(CheckDriverExist());
  const int before = OpenDescriptorCount();
  SystemMode mode = SYSTEM_MODE_MIG;
  EXPECT_TRUE(CheckSystemModeViaZomgr(mode, true, true, -1));  // a container with the driver
  EXPECT_EQ(mode, SYSTEM_MODE_NONE);

  Sim({"process", std::to_string(getpid()), "1", "2", "3"});
  process_info info = {0, 0, 0};
  EXPECT_TRUE(GetProcessInfoViaZomgr(getpid(), info, false, true, -1));
  EXPECT_EQ(info.gpu_id, 1);
  EXPECT_EQ(info.gi_id, 2);
  EXPECT_EQ(info.ci_id, 3);
  // A process the service knows nothing about runs on no partition: still an answer.
  EXPECT_TRUE(GetProcessInfoViaZomgr(getpid() + 1, info, false, false, -1));
  EXPECT_EQ(info.gpu_id, -1);
  EXPECT_EQ(OpenDescriptorCount(), before);
}

TEST(ServiceInSim, FallsBackToTheAbstractSocketWhenTheDriverCannotConnect) {
  Sim({"fault", "service-socket", "EIO"});
  int fd = -1;
  int rc = -1;
  const std::string out = CaptureLog("debug", [&] { rc = ConnectServerQuiet(&fd, false, true); }).out;
  ASSERT_EQ(rc, 0);
  EXPECT_NE(out.find("DEBUG: Failed to get socket by driver\n"), std::string::npos) << out;
  SystemMode mode = SYSTEM_MODE_MIG;
  EXPECT_TRUE(CheckSystemModeViaZomgr(mode, false, false, fd));
  EXPECT_EQ(mode, SYSTEM_MODE_NONE);
  DisconnectServer(&fd);
}

TEST(ServiceInSim, MisbehaviourEndsInTheRightFailure) {
  struct Case {
    std::initializer_list<std::string> mode;
    bool answered;
    const char* message;  // in the quiet client's debug output
  };
  const Case cases[] = {
      {{"service", "trickle"}, true, nullptr},
      {{"service", "wrong-type"}, false, "Recieved error response from zomgr.\n"},
      {{"service", "error", "9"}, false, "Devices is used\n"},
      {{"service", "disconnect"}, false, "Server is disconnect, please check server\n"},
      {{"service", "stop"}, false, "unable to connect zomgr service.\n"},
  };
  for (const Case& c : cases) {
    std::string out;
    ASSERT_EQ(vdxsim::SimControl(c.mode, &out), 0) << out;
    const int before = OpenDescriptorCount();
    SystemMode mode = SYSTEM_MODE_MIG;
    bool answered = false;
    const std::string log =
        CaptureLog("debug", [&] { answered = CheckSystemModeViaZomgr(mode, false, false, -1); }).out;
    EXPECT_EQ(answered, c.answered) << *c.mode.begin() << " " << *(c.mode.begin() + 1) << "\n" << log;
    EXPECT_EQ(mode, c.answered ? SYSTEM_MODE_NONE : SYSTEM_MODE_MIG);
    if (c.message != nullptr) {
      EXPECT_NE(log.find(c.message), std::string::npos) << log;
    }
    EXPECT_EQ(OpenDescriptorCount(), before);
    Sim({"service", "start"});
    Sim({"service", "normal"});
  }
}

TEST(ServiceInSim, AVbiosFailureReachesTheUserEvenFromAQuietQuery) {
  Sim({"service", "error", "36"});
  SystemMode mode = SYSTEM_MODE_NONE;
  const std::string err =
      CaptureLog("info", [&] { EXPECT_FALSE(CheckSystemModeViaZomgr(mode, false, true, -1)); }).err;
  EXPECT_NE(err.find("\033[31mError\033[0m: "), std::string::npos) << err;
  EXPECT_NE(err.find("VBIOS init failed\n"), std::string::npos) << err;
}

}  // namespace
