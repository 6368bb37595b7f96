// The cost of the manager's start-up, each against a baseline measured in the same run:
//   - a fresh process whose first gated call (vdxGetMaxVDeviceCount) starts the manager on
//     the default simulated machine with four configured virtual devices, against the same
//     process that loads the library and calls nothing (goal: at most 1 ms more, median);
//   - 200 such processes started at once, until the last is done (goal: under 1 s), against
//     200 that only load the library.
// Run without arguments: it starts its own sandbox.
//
//   startup_bench [ROUNDS]         ROUNDS single starts of each kind (default 200)
//   startup_bench --inner ROUNDS   (inside a sandbox) the measurement itself
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

pid_t Spawn(const std::string& probe, const char* mode) {
  const char* argv[] = {probe.c_str(), mode, nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, probe.c_str(), nullptr, nullptr, const_cast<char* const*>(argv),
                  environ) != 0) {
    std::perror("startup_bench: posix_spawn");
    std::exit(1);
  }
  return pid;
}

void Reap(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "startup_bench: a probe failed (status %d)\n", status);
    std::exit(1);
  }
}

// Milliseconds from the start of one probe to its end.
double One(const std::string& probe, const char* mode) {
  const auto start = Clock::now();
  Reap(Spawn(probe, mode));
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Milliseconds from starting count probes at once to the end of the last.
double Crowd(const std::string& probe, const char* mode, int count) {
  std::vector<pid_t> pids;
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) pids.push_back(Spawn(probe, mode));
  for (pid_t pid : pids) Reap(pid);
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void WriteVdev(int id, const char* pci, int device, int pipe, unsigned long mask) {
  mkdir("/etc/vdev", 0755);
  const std::string path = "/etc/vdev/vdev" + std::to_string(id) + ".conf";
  FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) {
    std::perror(path.c_str());
    std::exit(1);
  }
  std::fprintf(file,
               "PciBusId: %s\ncu_mask: 0x%016lx\ncu_mask: 0x%016lx\ncu_count: %d\n"
               "mem: %d MiB\ndevice_id: %d\nvdev_id: %d\npipe_id: %d\nenable: %d\n",
               pci, mask, 0ul, __builtin_popcountl(mask), 4096, device, id, pipe, 1);
  std::fclose(file);
}

int Inner(const std::string& probe, int rounds) {
  WriteVdev(0, "0000:03:00.0", 0, 0, 0xffff);
  WriteVdev(1, "0000:03:00.0", 0, 1, 0xffff0000);
  WriteVdev(2, "0000:04:00.0", 1, 0, 0xffff);
  WriteVdev(3, "0000:04:00.0", 1, 1, 0xffff0000);

  for (int i = 0; i < 10; ++i) One(probe, i % 2 ? "call" : "load");  // warm caches
  std::vector<double> load, call;
  for (int i = 0; i < rounds; ++i) {
    load.push_back(One(probe, "load"));
    call.push_back(One(probe, "call"));
  }
  const double load_ms = Median(load), call_ms = Median(call);
  std::printf("first gated call in a fresh process, %d rounds, four virtual devices:\n", rounds);
  std::printf("  load only     %8.3f ms (median)\n", load_ms);
  std::printf("  first call    %8.3f ms (median)\n", call_ms);
  std::printf("  start-up adds %8.3f ms (goal: at most 1 ms), ratio %.2f\n", call_ms - load_ms,
              call_ms / load_ms);

  std::vector<double> crowd_load, crowd_call;
  for (int i = 0; i < 5; ++i) {
    crowd_load.push_back(Crowd(probe, "load", 200));
    crowd_call.push_back(Crowd(probe, "call", 200));
  }
  const double crowd_load_ms = Median(crowd_load), crowd_call_ms = Median(crowd_call);
  std::printf("200 processes started at once, until all are done (median of 5):\n");
  std::printf("  load only     %8.1f ms\n", crowd_load_ms);
  std::printf("  first call    %8.1f ms (goal: under 1000 ms), ratio %.2f\n", crowd_call_ms,
              crowd_call_ms / crowd_load_ms);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string self = argv[0];
  const std::string probe = self.substr(0, self.rfind('/') + 1) + "startup_probe";
  if (argc >= 3 && std::strcmp(argv[1], "--inner") == 0) return Inner(probe, std::atoi(argv[2]));
  const std::string rounds = argc >= 2 ? argv[1] : "200";
  const char* sandbox[] = {VDX_SIM_BIN, "--", argv[0], "--inner", rounds.c_str(), nullptr};
  execv(VDX_SIM_BIN, const_cast<char* const*>(sandbox));
  std::perror("startup_bench: " VDX_SIM_BIN);
  return 1;
}
