// A client of the simulated machine written independently of the library: its own open and
// ioctl code, with which tests set up what another program would have made.
#ifndef ZOVDX_TESTS_SIM_RAW_CLIENT_H_
#define ZOVDX_TESTS_SIM_RAW_CLIENT_H_

#include <sys/ioctl.h>

#include <cstdint>
#include <string>
#include <vector>

#include "mkfd/include/mkfd_ioctl.h"

namespace rawsim {

// The default machine's accelerators.
constexpr uint32_t kGpu0 = 21735;  // 60 units, 32 GiB
constexpr uint32_t kGpu1 = 47262;  // 64 units, 16 GiB
constexpr const char* kKfd = "/sys/devices/virtual/kfd/kfd";

// errno of an ioctl: 0 on success.
template <class T>
int Call(int fd, unsigned long code, T* record) {
  return ioctl(fd, code, record) == 0 ? 0 : errno;
}

int OpenDevice();  // -1 and errno on failure

int CreateVgpu(int fd, uint32_t gpu, uint32_t vgpu, const std::vector<uint32_t>& mask,
               uint64_t limit = 1ull << 30, uint64_t ident = 0x1234, uint64_t group_id = 3);
// `vdx-sim ctl ARGS...`: the exit status; *out gets what it printed.
int Ctl(const std::vector<std::string>& args, std::string* out = nullptr);

// The text of a file, or "<missing>".
std::string ReadText(const std::string& path);
std::vector<std::string> ListDir(const std::string& path);  // sorted, without . and ..

}  // namespace rawsim

#endif  // ZOVDX_TESTS_SIM_RAW_CLIENT_H_
