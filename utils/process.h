// Runs one external command (no shell) as a child, collects its standard output and error
// into a string, and reaps it with an optional silence time-out after which it is killed.
#ifndef ZOVDX_UTILS_PROCESS_H_
#define ZOVDX_UTILS_PROCESS_H_

#include <string>

namespace utils {

enum ProcessStatus {
  PROCESS_ERROR = -1,
  PROCESS_SUCCESS = 0,
  PROCESS_TIMEOUT = 1,
  PROCESS_RUNNING = 2,
};

class Process {
 public:
  Process() = default;
  // Closes the pipe; a child still there is killed and reaped.
  ~Process();

  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Starts command, split at single blanks (quotes are not interpreted). PROCESS_RUNNING
  // when a child of this object still runs; PROCESS_ERROR for an empty command or when
  // the pipe or fork fails. An unknown program exits 127.
  ProcessStatus Create(const std::string& command);
  // Collects output until end of file and reaps the child. timeout (ms, 0 = none) bounds
  // each silence: when it passes, the child is killed and PROCESS_TIMEOUT returned. A child
  // that exits with a non-zero code gives PROCESS_ERROR (its code is in GetExitCode).
  ProcessStatus Wait(unsigned long timeout);
  ProcessStatus Execute(const std::string& command, unsigned long timeout);
  void Kill();
  bool IsRunning();

  const std::string& GetOutputString() const { return output_string_; }
  int GetExitCode() const { return exit_code_; }

 private:
  // Whether the child is still ours to signal and reap (not reaped by anybody); with
  // running_only, whether it has not ended either.
  bool ChildUnreaped(bool running_only);
  int KillChild();
  // Reaps the child, storing a waitpid-style status word; forgets the child in any case.
  bool ReapChild(int* raw_status);

  int pid_ = -1;
  int pipe_id_ = -1;
  std::string output_string_;
  int exit_code_ = -1;
  int pidfd_ = -1;  // names exactly the child started, where the kernel supports it
};

}  // namespace utils

#endif  // ZOVDX_UTILS_PROCESS_H_
