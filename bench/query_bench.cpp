// The queries, each against the system calls and driver requests it cannot avoid, made
// directly in the same run, on the default simulated machine with four started virtual
// devices (goal: each within 2x):
//   vdxGetDeviceCount          nothing but the gate: against a mutex lock and unlock
//   vdxGetDeviceInfo           one driver request (free memory)
//   vdxGetVDeviceInfo          the lock file (open, flock, close), the generation (open, read,
//                              close), the file's time stamp, the driver's group directory,
//                              one driver request (the instance)
//   vdxGetDeviceRemainingInfo  the lock file, the generation and the directory's time stamp
// and prints what the freshness check (reading the generation) costs by itself.
//   vdxGetDevBusyPercent       one driver request (busy units)
// Runs the shipped library. Run without arguments: it starts its own sandbox.
//
//   query_bench [CALLS]          CALLS calls of each (default 20000)
//   query_bench --inner CALLS    (inside a sandbox) the measurement itself
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "mkfd/include/mkfd_ioctl.h"
#include "zovdx/vdx.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kGpu0 = 21735;  // the default machine's first accelerator

// Median over 15 samples of the time of one call, in microseconds.
template <typename Call>
double PerCall(int calls, Call call) {
  std::vector<double> samples;
  for (int sample = 0; sample < 15; ++sample) {
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i) call();
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count() /
                      calls);
  }
  std::sort(samples.begin(), samples.end());
  return samples[samples.size() / 2];
}

void Check(vdxStatus status, const char* what) {
  if (status == VDX_STATUS_SUCCESS) return;
  std::fprintf(stderr, "query_bench: %s failed with %d\n", what, status);
  std::exit(1);
}

void Report(const char* query, double library_us, const char* floor, double floor_us) {
  std::printf("  %-26s %7.2f us   %-44s %7.2f us   ratio %.2f\n", query, library_us, floor,
              floor_us, library_us / floor_us);
}

// The lock file as every configuration reader takes it.
void SharedLock() {
  const int fd = open("/run/zovdx/vdx_virtual.lock", O_RDWR | O_CLOEXEC);
  flock(fd, LOCK_SH);
  close(fd);
}

// The freshness check every configuration query makes: has anything changed since?
void GenerationRead() {
  char text[128];
  const int fd = open("/run/zovdx/generation", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  if (read(fd, text, sizeof(text)) < 0) std::perror("query_bench: generation");
  close(fd);
}

void GroupListing() {
  DIR* dir = opendir("/sys/devices/virtual/kfd/kfd/group");
  if (dir == nullptr) return;
  while (readdir(dir) != nullptr) {
  }
  closedir(dir);
}

int Inner(int calls) {
  int units[4] = {8, 8, 8, 8};
  int mib[4] = {1024, 1024, 1024, 1024};
  Check(vdxCreateVDevices(0, 4, units, mib), "create");
  for (int id = 0; id < 4; ++id) Check(vdxStartVDevice(id), "start");
  const int fd = open("/dev/mkfd", O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    std::perror("query_bench: /dev/mkfd");
    return 1;
  }

  std::printf("queries on the default machine, four started virtual devices, %d calls each:\n",
              calls);
  std::mutex gate;
  int count = 0;
  Report("vdxGetDeviceCount", PerCall(calls, [&] { Check(vdxGetDeviceCount(&count), "count"); }),
         "mutex lock and unlock", PerCall(calls, [&] { std::lock_guard<std::mutex> g(gate); }));

  mkfd_ioctl_get_available_mem_size_args available{};
  available.gpu_id = kGpu0;
  vdxDeviceInfo info;
  Report("vdxGetDeviceInfo", PerCall(calls, [&] { Check(vdxGetDeviceInfo(0, &info), "info"); }),
         "free-memory request",
         PerCall(calls, [&] { ioctl(fd, MKFD_IOC_GET_AVAILABLE_MEM, &available); }));

  mkfd_ioctl_query_vgpu_info_args query{};
  uint32_t mask[4];
  struct stat st;
  Report("vdxGetVDeviceInfo",
         PerCall(calls, [&] { Check(vdxGetVDeviceInfo(2, &info), "vdev info"); }),
         "lock, generation, stat, group dir, instance", PerCall(calls, [&] {
           SharedLock();
           GenerationRead();
           stat("/etc/vdev/vdev2.conf", &st);
           GroupListing();
           query = mkfd_ioctl_query_vgpu_info_args{};
           query.gpu_id = kGpu0;
           query.vgpu_id = 2;
           query.num_cu_mask = 128;
           query.cu_mask_ptr = reinterpret_cast<uintptr_t>(mask);
           ioctl(fd, MKFD_IOC_QUERY_VGPU_INFO, &query);
         }));

  size_t cus = 0, bytes = 0;
  Report("vdxGetDeviceRemainingInfo",
         PerCall(calls, [&] { Check(vdxGetDeviceRemainingInfo(0, &cus, &bytes), "remaining"); }),
         "lock, generation, stat of the directory", PerCall(calls, [&] {
           SharedLock();
           GenerationRead();
           stat("/etc/vdev", &st);
         }));
  std::printf("  of which the freshness check (generation: open, read, close) %.2f us\n",
              PerCall(calls, GenerationRead));

  mkfd_ioctl_get_cu_busy_args busy{};
  busy.gpu_id = kGpu0;
  int percent = 0;
  Report("vdxGetDevBusyPercent",
         PerCall(calls, [&] { Check(vdxGetDevBusyPercent(0, &percent), "busy"); }),
         "busy-units request", PerCall(calls, [&] { ioctl(fd, MKFD_IOC_GET_CU_BUSY, &busy); }));
  close(fd);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "--inner") == 0) return Inner(std::atoi(argv[2]));
  const std::string calls = argc >= 2 ? argv[1] : "20000";
  const char* sandbox[] = {VDX_SIM_BIN, "--", argv[0], "--inner", calls.c_str(), nullptr};
  execv(VDX_SIM_BIN, const_cast<char* const*>(sandbox));
  std::perror("query_bench: " VDX_SIM_BIN);
  return 1;
}
