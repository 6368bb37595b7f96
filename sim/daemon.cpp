#include "sim/daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "sim/driver.h"
#include "sim/service.h"
#include "sim/sysfs.h"
#include "sim/wire.h"

extern char** environ;

namespace vdxsim {
namespace {

int Listen(const char* name, int type) {
  int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  sockaddr_un addr;
  socklen_t len = vdxsim_abstract_addr(&addr, name);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(fd, 128) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

class Daemon {
 public:
  explicit Daemon(const DaemonConfig& config)
      : config_(config),
        driver_(config.machine),
        sysfs_(""),
        service_(config.machine.system_mode),
        world_{&driver_, &sysfs_, &service_, config.etc, config.machine.module_state},
        buffer_(VDXSIM_MAX_MESSAGE) {}

  int Run();

 private:
  bool Setup();
  pid_t StartCommand(const sigset_t& original_mask);
  void OnSignal();
  void OnDriverAccept();
  void OnDriverMessage(int fd);
  void DropDriverSocket(int fd);
  void SettleHangups(int except);
  void OnControlAccept();
  void OnControlData(int fd);
  void Reply(int fd, int error, uint64_t conn, const std::vector<uint8_t>* record,
             const IoctlOutput* out, int pass_fd);

  const DaemonConfig& config_;
  Driver driver_;
  Sysfs sysfs_;
  Service service_;
  World world_;
  int signal_fd_ = -1;
  int driver_fd_ = -1;
  int control_fd_ = -1;
  pid_t command_ = -1;
  int exit_status_ = -1;
  std::map<int, uint64_t> driver_socks_;   // socket -> connection (0 before open/attach)
  std::map<uint64_t, int> conn_sockets_;   // connection -> sockets attached
  std::map<int, int32_t> peer_pids_;
  std::map<int, std::string> control_in_;  // control socket -> request so far
  std::vector<uint8_t> buffer_;
};

bool Daemon::Setup() {
  std::string error = sysfs_.Publish(config_.machine);
  if (error.empty()) error = service_.Start();
  driver_fd_ = Listen(VDXSIM_DRIVER_SOCKET, SOCK_SEQPACKET);
  control_fd_ = Listen(VDXSIM_CONTROL_SOCKET, SOCK_STREAM);
  if (error.empty() && (driver_fd_ < 0 || control_fd_ < 0)) {
    error = std::string("cannot listen on the driver sockets: ") + std::strerror(errno);
  }
  if (!error.empty()) {
    std::fprintf(stderr, "vdx-sim: %s\n", error.c_str());
    return false;
  }
  return true;
}

pid_t Daemon::StartCommand(const sigset_t& original_mask) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  sigprocmask(SIG_SETMASK, &original_mask, nullptr);
  signal(SIGPIPE, SIG_DFL);
  std::vector<char*> argv, envp;
  for (const auto& a : config_.argv) argv.push_back(const_cast<char*>(a.c_str()));
  for (const auto& e : config_.env) envp.push_back(const_cast<char*>(e.c_str()));
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  // The command is looked up in its own PATH, which names the launcher's directory.
  environ = envp.data();
  execvp(argv[0], argv.data());
  int err = errno;
  std::fprintf(stderr, "vdx-sim: cannot run %s: %s\n", argv[0], std::strerror(err));
  _exit(err == ENOENT ? 127 : 126);
}

void Daemon::OnSignal() {
  signalfd_siginfo info;
  while (read(signal_fd_, &info, sizeof info) == sizeof info) {
    if (info.ssi_signo != SIGCHLD) {
      // Termination requests go to the command; its end ends the sandbox.
      if (command_ > 0 && exit_status_ < 0) kill(command_, static_cast<int>(info.ssi_signo));
      continue;
    }
  }
  // As pid 1 every orphan of the sandbox is ours to reap.
  int status = 0;
  pid_t pid;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
    if (pid != command_) continue;
    exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
}

void Daemon::OnDriverAccept() {
  int fd = accept4(driver_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) return;
  ucred cred{};
  socklen_t len = sizeof cred;
  getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len);
  driver_socks_[fd] = 0;
  peer_pids_[fd] = cred.pid;
}

void Daemon::DropDriverSocket(int fd) {
  uint64_t conn = driver_socks_[fd];
  driver_socks_.erase(fd);
  peer_pids_.erase(fd);
  close(fd);
  // The connection lives while any process still holds one of its sockets.
  if (conn != 0 && --conn_sockets_[conn] == 0) {
    conn_sockets_.erase(conn);
    driver_.Close(conn);
    sysfs_.Sync(driver_);
  }
}

// Drops every driver socket whose peer is gone and that has nothing left to read. A
// socket still held by some process (a duplicate, a forked child's copy) is not gone.
void Daemon::SettleHangups(int except) {
  std::vector<pollfd> fds;
  for (const auto& [fd, conn] : driver_socks_) {
    if (fd != except) fds.push_back({fd, POLLIN, 0});
  }
  if (poll(fds.data(), fds.size(), 0) <= 0) return;
  for (const pollfd& p : fds) {
    char byte;
    if ((p.revents & (POLLHUP | POLLERR)) && recv(p.fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0) {
      DropDriverSocket(p.fd);
    }
  }
}

void Daemon::Reply(int fd, int error, uint64_t conn, const std::vector<uint8_t>* record,
                   const IoctlOutput* out, int pass_fd) {
  vdxsim_reply reply{};
  reply.error = error;
  reply.conn = conn;
  iovec iov[4];
  int n = 0;
  iov[n++] = {&reply, sizeof reply};
  if (error == 0 && record != nullptr) {
    reply.record_size = static_cast<uint32_t>(record->size());
    iov[n++] = {const_cast<uint8_t*>(record->data()), record->size()};
  }
  if (error == 0 && out != nullptr) {
    reply.mask_words = static_cast<uint32_t>(out->mask.size());
    reply.data_size = static_cast<uint32_t>(out->data.size());
    iov[n++] = {const_cast<uint32_t*>(out->mask.data()), out->mask.size() * 4};
    iov[n++] = {const_cast<uint8_t*>(out->data.data()), out->data.size()};
  }
  msghdr msg{};
  msg.msg_iov = iov;
  msg.msg_iovlen = static_cast<size_t>(n);
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  if (pass_fd >= 0) {
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr* cm = CMSG_FIRSTHDR(&msg);
    cm->cmsg_level = SOL_SOCKET;
    cm->cmsg_type = SCM_RIGHTS;
    cm->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(cm), &pass_fd, sizeof(int));
  }
  // The caller waits for this reply, so a blocking send cannot stall for long.
  int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  sendmsg(fd, &msg, MSG_NOSIGNAL);
  fcntl(fd, F_SETFL, flags);
}

void Daemon::OnDriverMessage(int fd) {
  ssize_t n = recv(fd, buffer_.data(), buffer_.size(), 0);
  if (n <= 0) {
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    DropDriverSocket(fd);
    return;
  }
  vdxsim_request req;
  if (static_cast<size_t>(n) < sizeof req) {
    DropDriverSocket(fd);
    return;
  }
  std::memcpy(&req, buffer_.data(), sizeof req);
  uint64_t& conn = driver_socks_[fd];
  if (req.kind == VDXSIM_MSG_OPEN && conn == 0) {
    int err = 0;
    uint64_t id = driver_.Open(peer_pids_[fd], &err);
    if (id != 0) {
      conn = id;
      ++conn_sockets_[id];
    }
    Reply(fd, err, id, nullptr, nullptr, -1);
    return;
  }
  if (req.kind == VDXSIM_MSG_ATTACH && conn == 0) {
    bool known = driver_.HasConnection(req.conn) && driver_.inherited_usable();
    if (known) {
      conn = req.conn;
      ++conn_sockets_[conn];
    }
    Reply(fd, known ? 0 : EBADF, conn, nullptr, nullptr, -1);
    return;
  }
  if (req.kind == VDXSIM_MSG_SETTLE && conn == 0) {
    SettleHangups(fd);
    Reply(fd, 0, 0, nullptr, nullptr, -1);
    return;
  }
  size_t want = sizeof req + req.record_size + 4ull * req.mask_words;
  if (req.kind != VDXSIM_MSG_IOCTL || conn == 0 || req.record_size > VDXSIM_MAX_RECORD ||
      req.mask_words > VDXSIM_MAX_MASK_WORDS || static_cast<size_t>(n) != want) {
    Reply(fd, EBADF, conn, nullptr, nullptr, -1);
    return;
  }
  std::vector<uint8_t> record(buffer_.begin() + sizeof req,
                              buffer_.begin() + sizeof req + req.record_size);
  std::vector<uint32_t> mask(req.mask_words);
  if (!mask.empty()) {
    std::memcpy(mask.data(), buffer_.data() + sizeof req + req.record_size, 4ull * mask.size());
  }
  IoctlInput in;
  in.mask = mask.data();
  in.mask_words = mask.size();
  in.mask_fault = (req.flags & VDXSIM_FLAG_MASK_FAULT) != 0;
  in.record_fault = (req.flags & VDXSIM_FLAG_RECORD_FAULT) != 0;
  in.data_limit = VDXSIM_MAX_DATA;
  IoctlOutput out;
  int err = driver_.Ioctl(conn, req.code, &record, in, &out);
  int pass_fd = -1;
  if (err == 0 && out.service_socket) {
    pass_fd = service_.ConnectedSocket();
    if (pass_fd < 0) err = errno;
  }
  sysfs_.Sync(driver_);
  Reply(fd, err, conn, &record, &out, pass_fd);
  if (pass_fd >= 0) close(pass_fd);
}

void Daemon::OnControlAccept() {
  int fd = accept4(control_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd >= 0) control_in_[fd] = "";
}

void Daemon::OnControlData(int fd) {
  char buf[4096];
  ssize_t n = recv(fd, buf, sizeof buf, 0);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n > 0) {
    control_in_[fd].append(buf, static_cast<size_t>(n));
    if (control_in_[fd].size() < (1u << 20)) return;
  }
  // The client half-closes after its request: arguments, each ended by a NUL.
  std::vector<std::string> args;
  const std::string& in = control_in_[fd];
  for (size_t start = 0; start < in.size();) {
    size_t end = in.find('\0', start);
    if (end == std::string::npos) end = in.size();
    args.push_back(in.substr(start, end - start));
    start = end + 1;
  }
  std::string text;
  int32_t status = n < 0 ? 2 : RunControl(args, &world_, &text);
  sysfs_.Sync(driver_);
  std::string reply(reinterpret_cast<const char*>(&status), sizeof status);
  reply += text;
  int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  for (size_t off = 0; off < reply.size();) {
    ssize_t w = send(fd, reply.data() + off, reply.size() - off, MSG_NOSIGNAL);
    if (w <= 0) break;
    off += static_cast<size_t>(w);
  }
  close(fd);
  control_in_.erase(fd);
}

