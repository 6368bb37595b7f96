#include "sim/service.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sim/wire.h"

namespace vdxsim {
namespace {

// A request larger than this is not one the service understands; the peer is dropped.
constexpr int32_t kMaxRequestPayload = 1 << 20;

template <class T>
void Put(std::string* s, T v) {
  s->append(reinterpret_cast<const char*>(&v), sizeof v);
}

template <class T>
T Get(const std::string& s, size_t at) {
  T v;
  std::memcpy(&v, s.data() + at, sizeof v);
  return v;
}

}  // namespace

std::string EncodeFrame(int32_t pid, int16_t from_type, int16_t cmd_type, const std::string& payload) {
  std::string f;
  Put<int32_t>(&f, kFrameMagic);
  Put<int32_t>(&f, pid);
  Put<int16_t>(&f, from_type);
  Put<int16_t>(&f, cmd_type);
  Put<int32_t>(&f, static_cast<int32_t>(payload.size()));
  return f + payload;
}

std::string Service::Start() {
  if (listen_fd_ >= 0) return "";
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un addr;
  socklen_t len = vdxsim_abstract_addr(&addr, kServiceName);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(fd, 128) != 0) {
    std::string why = std::strerror(errno);
    if (fd >= 0) close(fd);
    return "cannot listen on the service socket: " + why;
  }
  listen_fd_ = fd;
  return "";
}

void Service::Stop() {
  if (listen_fd_ >= 0) close(listen_fd_);
  listen_fd_ = -1;
  for (auto& [fd, c] : clients_) close(fd);
  clients_.clear();
}

int Service::ConnectedSocket() {
  if (listen_fd_ < 0) {
    errno = ECONNREFUSED;
    return -1;
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_un addr;
  socklen_t len = vdxsim_abstract_addr(&addr, kServiceName);
  // The listener is ours and not accepting yet; connect completes from the backlog.
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    int err = errno;
    close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

void Service::SetMode(ServiceMode mode, int32_t status, int16_t type) {
  mode_ = mode;
  error_status_ = status;
  wrong_type_ = type;
}

std::string Service::Describe() const {
  std::string s = running() ? "running" : "stopped";
  switch (mode_) {
    case ServiceMode::kNormal: return s + " normal";
    case ServiceMode::kError: return s + " error " + std::to_string(error_status_);
    case ServiceMode::kWrongType: return s + " wrong-type " + std::to_string(wrong_type_);
    case ServiceMode::kTrickle: return s + " trickle";
    case ServiceMode::kDisconnect: return s + " disconnect";
  }
  return s;
}

void Service::PollFds(std::vector<pollfd>* fds) const {
  if (listen_fd_ >= 0) fds->push_back({listen_fd_, POLLIN, 0});
  for (const auto& [fd, c] : clients_) {
    short ev = POLLIN;
    if (!c.out.empty() && !c.trickle) ev |= POLLOUT;
    fds->push_back({fd, ev, 0});
  }
}

int Service::Timeout() const {
  for (const auto& [fd, c] : clients_) {
    if (c.trickle && !c.out.empty()) return 1;
  }
  return -1;
}

void Service::Tick() {
  std::vector<int> fds;
  for (const auto& [fd, c] : clients_) {
    if (c.trickle && !c.out.empty()) fds.push_back(fd);
  }
  for (int fd : fds) Flush(fd, &clients_[fd]);
}

void Service::Drop(int fd) {
  close(fd);
  clients_.erase(fd);
}

void Service::Flush(int fd, Client* c) {
  if (c->trickle) {
    // The next byte waits until the peer has read the last one, so that every read it
    // makes returns exactly one byte.
    int queued = 0;
    if (ioctl(fd, SIOCOUTQ, &queued) == 0 && queued > 0) return;
  }
  while (!c->out.empty()) {
    // Trickling clients get one byte per tick, so that each arrives in its own read.
    size_t n = c->trickle ? 1 : c->out.size();
    ssize_t w = send(fd, c->out.data(), n, MSG_NOSIGNAL);
    if (w < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      Drop(fd);
      return;
    }
    c->out.erase(0, static_cast<size_t>(w));
    if (c->trickle) break;
  }
  if (c->out.empty() && c->close_after) Drop(fd);
}

void Service::Handle(int fd, short revents) {
  if (fd == listen_fd_) {
    int c = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (c >= 0) clients_[c] = Client{};
    return;
  }
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  Client* c = &it->second;
  if (revents & POLLOUT) {
    Flush(fd, c);
    if (clients_.count(fd) == 0) return;
  }
  if (!(revents & (POLLIN | POLLHUP | POLLERR))) return;
  char buf[4096];
  ssize_t n = recv(fd, buf, sizeof buf, 0);
  if (n <= 0) {
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    Drop(fd);
    return;
  }
  if (c->close_after) return;  // past a broken reply nothing more is read
  c->in.append(buf, static_cast<size_t>(n));
  while (c->in.size() >= kFrameHeader && !c->close_after) {
    int32_t magic = Get<int32_t>(c->in, 0);
    int32_t size = Get<int32_t>(c->in, 12);
    if (magic != kFrameMagic || size < 0 || size > kMaxRequestPayload) {
      // Not a frame of this protocol: say so and hang up, as nothing after it can be trusted.
      c->out += EncodeFrame(getpid(), kFromServer, kCmdInvalid, "");
      c->close_after = true;
      c->in.clear();
      break;
    }
    size_t total = kFrameHeader + static_cast<size_t>(size);
    if (c->in.size() < total) break;
    std::string request = c->in.substr(0, total);
    c->in.erase(0, total);
    c->out += Answer(request, c);
  }
  if (!c->trickle) Flush(fd, c);
}

std::string Service::Answer(const std::string& request, Client* c) {
  int16_t type = Get<int16_t>(request, 10);
  std::string payload = request.substr(kFrameHeader);
  int16_t reply_type = type;
  std::string body;
  int32_t status = -1;
  if (type == kCmdGetSystemMode) {
    Put<int32_t>(&body, system_mode_);
  } else if (type == kCmdGetProcessInfo) {
    if (payload.size() < 4) {
      status = kSrvInvalidValue;
    } else {
      int32_t pid = Get<int32_t>(payload, 0);
      auto it = processes_.find(pid);
      std::array<int32_t, 3> info = it == processes_.end() ? std::array<int32_t, 3>{-1, -1, -1}
                                                           : it->second;
      for (int32_t v : info) Put<int32_t>(&body, v);
    }
  } else {
    status = kSrvUnsupported;
  }
  if (mode_ == ServiceMode::kError) status = error_status_;
  if (status >= 0) {
    reply_type = kCmdError;
    body.clear();
    Put<int32_t>(&body, status);
  } else if (mode_ == ServiceMode::kWrongType) {
    reply_type = wrong_type_ != 0 ? wrong_type_
                                  : (type == kCmdGetSystemMode ? kCmdGetProcessInfo : kCmdGetSystemMode);
  }
  std::string frame = EncodeFrame(getpid(), kFromServer, reply_type, body);
  if (mode_ == ServiceMode::kTrickle) c->trickle = true;
  if (mode_ == ServiceMode::kDisconnect) {
    // Cut inside the frame: the whole header and half of the payload, then hang up.
    frame.resize(kFrameHeader + body.size() / 2);
    c->close_after = true;
  }
  return frame;
}

}  // namespace vdxsim
