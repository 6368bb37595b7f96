#include "raw_client.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

}  // namespace rawsim
