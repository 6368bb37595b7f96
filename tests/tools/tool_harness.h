// What the tools' tests share: running the built vdxctl and reading its output, the
// simulator's state, vdxd started in the background and stopped by the test, and polling.
// Every helper runs inside the test's own vdx-sim sandbox.
#ifndef ZOVDX_TESTS_TOOLS_TOOL_HARNESS_H_
#define ZOVDX_TESTS_TOOLS_TOOL_HARNESS_H_

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace vdxtest {

struct Result {
  int exit = -1;
  std::string out;
  std::string err;
};

extern const std::string kCtl;  // the built vdxctl

std::string Slurp(const std::string& path);
// Runs a shell command line; standard error apart.
Result Shell(const std::string& command);
Result Vdxctl(const std::string& args);
// vdxctl --format json ARGS, which must succeed.
nlohmann::json JsonOf(const std::string& args);
// `vdx-sim ctl dump`.
std::string Dump();
bool Has(const std::string& text, const std::string& part);
size_t Count(const std::string& text, const std::string& part);
double SecondsOf(const std::function<void()>& body);

// A connection to vdxd's control socket; -1 when none listens.
int ConnectControl();
// Whether vdxd answers "ping" (from its main loop).
bool Ping();

// vdxd, started in the background (log in /tmp/vdxd.log), and stopped with SIGTERM by the
// test or at the end of its scope.
class Daemon {
 public:
  // descriptors: vdxd's hard limit on open files, when not 0.
  explicit Daemon(rlim_t descriptors = 0);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  // SIGTERM; the exit status.
  int Stop();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// The driver instances that exist, by name ("21735_0").
std::vector<std::string> Instances();

// Polls until the condition holds or a second and a half has passed.
template <typename Condition>
bool Within(Condition condition) {
  for (int i = 0; i < 150; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return condition();
}

}  // namespace vdxtest

#endif  // ZOVDX_TESTS_TOOLS_TOOL_HARNESS_H_
