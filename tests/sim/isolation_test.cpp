// Sandboxes seen from the host: what they leave behind (nothing), how they end, and that
// two of them never meet. These tests start vdx-sim themselves.
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Child {
  pid_t pid = -1;
  int out = -1;  // read end of the child's standard output
};

Child Start(const std::vector<std::string>& args) {
  int p[2];
  if (pipe2(p, O_CLOEXEC) != 0) return {};
  pid_t pid = fork();
  if (pid == 0) {
    dup2(p[1], 1);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(126);
  }
  close(p[1]);
  return {pid, p[0]};
}

std::string ReadLine(int fd) {
  std::string line;
  char c;
  while (read(fd, &c, 1) == 1 && c != '\n') line += c;
  return line;
}

// Runs vdx-sim with the arguments; returns the exit status and its output.
int Sim(const std::vector<std::string>& args, std::string* out = nullptr) {
  std::vector<std::string> all = {VDX_SIM_BIN};
  all.insert(all.end(), args.begin(), args.end());
  Child c = Start(all);
  std::string text;
  char buf[4096];
  ssize_t n;
  while ((n = read(c.out, buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
  close(c.out);
  int status = 0;
  waitpid(c.pid, &status, 0);
  if (out != nullptr) *out = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream s;
  s << in.rdbuf();
  return in ? s.str() : "<missing>";
}

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// Host processes whose PID namespace is the given one ("pid:[...]"). A killed launcher
// cannot reap the sandbox's init; the zombie waits for the host's reaper, holds nothing
// and does not count.
int ProcessesIn(const std::string& ns) {
  int count = 0;
  DIR* d = opendir("/proc");
  while (dirent* e = readdir(d)) {
    char link[64] = {};
    std::string dir = std::string("/proc/") + e->d_name;
    if (readlink((dir + "/ns/pid").c_str(), link, sizeof link - 1) <= 0 || ns != link) continue;
    std::string stat = Slurp(dir + "/stat");
    size_t paren = stat.rfind(')');
    if (paren != std::string::npos && stat.compare(paren, 3, ") Z") == 0) continue;
    ++count;
  }
  closedir(d);
  return count;
}

// The kernel tears a namespace down asynchronously after a SIGKILL; wait for it, but
// never assert on how long it took.
int ProcessesLeftAfterTeardown(const std::string& ns) {
  for (int i = 0; i < 200 && ProcessesIn(ns) != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return ProcessesIn(ns);
}

TEST(Isolation, HostFilesAndMountsAreUntouched) {
  std::string tag = "vdx-sim-isolation-" + std::to_string(getpid());
  std::string mounts = Slurp("/proc/self/mountinfo");
  bool had_vdev = Exists("/etc/vdev");
  ASSERT_FALSE(Exists("/etc/" + tag));
  ASSERT_FALSE(Exists("/tmp/" + tag));
  bool had_module = Exists("/sys/module/zocu");
  bool had_device = Exists("/dev/mkfd");
  bool had_kfd = Exists("/sys/devices/virtual/kfd/kfd/vgpu");

  std::string out;
  ASSERT_EQ(Sim({"--", "/bin/sh", "-c",
                 "mkdir -p /etc/vdev && echo a > /etc/vdev/vdev0.conf && touch /etc/" + tag +
                     " /tmp/" + tag + " && rm -f /etc/hostname && cat /sys/module/zocu/initstate"},
                &out),
            0);
  EXPECT_EQ(out, "live\n");
  EXPECT_EQ(Slurp("/proc/self/mountinfo"), mounts);
  EXPECT_EQ(Exists("/etc/vdev"), had_vdev);
  EXPECT_FALSE(Exists("/etc/" + tag));
  EXPECT_FALSE(Exists("/tmp/" + tag));
  EXPECT_EQ(Exists("/sys/module/zocu"), had_module);
  EXPECT_EQ(Exists("/dev/mkfd"), had_device);
  EXPECT_EQ(Exists("/sys/devices/virtual/kfd/kfd/vgpu"), had_kfd);
}

TEST(Isolation, NothingOutlivesTheCommand) {
  Child c = Start({VDX_SIM_BIN, "--", "/bin/sh", "-c",
                   "readlink /proc/self/ns/pid; sleep 1000 & sleep 1000 & exit 3"});
  std::string ns = ReadLine(c.out);
  close(c.out);
  int status = 0;
  ASSERT_EQ(waitpid(c.pid, &status, 0), c.pid);
  ASSERT_EQ(ns.rfind("pid:[", 0), 0u) << ns;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);
  EXPECT_EQ(ProcessesLeftAfterTeardown(ns), 0);
}

TEST(Isolation, KillingTheLauncherTearsDownTheSandbox) {
  Child c = Start({VDX_SIM_BIN, "--", "/bin/sh", "-c", "readlink /proc/self/ns/pid; sleep 1000"});
  std::string ns = ReadLine(c.out);
  close(c.out);
  ASSERT_EQ(ns.rfind("pid:[", 0), 0u) << ns;
  ASSERT_GE(ProcessesIn(ns), 2);  // the daemon and the command are running
  kill(c.pid, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(c.pid, &status, 0), c.pid);
  EXPECT_EQ(ProcessesLeftAfterTeardown(ns), 0);
}

TEST(Isolation, TerminationIsPassedToTheCommand) {
  Child c = Start({VDX_SIM_BIN, "--", "/bin/sh", "-c", "trap 'exit 42' TERM; echo ready; while :; do sleep 0.01; done"});
  EXPECT_EQ(ReadLine(c.out), "ready");
  close(c.out);
  kill(c.pid, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(c.pid, &status, 0), c.pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42);
}

TEST(Isolation, ParallelSandboxesNeverMeet) {
  // A changes its world and waits; B looks at its own meanwhile.
  char dir[] = "/var/tmp/vdx-sim-parallel-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string d = dir;
  std::string sim = VDX_SIM_BIN;
  Child a = Start({VDX_SIM_BIN, "--", "/bin/sh", "-c",
                   sim + " ctl system-mode mig && " + sim + " ctl busy 21735 0xff && touch " + d +
                       "/a && while [ ! -e " + d + "/b ]; do sleep 0.01; done; " + sim +
                       " ctl dump | head -1"});
  std::string out_b;
  int status_b = Sim({"--", "/bin/sh", "-c",
                      "while [ ! -e " + d + "/a ]; do sleep 0.01; done; " + sim +
                          " ctl dump | grep -E '^system_mode|busy' | head -2; touch " + d + "/b"},
                     &out_b);
  std::string out_a = ReadLine(a.out);
  close(a.out);
  int status = 0;
  waitpid(a.pid, &status, 0);
  std::system(("rm -rf " + d).c_str());
  EXPECT_EQ(status_b, 0);
  EXPECT_EQ(out_b, "system_mode 0\n  busy 0x00000000 0x00000000 0x00000000 0x00000000 0x00000000 "
                   "0x00000000 0x00000000 0x00000000\n");
  EXPECT_EQ(out_a, "system_mode 1");
}

TEST(Launcher, ExitStatusAndUsage) {
  EXPECT_EQ(Sim({"--", "/bin/sh", "-c", "exit 7"}), 7);
  EXPECT_EQ(Sim({"--", "/nonexistent/command"}), 127);
  EXPECT_EQ(Sim({"--no-such-option", "true"}), 2);
  EXPECT_EQ(Sim({}), 2);
  std::string out;
  EXPECT_EQ(Sim({"ctl", "dump"}, &out), 3);  // not inside a sandbox
  EXPECT_EQ(Sim({"--", "vdx-sim", "ctl", "system-mode", "mig"}), 0);  // on the command's PATH
}

TEST(Launcher, ConfigurationStoreFaults) {
  EXPECT_NE(Sim({"--etc-readonly", "--", "/bin/sh", "-c", "touch /etc/vdx-sim-ro 2>/dev/null"}), 0);
  EXPECT_NE(Sim({"--etc-full", "--", "/bin/sh", "-c", "echo x > /etc/vdx-sim-full 2>/dev/null"}), 0);
  EXPECT_EQ(Sim({"--etc-full", "--", "/bin/sh", "-c", "test -r /etc/passwd"}), 0);  // reads work
  EXPECT_NE(Sim({"--etc-size", "8192", "--", "/bin/sh", "-c",
                 "head -c 65536 /dev/zero > /etc/vdx-sim-big 2>/dev/null"}),
            0);
}

}  // namespace
