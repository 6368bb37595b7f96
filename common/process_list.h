// The system's process list, one line per process as "ps aux" shows its command: the
// arguments joined by blanks, or the name in square brackets for a process without a
// command line (a kernel thread). Read straight from /proc: no shell, no fork.
#ifndef ZOVDX_COMMON_PROCESS_LIST_H_
#define ZOVDX_COMMON_PROCESS_LIST_H_

#include <functional>
#include <string>

// Calls visit with each process's command text until visit returns false. Returns false
// (with errno set) when /proc cannot be listed. Processes that end meanwhile are skipped.
bool ForEachProcessCommand(const std::function<bool(const std::string&)>& visit);

#endif  // ZOVDX_COMMON_PROCESS_LIST_H_
