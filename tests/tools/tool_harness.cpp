#include "tests/tools/tool_harness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "sim/ctl_client.h"

namespace vdxtest {

const std::string kCtl = VDXCTL_BIN;

std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

Result Shell(const std::string& command) {
  Result r;
  FILE* pipe = popen((command + " 2>/tmp/tool-stderr").c_str(), "r");
  if (pipe == nullptr) return r;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) r.out.append(buffer, n);
  const int status = pclose(pipe);
  r.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.err = Slurp("/tmp/tool-stderr");
  return r;
}

Result Vdxctl(const std::string& args) { return Shell(kCtl + " " + args); }

nlohmann::json JsonOf(const std::string& args) {
  const Result r = Vdxctl("--format json " + args);
  EXPECT_EQ(r.exit, 0) << args << ": " << r.err;
  return nlohmann::json::parse(r.out);
}

std::string Dump() {
  std::string out;
  EXPECT_EQ(vdxsim::SimControl({"dump"}, &out), 0);
  return out;
}

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

size_t Count(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

double SecondsOf(const std::function<void()>& body) {
  const auto start = std::chrono::steady_clock::now();
  body();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int ConnectControl() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address;
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  const char kName[] = "zovdx-vdxd-control";
  memcpy(address.sun_path + 1, kName, sizeof(kName) - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address),
              offsetof(sockaddr_un, sun_path) + 1 + sizeof(kName) - 1) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool Ping() {
  const int fd = ConnectControl();
  if (fd < 0) return false;
  timeval limit = {2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  char answer[32] = {0};
  const bool ok = send(fd, "ping\n", 5, MSG_NOSIGNAL) == 5 &&
                  recv(fd, answer, sizeof(answer) - 1, 0) > 0 &&
                  std::string(answer) == "0 running\n";
  close(fd);
  return ok;
}

Daemon::Daemon(rlim_t descriptors) {
  fflush(stdout);
  pid_ = fork();
  if (pid_ == 0) {
    if (descriptors != 0) {
      const rlimit limit = {descriptors, descriptors};
      setrlimit(RLIMIT_NOFILE, &limit);
    }
    const int log = open("/tmp/vdxd.log", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    dup2(log, 1);
    dup2(log, 2);
    execl(VDXD_BIN, "vdxd", "--interval", "1", nullptr);
    _exit(127);
  }
  // Up once its main loop answers: that is after its first start of the configuration.
  for (int i = 0; i < 200 && !Ping(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

int Daemon::Stop() {
  kill(pid_, SIGTERM);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Daemon::~Daemon() {
  if (pid_ > 0) Stop();
}

std::vector<std::string> Instances() {
  std::vector<std::string> names;
  const Result r = Shell("ls /sys/devices/virtual/kfd/kfd/vgpu");
  std::istringstream lines(r.out);
  std::string line;
  while (std::getline(lines, line)) names.push_back(line);
  return names;
}

}  // namespace vdxtest
