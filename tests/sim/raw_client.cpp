#include "raw_client.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "sim/ctl_client.h"

namespace rawsim {

int OpenDevice() { return open("/dev/mkfd", O_RDWR | O_CLOEXEC); }

int CreateVgpu(int fd, uint32_t gpu, uint32_t vgpu, const std::vector<uint32_t>& mask,
               uint64_t limit, uint64_t ident, uint64_t group_id) {
  mkfd_ioctl_create_vgpu_args a{};
  a.gpu_id = gpu;
  a.vgpu_id = vgpu;
  a.group_id = group_id;
  a.indentifier = ident;
  a.vram_limit = limit;
  a.num_cu_mask = static_cast<uint32_t>(mask.size() * 32);
  a.cu_mask_ptr = reinterpret_cast<uintptr_t>(mask.data());
  return Call(fd, MKFD_IOC_CREATE_VGPU, &a);
}

int QueryVgpu(int fd, uint32_t gpu, uint32_t vgpu, mkfd_ioctl_query_vgpu_info_args* out,
              std::array<uint32_t, 8>* mask) {
  *out = {};
  mask->fill(0xdeadbeef);
  out->gpu_id = gpu;
  out->vgpu_id = vgpu;
  out->num_cu_mask = 128;
  out->cu_mask_ptr = reinterpret_cast<uintptr_t>(mask->data());
  return Call(fd, MKFD_IOC_QUERY_VGPU_INFO, out);
}

int Ctl(const std::vector<std::string>& args, std::string* out) {
  std::string text;
  int status = vdxsim::SimControl(args, &text);
  if (out != nullptr) *out = text;
  return status;
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  if (!in) return "<missing>";
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  DIR* d = opendir(path.c_str());
  if (d == nullptr) return names;
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") names.push_back(n);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

int ConnectService() {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const char name[] = "xcu_uds_abstract_socket";
  std::memcpy(addr.sun_path + 1, name, sizeof name - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), 2 + 1 + sizeof name - 1) != 0) {
    int err = errno;
    close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

bool SendFrame(int fd, int16_t type, const std::string& payload) {
  std::string f(16, '\0');
  int32_t magic = 0x7A6F6D63, pid = getpid(), size = static_cast<int32_t>(payload.size());
  int16_t from = 3;
  std::memcpy(&f[0], &magic, 4);
  std::memcpy(&f[4], &pid, 4);
  std::memcpy(&f[8], &from, 2);
  std::memcpy(&f[10], &type, 2);
  std::memcpy(&f[12], &size, 4);
  f += payload;
  return send(fd, f.data(), f.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(f.size());
}

bool ReadFrame(int fd, Frame* frame, int* reads) {
  std::string buf;
  size_t want = 16;
  int calls = 0;
  while (buf.size() < want) {
    char c[256];
    ssize_t n = recv(fd, c, std::min(sizeof c, want - buf.size()), 0);
    ++calls;
    if (n <= 0) break;
    buf.append(c, static_cast<size_t>(n));
    if (buf.size() == 16 && want == 16) {
      int32_t size;
      std::memcpy(&size, &buf[12], 4);
      want += static_cast<size_t>(size);
    }
  }
  if (reads != nullptr) *reads = calls;
  if (buf.size() < want) return false;
  std::memcpy(&frame->magic, &buf[0], 4);
  std::memcpy(&frame->pid, &buf[4], 4);
  std::memcpy(&frame->from_type, &buf[8], 2);
  std::memcpy(&frame->cmd_type, &buf[10], 2);
  frame->payload = buf.substr(16);
  return true;
}

}  // namespace rawsim
