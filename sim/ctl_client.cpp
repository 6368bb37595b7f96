#include "sim/ctl_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "sim/wire.h"

namespace vdxsim {

int SimControl(const std::vector<std::string>& args, std::string* out) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr;
  socklen_t len = vdxsim_abstract_addr(&addr, VDXSIM_CONTROL_SOCKET);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    if (fd >= 0) close(fd);
    *out = "vdx-sim ctl: no simulator here; run it inside `vdx-sim -- COMMAND`\n";
    return kNoSimulator;
  }
  std::string request;
  for (const auto& a : args) request += a + '\0';
  bool ok = true;
  for (size_t off = 0; ok && off < request.size();) {
    ssize_t w = send(fd, request.data() + off, request.size() - off, MSG_NOSIGNAL);
    ok = w > 0 || (w < 0 && errno == EINTR);
    if (w > 0) off += static_cast<size_t>(w);
  }
  shutdown(fd, SHUT_WR);
  std::string reply;
  char buf[4096];
  for (;;) {
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    reply.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  int32_t status = 0;
  if (!ok || reply.size() < sizeof status) {
    *out = "vdx-sim ctl: the simulator did not answer\n";
    return 1;
  }
  std::memcpy(&status, reply.data(), sizeof status);
  *out = reply.substr(sizeof status);
  return status;
}

}  // namespace vdxsim
