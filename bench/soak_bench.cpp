// A long-running process's queries: does a query cost the same, and the process weigh the
// same, after a million of them? On the default simulated machine with one container group in
// the driver (each virtual device query refreshes the group list) and a hand-made file
// vdev5.conf that holds vdev_id 1 (read again on each query of id 5), it alternates
// vdxGetVDeviceInfo(0) and vdxGetVDeviceInfo(5) and prints, for each tenth of the run, the time
// per call and the resident memory, against the first tenth (goal: ratios of 1).
// Runs the shipped library. Run without arguments: it starts its own sandbox.
//
//   soak_bench [CALLS]          CALLS queries in all (default 1000000)
//   soak_bench --inner CALLS    (inside a sandbox) the measurement itself
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "mkfd/include/mkfd_ioctl.h"
#include "zovdx/vdx.h"

namespace {

using Clock = std::chrono::steady_clock;

long ResidentKiB() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

int Inner(long calls) {
  int units[1] = {8};
  int mib[1] = {1024};
  if (vdxCreateVDevices(0, 1, units, mib) != VDX_STATUS_SUCCESS) {
    std::fprintf(stderr, "soak_bench: create failed\n");
    return 1;
  }
  std::ofstream("/etc/vdev/vdev5.conf")
      << "PciBusId: 0000:03:00.0\ncu_mask: 0xff00\ncu_mask: 0x0\ncu_count: 8\nmem: 512 MiB\n"
         "device_id: 0\nvdev_id: 1\npipe_id: 1\nenable: 1\n";
  const int fd = open("/dev/mkfd", O_RDWR | O_CLOEXEC);
  mkfd_ioctl_create_group_args group{};
  group.indentifier = 0x1a2b3c;
  group.vram_limit = 1ull << 32;
  group.group_id = 0x1;
  if (fd < 0 || ioctl(fd, MKFD_IOC_CREATE_GROUP, &group) != 0) {
    std::perror("soak_bench: create a group");
    return 1;
  }
  close(fd);

  std::printf("%ld virtual device queries with one container group and a hand-made file "
              "holding another id:\n",
              calls);
  const long tenth = calls / 10 > 0 ? calls / 10 : 1;
  double first_us = 0;
  long first_kib = 0;
  vdxDeviceInfo info;
  for (int part = 0; part < 10; ++part) {
    const auto start = Clock::now();
    for (long i = 0; i < tenth; ++i) vdxGetVDeviceInfo((i & 1) ? 5 : 0, &info);
    const double us = std::chrono::duration<double, std::micro>(Clock::now() - start).count() /
                      static_cast<double>(tenth);
    const long kib = ResidentKiB();
    if (part == 0) {
      first_us = us;
      first_kib = kib;
    }
    std::printf("  after %8ld calls: %7.2f us per call (ratio %.2f), %6ld KiB resident (ratio "
                "%.2f)\n",
                (part + 1) * tenth, us, us / first_us, kib,
                static_cast<double>(kib) / static_cast<double>(first_kib));
  }
  int count = 0;
  vdxGetVDeviceCount(&count);
  std::printf("  virtual devices counted at the end: %d (two files)\n", count);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "--inner") == 0) return Inner(std::atol(argv[2]));
  const std::string calls = argc >= 2 ? argv[1] : "1000000";
  const char* sandbox[] = {VDX_SIM_BIN, "--", argv[0], "--inner", calls.c_str(), nullptr};
  execv(VDX_SIM_BIN, const_cast<char* const*>(sandbox));
  std::perror("soak_bench: " VDX_SIM_BIN);
  return 1;
}
