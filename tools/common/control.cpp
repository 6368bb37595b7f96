#include "tools/common/control.h"

#include <stddef.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

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

bool ReadRequest(int client, std::string* request) {
  timeval limit = {5, 0};
  setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  return ReadLine(client, request);
}

void WriteAnswer(int client, int status, const std::string& text) {
  WriteAll(client, std::to_string(status) + " " + text + "\n");
}

bool PeerIsRoot(int client) {
  ucred peer;
  socklen_t size = sizeof(peer);
  return getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == 0;
}

}  // namespace vdxtool
