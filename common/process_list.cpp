#include "common/process_list.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace {

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

// Reads a whole /proc file relative to the /proc directory descriptor.
bool ReadProcFile(int proc_fd, const std::string& path, std::string& text) {
  text.clear();
  const int fd = openat(proc_fd, path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  return true;
}

bool IsPid(const char* name) {
  if (*name == '\0') return false;
  for (; *name != '\0'; ++name)
    if (*name < '0' || *name > '9') return false;
  return true;
}

}  // namespace

bool ForEachProcessCommand(const std::function<bool(const std::string&)>& visit) {
  std::unique_ptr<DIR, DirCloser> proc(opendir("/proc"));
  if (!proc) return false;
  const int proc_fd = dirfd(proc.get());
  std::string command;
  std::string stat;
  while (const struct dirent* entry = readdir(proc.get())) {
    if (!IsPid(entry->d_name)) continue;
    const std::string pid = entry->d_name;
    if (!ReadProcFile(proc_fd, pid + "/cmdline", command)) continue;
    // Arguments are separated (and ended) by zero bytes; ps shows them joined by blanks.
    while (!command.empty() && command.back() == '\0') command.pop_back();
    if (!command.empty()) {
      for (char& c : command)
        if (c == '\0') c = ' ';
    } else {
      // No command line: ps shows the name from the stat line, in square brackets. The
      // name is the text between the first "(" and the last ")".
      if (!ReadProcFile(proc_fd, pid + "/stat", stat)) continue;
      const size_t open = stat.find('(');
      const size_t close = stat.rfind(')');
      if (open == std::string::npos || close == std::string::npos || close < open) continue;
      command = "[" + stat.substr(open + 1, close - open - 1) + "]";
    }
    if (!visit(command)) break;
  }
  return true;
}
