#include "tools/common/control.h"

#include <stddef.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vdxtool {
namespace {

socklen_t ControlAddress(sockaddr_un* address) {
  memset(address, 0, sizeof(*address));
  address->sun_family = AF_UNIX;
  memcpy(address->sun_path + 1, kControlSocketName, sizeof(kControlSocketName) - 1);
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + sizeof(kControlSocketName) -
                                1);
}

bool ReadLine(int fd, std::string* line) {
  line->clear();
  char c;
  while (line->size() < 256) {
    const ssize_t n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    if (c == '\n') return true;
    line->push_back(c);
  }
  return false;
}

void WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

}  // namespace

bool AskService(const std::string& request, int* status, std::string* text, std::string* error) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = strerror(errno);
    return false;
  }
  sockaddr_un address;
  const socklen_t length = ControlAddress(&address);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
    *error = strerror(errno);
    close(fd);
    return false;
  }
  // A service that hangs must not hang the tool with it.
  timeval limit = {30, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  WriteAll(fd, request + "\n");
  std::string line;
  const bool answered = ReadLine(fd, &line);
  close(fd);
  if (!answered) {
    *error = "the service did not answer";
    return false;
  }
  const size_t blank = line.find(' ');
  *status = atoi(line.substr(0, blank).c_str());
  *text = blank == std::string::npos ? "" : line.substr(blank + 1);
  return true;
}

int ListenControl() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  sockaddr_un address;
  const socklen_t length = ControlAddress(&address);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, 16) != 0) {
    const int err = errno;
    close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

bool PeerIsRoot(int client) {
  ucred peer;
  socklen_t size = sizeof(peer);
  return getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == 0;
}

ControlServer::~ControlServer() {
  for (const Client& client : clients_) close(client.fd);
}

void ControlServer::AddPollFds(std::vector<pollfd>* fds) const {
  fds->push_back({listen_fd_, POLLIN, 0});
  for (const Client& client : clients_) fds->push_back({client.fd, POLLIN, 0});
}

int ControlServer::MillisecondsToNextDeadline() const {
  if (clients_.empty()) return -1;
  auto next = clients_.front().deadline;
  for (const Client& client : clients_) next = std::min(next, client.deadline);
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      next - std::chrono::steady_clock::now());
  return left.count() < 0 ? 0 : static_cast<int>(left.count()) + 1;
}

void ControlServer::Drop(size_t index) {
  close(clients_[index].fd);
  clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(index));
}

void ControlServer::Accept() {
  // A bounded number per round, so that a flood of connections cannot keep the loop here.
  for (int round = 0; round < 64; ++round) {
    const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    if (!PeerIsRoot(fd)) {
      // Not a word is read from anyone but root.
      const std::string answer = "19 root only\n";
      send(fd, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      close(fd);
      continue;
    }
    if (clients_.size() >= kMaxClients) {
      const std::string answer = "1 busy\n";
      send(fd, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      close(fd);
      continue;
    }
    clients_.push_back({fd, std::string(),
                        std::chrono::steady_clock::now() +
                            std::chrono::milliseconds(kRequestDeadlineMs)});
  }
}

void ControlServer::Serve(const std::vector<pollfd>& fds, size_t first,
                          const std::function<Answer(const std::string&)>& handle) {
  // The clients polled are the first ones of clients_, in order; Accept only appends.
  const size_t polled = fds.size() > first + 1 ? fds.size() - first - 1 : 0;
  std::vector<bool> done(clients_.size(), false);
  for (size_t i = 0; i < polled && i < clients_.size(); ++i) {
    if (fds[first + 1 + i].revents == 0) continue;
    Client& client = clients_[i];
    char buffer[kMaxRequest];
    const ssize_t n = recv(client.fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) {
      done[i] = true;
      continue;
    }
    client.request.append(buffer, static_cast<size_t>(n));
    const size_t end = client.request.find('\n');
    if (end == std::string::npos) {
      done[i] = client.request.size() >= kMaxRequest;  // no line that long is a request
      continue;
    }
    const Answer answer = handle(client.request.substr(0, end));
    // A few dozen bytes into an empty socket buffer: one send, never a wait.
    const std::string line = std::to_string(answer.status) + " " + answer.text + "\n";
    send(client.fd, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    done[i] = true;
  }
  const auto now = std::chrono::steady_clock::now();
  for (size_t i = done.size(); i-- > 0;) {
    if (done[i] || clients_[i].deadline <= now) Drop(i);
  }
  if (!fds.empty() && (fds[first].revents & POLLIN)) Accept();
}

}  // namespace vdxtool
