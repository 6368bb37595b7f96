// The child process runner, driven against a helper program with scripted behaviour.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

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

TEST(Process, TheTimeOutBoundsSilenceNotRunTime) {
  Process process;
  // Ten lines 50 ms apart take half a second, longer than the 300 ms time-out.
  EXPECT_EQ(process.Execute(kHelper + " tick 10 50", 300), utils::PROCESS_SUCCESS);
  EXPECT_EQ(process.GetOutputString().substr(0, 7), "tick 0\n");
  EXPECT_NE(process.GetOutputString().find("tick 9\n"), std::string::npos);
}

TEST(Process, LeavesNoZombieBehind) {
  {
    Process abandoned;
    ASSERT_EQ(abandoned.Create(kHelper + " sleep 20000"), utils::PROCESS_SUCCESS);
  }
  EXPECT_EQ(ChildCount(), 0) << "a child still running when its owner goes is killed";

  Process reused;
  ASSERT_EQ(reused.Create(kHelper + " exit 0"), utils::PROCESS_SUCCESS);
  while (reused.IsRunning()) usleep(1000);
  // Starting again without a Wait reaps the finished child first.
  ASSERT_EQ(reused.Create(kHelper + " emit 10"), utils::PROCESS_SUCCESS);
  EXPECT_EQ(reused.Wait(0), utils::PROCESS_SUCCESS);
  EXPECT_EQ(reused.GetOutputString(), "0123456789");
  EXPECT_EQ(ChildCount(), 0);
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

// A child that somebody else reaped has given its pid back; the owner going away must not
// kill whatever process got that pid next. A fresh PID namespace makes the reuse certain.
TEST(Process, NeverKillsAPidThatWasReapedElsewhere) {
  const pid_t outer = fork();
  if (outer == 0) {
    if (unshare(CLONE_NEWPID) != 0) _exit(77);
    const pid_t init = fork();
    if (init == 0) {
      auto process = std::make_unique<Process>();
      if (process->Create(kHelper + " sleep 20000") != utils::PROCESS_SUCCESS) _exit(10);
      pid_t child = 0;
      for (int pid = 2; pid < 10 && child == 0; ++pid)
        if (kill(pid, 0) == 0) child = pid;
      if (child == 0) _exit(11);
      kill(child, SIGKILL);
      if (waitpid(child, nullptr, 0) != child) _exit(12);
      // The next pid handed out is the one just freed.
      FILE* last = fopen("/proc/sys/kernel/ns_last_pid", "w");
      if (last == nullptr) _exit(77);
      fprintf(last, "%d", child - 1);
      if (fclose(last) != 0) _exit(77);
      const pid_t victim = fork();
      if (victim == 0) {
        pause();
        _exit(0);
      }
      if (victim != child) _exit(77);
      process.reset();
      int status = 0;
      const pid_t reaped = waitpid(victim, &status, WNOHANG);
      kill(victim, SIGKILL);
      waitpid(victim, nullptr, 0);
      _exit(reaped == 0 ? 0 : 13);
    }
    int status = 0;
    if (init < 0 || waitpid(init, &status, 0) != init || !WIFEXITED(status)) _exit(14);
    _exit(WEXITSTATUS(status));
  }
  int status = 0;
  ASSERT_EQ(waitpid(outer, &status, 0), outer);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "needs root for a PID namespace";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "13: the process that reused the pid was killed";
}

}  // namespace
