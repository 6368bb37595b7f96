#include "utils/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "utils/path.h"
#include "utils/utils.h"

namespace utils {

Process::~Process() {
  if (pipe_id_ >= 0) close(pipe_id_);
  // A child that outlives its owner would be a leak: kill it and reap it.
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
}

ProcessStatus Process::Create(const std::string& command) {
  if (command.empty()) return PROCESS_ERROR;
  if (IsRunning()) return PROCESS_RUNNING;
  if (pid_ > 0) {
    // The last child ended but was never waited for: reap it rather than leave a zombie.
    waitpid(pid_, nullptr, 0);
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

  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return PROCESS_ERROR;
  const pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return PROCESS_ERROR;
  }
  if (pid == 0) {
    // dup2 clears close-on-exec on the copies, so only standard output and error survive.
    dup2(fds[1], STDOUT_FILENO);
    dup2(fds[1], STDERR_FILENO);
    close(fds[0]);
    close(fds[1]);
    execvp(program.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  if (pipe_id_ >= 0) close(pipe_id_);
  pipe_id_ = fds[0];
  pid_ = pid;
  exit_code_ = -1;
  return PROCESS_SUCCESS;
}

ProcessStatus Process::Wait(unsigned long timeout) {
  if (pid_ < 1 || pipe_id_ < 1) return PROCESS_ERROR;
  ProcessStatus result = PROCESS_SUCCESS;
  bool reached_eof = false;
  while (!reached_eof) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(pipe_id_, &readable);
    struct timeval limit;
    struct timeval* limit_ptr = nullptr;
    if (timeout != 0) {
      limit.tv_sec = static_cast<time_t>(timeout / 1000);
      limit.tv_usec = static_cast<suseconds_t>((timeout % 1000) * 1000);
      limit_ptr = &limit;
    }
    const int ready = select(pipe_id_ + 1, &readable, nullptr, nullptr, limit_ptr);
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
  if (!reached_eof && kill(pid_, SIGKILL) != 0) result = PROCESS_ERROR;

  int status = 0;
  pid_t reaped;
  do {
    reaped = waitpid(pid_, &status, 0);
  } while (reaped < 0 && errno == EINTR);
  if (reaped < 0 || (status != 0 && status != SIGKILL)) result = PROCESS_ERROR;
  if (reaped > 0 && WIFEXITED(status)) exit_code_ = WEXITSTATUS(status);
  pid_ = -1;
  return result;
}

ProcessStatus Process::Execute(const std::string& command, unsigned long timeout) {
  const ProcessStatus status = Create(command);
  if (status != PROCESS_SUCCESS) return status;
  return Wait(timeout);
}

void Process::Kill() {
  if (IsRunning()) kill(pid_, SIGKILL);
}

bool Process::IsRunning() {
  if (pid_ < 1) return false;
  // Peek without reaping, so that Wait still gets the exit status.
  siginfo_t info;
  memset(&info, 0, sizeof(info));
  if (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
    return false;
  return info.si_pid == 0;
}

}  // namespace utils
