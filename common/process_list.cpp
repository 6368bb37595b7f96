#include "common/process_list.h"

#include <dirent.h>

#include "utils/file.h"
#include "utils/scoped.h"

namespace {

bool IsPid(const char* name) {
  if (*name == '\0') return false;
  for (; *name != '\0'; ++name)
    if (*name < '0' || *name > '9') return false;
  return true;
}

}  // namespace

bool ForEachProcessCommand(const std::function<bool(const std::string&)>& visit) {
  utils::DirHandle proc(opendir("/proc"));
  if (!proc) return false;
  const int proc_fd = dirfd(proc.get());
  std::string command;
  std::string stat;
  while (const struct dirent* entry = readdir(proc.get())) {
    if (!IsPid(entry->d_name)) continue;
    const std::string pid = entry->d_name;
    if (!ReadSmallFile(pid + "/cmdline", command, 0, proc_fd)) continue;
    // Arguments are separated (and ended) by zero bytes; ps shows them joined by blanks.
    while (!command.empty() && command.back() == '\0') command.pop_back();
    if (!command.empty()) {
      for (char& c : command)
        if (c == '\0') c = ' ';
    } else {
      // No command line: ps shows the name from the stat line, in square brackets. The
      // name is the text between the first "(" and the last ")".
      if (!ReadSmallFile(pid + "/stat", stat, 0, proc_fd)) continue;
      const size_t open = stat.find('(');
      const size_t close = stat.rfind(')');
      if (open == std::string::npos || close == std::string::npos || close < open) continue;
      command = "[" + stat.substr(open + 1, close - open - 1) + "]";
    }
    if (!visit(command)) break;
  }
  return true;
}
