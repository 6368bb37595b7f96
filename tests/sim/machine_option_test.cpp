// zovdx_sim_test with a machine description and launcher options: the test case runs on
// small.machine with a read-only /etc.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "raw_client.h"

namespace rawsim {
namespace {

TEST(MachineOption, RunsOnTheGivenMachine) {
  EXPECT_EQ(ListDir(std::string(kKfd) + "/topology/nodes"), (std::vector<std::string>{"0", "1"}));
  EXPECT_EQ(ReadText(std::string(kKfd) + "/topology/nodes/1/gpu_id"), "1234\n");
  int fd = OpenDevice();
  ASSERT_GE(fd, 0);
  EXPECT_EQ(CreateVgpu(fd, 1234, 0, {0xff}), 0);
  EXPECT_EQ(CreateVgpu(fd, 1234, 1, {0x100}), EINVAL);  // unit 8 of 8
  close(fd);
  std::string dump;
  ASSERT_EQ(Ctl({"dump"}, &dump), 0);
  EXPECT_EQ(dump.rfind("system_mode 1\n", 0), 0u) << dump;
}

TEST(MachineOption, LauncherArgumentsApply) {
  EXPECT_EQ(open("/etc/vdx-sim-readonly", O_WRONLY | O_CREAT | O_CLOEXEC, 0644), -1);
  EXPECT_EQ(errno, EROFS);
}

}  // namespace
}  // namespace rawsim
