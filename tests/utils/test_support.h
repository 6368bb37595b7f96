// Helpers shared by the utility tests: scratch directories, descriptor and child counts.
#ifndef ZOVDX_TESTS_UTILS_TEST_SUPPORT_H_
#define ZOVDX_TESTS_UTILS_TEST_SUPPORT_H_

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "utils/logger.h"

namespace testing_support {

struct LogOutput {
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs body with standard output and error captured. With a level name, the log level is
// set to it for the call and back to "info" afterwards; without one it is left alone.
template <typename Body>
LogOutput CaptureLog(const char* level, Body body) {
  if (level != nullptr) utils::SetLogLevel(std::string(level));
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  body();
  LogOutput result;
  result.out = testing::internal::GetCapturedStdout();
  result.err = testing::internal::GetCapturedStderr();
  if (level != nullptr) utils::SetLogLevel(std::string("info"));
  return result;
}

// A fresh directory under /tmp, removed with everything in it at scope exit.
class ScratchDir {
 public:
  ScratchDir() {
    char pattern[] = "/tmp/zovdx-test-XXXXXX";
    path_ = mkdtemp(pattern);
  }
  ~ScratchDir() {
    const std::string command = "rm -rf '" + path_ + "'";
    if (system(command.c_str()) != 0) perror("rm");
  }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline int OpenDescriptorCount() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
  }
  return count;
}

// Processes whose parent is this process, zombies included.
inline int ChildCount() {
  int count = 0;
  const std::string me = std::to_string(getpid());
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return -1;
  while (const dirent* entry = readdir(proc)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    std::ifstream stat(std::string("/proc/") + entry->d_name + "/stat");
    std::string line;
    if (!std::getline(stat, line)) continue;
    // The parent pid is the second field after the parenthesised command name.
    const size_t close = line.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream rest(line.substr(close + 2));
    std::string state, ppid;
    rest >> state >> ppid;
    if (ppid == me) ++count;
  }
  closedir(proc);
  return count;
}

// True when some descriptor of this process refers to path and every such descriptor is
// close-on-exec.
inline bool OpenOnlyCloseOnExec(const std::string& path) {
  bool seen = false;
  for (int fd = 0; fd < 1024; ++fd) {
    char target[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
    if (n <= 0) continue;
    target[n] = '\0';
    if (path != target) continue;
    seen = true;
    if (!(fcntl(fd, F_GETFD) & FD_CLOEXEC)) return false;
  }
  return seen;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace testing_support

#endif  // ZOVDX_TESTS_UTILS_TEST_SUPPORT_H_
