// The child process runner, driven against a helper program with scripted behaviour.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/utils/test_support.h"
#include "utils/process.h"

namespace {

using testing_support::ChildCount;
using testing_support::OpenDescriptorCount;
using utils::Process;

const std::string kHelper = ZOVDX_PROCESS_HELPER;

std::string Digits(size_t n) {
  std::string text(n, '0');
  for (size_t i = 0; i < n; ++i) text[i] = static_cast<char>('0' + i % 10);
  return text;
}

TEST(Process, CollectsOutputAcrossManyReads) {
  Process process;
  EXPECT_EQ(process.Execute(kHelper + " emit 200000", 0), utils::PROCESS_SUCCESS);
  EXPECT_EQ(process.GetOutputString(), Digits(200000));
  EXPECT_EQ(process.GetExitCode(), 0);

  EXPECT_EQ(process.Execute(kHelper + " stderr to-standard-error", 0), utils::PROCESS_SUCCESS);
  EXPECT_EQ(process.GetOutputString(), "to-standard-error");

  EXPECT_EQ(process.Execute(kHelper + " emit 0", 0), utils::PROCESS_SUCCESS);
  EXPECT_EQ(process.GetOutputString(), "");
  EXPECT_EQ(ChildCount(), 0);
}

TEST(Process, ANonZeroExitIsAnError) {
  Process process;
  EXPECT_EQ(process.Execute(kHelper + " exit 3", 0), utils::PROCESS_ERROR);
  EXPECT_EQ(process.GetExitCode(), 3);
  EXPECT_EQ(process.Execute("ls /no/such/path/at/all", 0), utils::PROCESS_ERROR);
  EXPECT_EQ(process.GetExitCode(), 2);
  EXPECT_NE(process.GetOutputString().find("/no/such/path/at/all"), std::string::npos)
      << "standard error is collected too";
  EXPECT_EQ(ChildCount(), 0);
}

TEST(Process, KillsAndReapsASilentChildAtTheTimeOut) {
  const int descriptors = OpenDescriptorCount();
  Process process;
  EXPECT_EQ(process.Execute(kHelper + " sleep 20000", 100), utils::PROCESS_TIMEOUT);
  EXPECT_FALSE(process.IsRunning());
  EXPECT_EQ(process.GetExitCode(), -1);  // killed, not exited
  EXPECT_EQ(ChildCount(), 0) << "the killed child must be reaped";
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
}

// Descriptors of this process that an exec would hand on.
int InheritableDescriptorCount() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags >= 0 && !(flags & FD_CLOEXEC)) ++count;
  }
  return count;
}

TEST(Process, TheChildInheritsNoStrayDescriptors) {
  Process process;
  const int inheritable = InheritableDescriptorCount();
  ASSERT_EQ(process.Execute("ls /proc/self/fd", 0), utils::PROCESS_SUCCESS);
  int listed = 0;
  for (char c : process.GetOutputString()) listed += c == '\n';
  // What the child holds: what this process lets through (standard output and error
  // now being the pipe), plus the directory that ls itself opens to list.
  const int stdout_stderr_if_closed = (fcntl(1, F_GETFD) < 0) + (fcntl(2, F_GETFD) < 0);
  EXPECT_EQ(listed, inheritable + stdout_stderr_if_closed + 1) << process.GetOutputString();
}

}  // namespace
