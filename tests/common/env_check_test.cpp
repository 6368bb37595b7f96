// Container detection: the overrides, the automatic detection over process files the tests
// replace, and the kernel-worker probe on the host and inside a fresh PID namespace.
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "common/env_check.h"
#include "common/process_list.h"
#include "tests/utils/test_support.h"
#include "utils/file.h"
#include "utils/logger.h"

namespace {

using testing_support::ScratchDir;

const std::string kHex64 = "0123456789abcdefABCDEF0123456789abcdef0123456789abcdef0123456789";

class EnvOverride : public testing::Test {
 protected:
  void TearDown() override {
    unsetenv("VDX_RUNTIME_ENV_OVERRIDE");
    unsetenv("VDX_OVERRIDE_CONTAINER_ID");
  }
};

TEST_F(EnvOverride, ExactSpellingsForceTheAnswer) {
  bool in_container = true;
  std::string id = "stale";
  setenv("VDX_RUNTIME_ENV_OVERRIDE", "bare-metal", 1);
  setenv("VDX_OVERRIDE_CONTAINER_ID", "ignored", 1);
  EXPECT_TRUE(CheckContainerEnv(in_container, &id));
  EXPECT_FALSE(in_container);
  EXPECT_EQ(id, "");

  setenv("VDX_RUNTIME_ENV_OVERRIDE", "container", 1);
  setenv("VDX_OVERRIDE_CONTAINER_ID", "not-even-hex!", 1);
  EXPECT_TRUE(CheckContainerEnv(in_container, &id));
  EXPECT_TRUE(in_container);
  EXPECT_EQ(id, "not-even-hex!");  // taken as it stands

  unsetenv("VDX_OVERRIDE_CONTAINER_ID");
  id = "stale";
  EXPECT_TRUE(CheckContainerEnv(in_container, &id));
  EXPECT_TRUE(in_container);
  EXPECT_EQ(id, "");
  EXPECT_TRUE(CheckContainerEnv(in_container, nullptr));
}

// Runs body as pid 1 of a fresh PID namespace with its own /proc (so no kernel threads
// show) and a private mount table; returns body's result, or 77 when that cannot be made.
template <typename Body>
int AsInitOfFreshPidNamespace(Body body) {
  const pid_t outer = fork();
  if (outer == 0) {
    if (unshare(CLONE_NEWNS | CLONE_NEWPID) != 0) _exit(77);
    const pid_t inner = fork();
    if (inner == 0) {
      if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(77);
      if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) _exit(77);
      _exit(body());
    }
    int status = 0;
    if (inner < 0 || waitpid(inner, &status, 0) != inner || !WIFEXITED(status)) _exit(3);
    _exit(WEXITSTATUS(status));
  }
  int status = 0;
  if (outer < 0 || waitpid(outer, &status, 0) != outer || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// Every marker of automatic detection, end to end: the cgroup and mount files of the
// process are replaced by files the test writes (bind mounts over /proc/1/...).
TEST(AutomaticDetection, RecognisesEveryMarkerAndTheFirstOneWins) {
  const int result = AsInitOfFreshPidNamespace([] {
    ScratchDir dir;
    struct Case {
      std::string cgroup;
      std::string mountinfo;
      std::string id;  // "" with in_container false: not a container
      bool in_container;
    };
    const std::string a(64, 'a');
    const std::string b(64, 'b');
    const Case cases[] = {
        {"0::/system.slice/docker-" + a + ".scope\n", "", a, true},
        {"4:memory:/docker/" + a + "\n", "", a, true},
        {"0::/containerd/" + a + "\n", "", a, true},
        {"0::/kubepods/besteffort/pod1/" + a + "\n", "", "", true},  // no hex right after
        {"0::/kubepods/" + a + "\n", "", a, true},
        {"0::/\n", "1 2 0:3 /var/lib/docker/containers/" + a + "/hosts /etc/hosts\n", a, true},
        {"0::/\n", "1 2 0:3 /run/containerd/io.containerd.runtime/" + a + " /\n", "", true},
        {"0::/\n", "1 2 0:3 /var/lib/containers/" + a + " /x\n", a, true},
        // The cgroup markers are searched before the mount markers.
        {"0::/docker/" + a + "\n", "1 2 0:3 /containers/" + b + " /x\n", a, true},
        {"0::/user.slice\n", "1 2 0:3 / / rw\n", "", false},
    };
    int failures = 0;
    for (const Case& c : cases) {
      if (!WriteTextFile(dir.path(), "cgroup", c.cgroup, false) ||
          !WriteTextFile(dir.path(), "mountinfo", c.mountinfo, false))
        return 2;
      if (mount((dir / "cgroup").c_str(), "/proc/1/cgroup", nullptr, MS_BIND, nullptr) != 0 ||
          mount((dir / "mountinfo").c_str(), "/proc/1/mountinfo", nullptr, MS_BIND, nullptr) != 0)
        return 77;
      bool in_container = !c.in_container;
      std::string id = "stale";
      const bool decided = CheckContainerEnv(in_container, &id);
      if (!decided || in_container != c.in_container || (c.in_container && id != c.id)) {
        fprintf(stderr, "case %s | %s: decided %d in_container %d id '%s'\n", c.cgroup.c_str(),
                c.mountinfo.c_str(), decided, in_container, id.c_str());
        ++failures;
      }
      umount("/proc/1/cgroup");
      umount("/proc/1/mountinfo");
    }
    return failures == 0 ? 0 : 10;
  });
  if (result == 77) GTEST_SKIP() << "cannot replace the /proc files here (not root?)";
  EXPECT_EQ(result, 0);
}

bool KernelWorkersVisible() {
  bool seen = false;
  ForEachProcessCommand([&seen](const std::string& command) {
    seen = command.rfind("[kworker/", 0) == 0;
    return !seen;
  });
  return seen;
}

TEST(KernelWorkerProbe, OverturnsAPositiveWhereKernelThreadsShow) {
  if (!KernelWorkersVisible()) GTEST_SKIP() << "no kernel worker threads in this PID namespace";
  bool in_container = true;
  std::string id = kHex64;
  EXPECT_TRUE(CheckContainerEnvByKWorker(in_container, &id));
  EXPECT_FALSE(in_container);
  EXPECT_EQ(id, "");
}

TEST(KernelWorkerProbe, LeavesAPositiveInAFreshPidNamespace) {
  const int result = AsInitOfFreshPidNamespace([] {
    bool in_container = true;
    std::string id = "feed";
    if (!CheckContainerEnvByKWorker(in_container, &id)) return 1;
    return in_container && id == "feed" ? 0 : 2;
  });
  if (result == 77) GTEST_SKIP() << "cannot make a PID namespace here (not root?)";
  EXPECT_EQ(result, 0);
}

}  // namespace
