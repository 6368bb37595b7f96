#include "utils/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include "utils/path.h"
#include "utils/scoped.h"
#include "utils/utils.h"

namespace utils {
namespace {

// Moves a pipe end above the standard descriptors. A caller that closed its standard input
// or output gets 0 or 1 back from pipe(); the child's dup2 onto 1 would then be a no-op that
// keeps close-on-exec, and the parent's reading end would look like "no pipe". -1 on failure
// (the old descriptor is closed in any case).
int AboveStandardDescriptors(int fd) {
  if (fd > STDERR_FILENO) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  close(fd);
  return moved;
}

}  // namespace

// The child is named by a pidfd where the kernel has them: a pid that somebody else reaped
// (a SIGCHLD handler, a waitpid(-1)) may already belong to another process, even to another
// child of ours, and must be neither signalled nor waited for. Without pidfds the pid is
// the best there is.
bool Process::ChildUnreaped(bool running_only) {
  siginfo_t info;
  memset(&info, 0, sizeof(info));
  const int options = WEXITED | WNOHANG | WNOWAIT;
  const int rc = pidfd_ >= 0 ? waitid(P_PIDFD, static_cast<id_t>(pidfd_), &info, options)
                             : waitid(P_PID, static_cast<id_t>(pid_), &info, options);
  if (rc != 0) return false;
  // si_pid stays 0 while the child has not ended.
  return running_only ? info.si_pid == 0 : true;
}

int Process::KillChild() {
  if (pidfd_ >= 0) return static_cast<int>(syscall(SYS_pidfd_send_signal, pidfd_, SIGKILL, nullptr, 0));
  return kill(pid_, SIGKILL);
}

bool Process::ReapChild(int* raw_status) {
  siginfo_t info;
  int rc;
  do {
    memset(&info, 0, sizeof(info));
    rc = pidfd_ >= 0 ? waitid(P_PIDFD, static_cast<id_t>(pidfd_), &info, WEXITED)
                     : waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED);
  } while (rc != 0 && errno == EINTR);
  if (pidfd_ >= 0) close(pidfd_);
  pidfd_ = -1;
  pid_ = -1;
  if (rc != 0) return false;
  // Back to the status word waitpid would give: the exit code in the second byte, or the
  // signal number (with 0x80 for a core dump).
  if (info.si_code == CLD_EXITED)
    *raw_status = (info.si_status & 0xff) << 8;
  else
    *raw_status = (info.si_status & 0x7f) | (info.si_code == CLD_DUMPED ? 0x80 : 0);
  return true;
}

Process::~Process() {
  if (pipe_id_ >= 0) close(pipe_id_);
  // A child that outlives its owner would be a leak: kill it and reap it.
  if (pid_ > 0 && ChildUnreaped(false)) {
    KillChild();
    int status;
    ReapChild(&status);
  }
  if (pidfd_ >= 0) close(pidfd_);
}

ProcessStatus Process::Create(const std::string& command) {
  if (command.empty()) return PROCESS_ERROR;
  if (IsRunning()) return PROCESS_RUNNING;
  if (pid_ > 0) {
    // The last child ended but was never waited for: reap it rather than leave a zombie.
    int status;
    if (ChildUnreaped(false)) ReapChild(&status);
    if (pidfd_ >= 0) close(pidfd_);
    pidfd_ = -1;
    pid_ = -1;
  }
  output_string_.clear();

  // The argument vector is built before fork: the child of a threaded caller may only
  // make async-signal-safe calls, and allocating is not one of them.
  std::vector<std::string> pieces;
  SplitStr(command, " ", pieces, false);
  if (pieces.empty()) return PROCESS_ERROR;
  const std::string program = pieces[0];
  pieces[0] = std::get<1>(Path::GetLastName(program));
  std::vector<char*> argv;
  for (std::string& piece : pieces) argv.push_back(piece.data());
  argv.push_back(nullptr);

  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return PROCESS_ERROR;
  utils::FdHandle read_end(AboveStandardDescriptors(ends[0]));
  utils::FdHandle write_end(AboveStandardDescriptors(ends[1]));
  if (read_end.get() < 0 || write_end.get() < 0) return PROCESS_ERROR;
  const pid_t pid = fork();
  if (pid < 0) return PROCESS_ERROR;
  if (pid == 0) {
    // dup2 clears close-on-exec on the copies, so only standard output and error survive the
    // exec; the child leaves by exec or _exit, never through the holders.
    dup2(write_end.get(), STDOUT_FILENO);
    dup2(write_end.get(), STDERR_FILENO);
    execvp(program.c_str(), argv.data());
    _exit(127);
  }
  write_end.reset();
  if (pipe_id_ >= 0) close(pipe_id_);
  pipe_id_ = read_end.release();
  pid_ = pid;
  // Nobody else can have reaped the child yet unless another thread waits for any child;
  // without pidfd support (ENOSYS) the pid alone names it.
  pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  exit_code_ = -1;
  return PROCESS_SUCCESS;
}

ProcessStatus Process::Wait(unsigned long timeout) {
  if (pid_ < 1 || pipe_id_ < 1) return PROCESS_ERROR;
  ProcessStatus result = PROCESS_SUCCESS;
  bool reached_eof = false;
  while (!reached_eof) {
    // poll, not select: select's fixed-size set cannot hold a descriptor of 1024 or more.
    struct pollfd readable = {pipe_id_, POLLIN, 0};
    const int limit = timeout == 0 ? -1
                      : timeout > static_cast<unsigned long>(INT_MAX)
                          ? INT_MAX
                          : static_cast<int>(timeout);
    const int ready = poll(&readable, 1, limit);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      result = ready < 0 ? PROCESS_ERROR : PROCESS_TIMEOUT;
      break;
    }
    char buffer[4096 + 1];
    memset(buffer, 0, sizeof(buffer));
    const ssize_t n = read(pipe_id_, buffer, 4096);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      result = PROCESS_ERROR;
      break;
    }
    if (n == 0) {
      reached_eof = true;
      break;
    }
    // Output is text: a zero byte ends what this read contributes.
    output_string_.append(buffer, strnlen(buffer, static_cast<size_t>(n)));
  }

  close(pipe_id_);
  pipe_id_ = -1;
  if (!reached_eof && (!ChildUnreaped(false) || KillChild() != 0)) result = PROCESS_ERROR;

  int status = 0;
  const bool reaped = ReapChild(&status);
  if (!reaped || (status != 0 && status != SIGKILL)) result = PROCESS_ERROR;
  if (reaped && WIFEXITED(status)) exit_code_ = WEXITSTATUS(status);
  return result;
}

ProcessStatus Process::Execute(const std::string& command, unsigned long timeout) {
  const ProcessStatus status = Create(command);
  if (status != PROCESS_SUCCESS) return status;
  return Wait(timeout);
}

void Process::Kill() {
  if (IsRunning()) KillChild();
}

bool Process::IsRunning() {
  if (pid_ < 1) return false;
  // Peek without reaping, so that Wait still gets the exit status.
  return ChildUnreaped(true);
}

}  // namespace utils
