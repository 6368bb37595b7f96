// Container detection: the file probes on files the tests write, the overrides, and the
// kernel-worker probe on the host and inside a fresh PID namespace.
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

struct ProbeResult {
  bool returned;
  bool in_container;
  std::string id;
};

ProbeResult Probe(const ScratchDir& dir, const std::string& content, const std::string& marker,
                  bool start_in_container = false) {
  EXPECT_TRUE(WriteTextFile(dir.path(), "cgroup", content, false));
  ProbeResult r{false, start_in_container, "stale"};
  r.returned = CheckDockerContainerEnvByFS(dir / "cgroup", marker, r.in_container, &r.id);
  return r;
}

TEST(ContainerFileProbe, FindsMarkersAndIds) {
  ScratchDir dir;
  ProbeResult r = Probe(dir, "12:pids:/\n0::/docker-" + kHex64 + ".scope\n", "/docker-");
  EXPECT_TRUE(r.returned);
  EXPECT_TRUE(r.in_container);
  EXPECT_EQ(r.id, kHex64);

  // Seventy digits: the id is the first 64.
  r = Probe(dir, "0::/docker/" + kHex64 + "abcdef\n", "/docker/");
  EXPECT_EQ(r.id, kHex64);

  // Fewer digits, then the end of the line.
  r = Probe(dir, "0::/kubepods/abc123\n", "/kubepods/");
  EXPECT_TRUE(r.in_container);
  EXPECT_EQ(r.id, "abc123");

  // A marker at the very end of a line gives an empty id and ends the search.
  r = Probe(dir, "0::/containerd/\n0::/containerd/beef\n", "/containerd/");
  EXPECT_TRUE(r.in_container);
  EXPECT_EQ(r.id, "");

  // The first line whose text after the marker is hexadecimal names the id.
  r = Probe(dir, "1::/docker/aaaa\n2::/docker/bbbb\n", "/docker/");
  EXPECT_EQ(r.id, "aaaa");
}

TEST(ContainerFileProbe, ANonHexadecimalTailMarksButNamesNothing) {
  ScratchDir dir;
  // A systemd scope name after the marker: containerised, but no id from that line.
  ProbeResult r = Probe(dir, "0::/system.slice/docker-xyz.scope\n", "/docker-");
  EXPECT_TRUE(r.returned);
  EXPECT_TRUE(r.in_container);
  EXPECT_EQ(r.id, "");
  // A later line may still supply it.
  r = Probe(dir, "0::/docker-scope.name\n1::/docker-" + kHex64 + "\n", "/docker-");
  EXPECT_EQ(r.id, kHex64);
  // No marker at all: untouched.
  r = Probe(dir, "0::/user.slice\n", "/docker-");
  EXPECT_TRUE(r.returned);
  EXPECT_FALSE(r.in_container);
  EXPECT_EQ(r.id, "stale");
}

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

// Runs body in a child with a private mount namespace (tmpfs over /sys/module); the exit
// status is body's result, or 77 when such a namespace cannot be made here.
template <typename Body>
int WithPrivateModuleDir(Body body) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (unshare(CLONE_NEWNS) != 0) _exit(77);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(77);
    if (mount("tmpfs", "/sys/module", "tmpfs", 0, "size=64k") != 0) _exit(77);
    _exit(body());
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

TEST(DriverState, OnlyALiveModuleCounts) {
  const int result = WithPrivateModuleDir([] {
    if (CheckDriverExist()) return 1;  // no module directory at all
    const std::pair<const char*, bool> states[] = {
        {"live\n", true}, {"coming\n", false}, {"going\n", false},
        {"", false},      {"x\nlive", true},    {"Live\n", false},
    };
    int failures = 0;
    for (const auto& [text, live] : states) {
      if (!WriteTextFile("/sys/module/zocu", "initstate", text, false)) return 2;
      if (CheckDriverExist() != live) ++failures;
    }
    return failures == 0 ? 0 : 10 + failures;
  });
  if (result == 77) GTEST_SKIP() << "cannot make a mount namespace here (not root?)";
  EXPECT_EQ(result, 0);
}

}  // namespace