int Daemon::Run() {
  sigset_t mask, original;
  sigemptyset(&mask);
  for (int s : {SIGCHLD, SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}) sigaddset(&mask, s);
  sigprocmask(SIG_BLOCK, &mask, &original);
  signal(SIGPIPE, SIG_IGN);
  signal_fd_ = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signal_fd_ < 0 || !Setup()) return 125;
  command_ = StartCommand(original);
  if (command_ < 0) {
    std::perror("vdx-sim: fork");
    return 125;
  }
  std::vector<pollfd> fds;
  while (exit_status_ < 0) {
    fds.clear();
    fds.push_back({signal_fd_, POLLIN, 0});
    fds.push_back({config_.parent_fd, POLLIN, 0});
    fds.push_back({driver_fd_, POLLIN, 0});
    fds.push_back({control_fd_, POLLIN, 0});
    for (const auto& [fd, conn] : driver_socks_) fds.push_back({fd, POLLIN, 0});
    for (const auto& [fd, text] : control_in_) fds.push_back({fd, POLLIN, 0});
    service_.PollFds(&fds);
    int ready = poll(fds.data(), fds.size(), service_.Timeout());
    if (ready < 0 && errno != EINTR) break;
    service_.Tick();
    for (const pollfd& p : fds) {
      if (p.revents == 0) continue;
      if (p.fd == signal_fd_) {
        OnSignal();
      } else if (p.fd == config_.parent_fd) {
        return 128 + SIGKILL;  // the launcher is gone: so is the sandbox
      } else if (p.fd == driver_fd_) {
        OnDriverAccept();
      } else if (p.fd == control_fd_) {
        OnControlAccept();
      } else if (driver_socks_.count(p.fd)) {
        OnDriverMessage(p.fd);
      } else if (control_in_.count(p.fd)) {
        OnControlData(p.fd);
      } else if (service_.Owns(p.fd)) {
        service_.Handle(p.fd, p.revents);
      }
    }
  }
  return exit_status_ < 0 ? 125 : exit_status_;
}

}  // namespace

int RunDaemon(const DaemonConfig& config) {
  Daemon daemon(config);
  return daemon.Run();
}

}  // namespace vdxsim
