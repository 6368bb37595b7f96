// The simulator's costs, each against a baseline measured in the same run:
//   - starting a sandbox and running `true` in it, against a plain fork and exec of `true`
//     (goal: median under 100 ms);
//   - one ioctl round trip through the preload library and the daemon, against a plain
//     ioctl system call on a pipe.
// Run without arguments; it starts the sandboxes itself.
//
//   sim_bench [STARTS [CALLS]]      STARTS sandboxes (default 50), CALLS ioctls (default 20000)
//   sim_bench --inner CALLS         (inside a sandbox) time CALLS ioctls, print the figures
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mkfd/include/mkfd_ioctl.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Stats {
  double median = 0;
  double p90 = 0;
};

Stats Summarize(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return {v[v.size() / 2], v[v.size() * 9 / 10]};
}

// Wall time of fork, exec of argv and wait, in milliseconds.
double RunOnce(const std::vector<const char*>& argv) {
  auto start = Clock::now();
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    execv(argv[0], const_cast<char* const*>(argv.data()));
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "sim_bench: %s failed\n", argv[0]);
    std::exit(1);
  }
  return ms;
}

// Microseconds per call, CALLS calls per sample, 20 samples.
template <class F>
Stats TimeCalls(int calls, F call) {
  std::vector<double> samples;
  for (int s = 0; s < 20; ++s) {
    auto start = Clock::now();
    for (int i = 0; i < calls / 20; ++i) call();
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count() /
                      (calls / 20));
  }
  return Summarize(samples);
}

int Inner(int calls) {
  int fd = open("/dev/mkfd", O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    std::perror("sim_bench: /dev/mkfd");
    return 1;
  }
  mkfd_ioctl_get_cu_busy_args busy{};
  busy.gpu_id = 21735;  // the default machine's first accelerator
  bool ok = true;
  Stats sim = TimeCalls(calls, [&] { ok = ok && ioctl(fd, MKFD_IOC_GET_CU_BUSY, &busy) == 0; });
  int p[2];
  if (!ok || pipe(p) != 0) return 1;
  int avail = 0;
  Stats plain = TimeCalls(calls, [&] { ioctl(p[0], FIONREAD, &avail); });
  std::printf("%.3f %.3f %.3f %.3f\n", sim.median, sim.p90, plain.median, plain.p90);
  return 0;
}

std::string SelfPath() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--inner") == 0) return Inner(std::atoi(argv[2]));
  int starts = argc > 1 ? std::atoi(argv[1]) : 50;
  int calls = argc > 2 ? std::atoi(argv[2]) : 20000;
  if (starts < 1 || calls < 20) {
    std::fprintf(stderr, "usage: sim_bench [STARTS [CALLS]]\n");
    return 2;
  }
  std::vector<double> sandbox, plain;
  for (int i = 0; i < starts; ++i) {
    plain.push_back(RunOnce({"/bin/true", nullptr}));
    sandbox.push_back(RunOnce({VDX_SIM_BIN, "--", "/bin/true", nullptr}));
  }
  Stats s = Summarize(sandbox), p = Summarize(plain);
  std::printf("sandbox start + true: median %.2f ms, p90 %.2f ms (goal: median < 100 ms)\n", s.median,
              s.p90);
  std::printf("plain fork+exec true: median %.2f ms, p90 %.2f ms\n", p.median, p.p90);
  std::printf("ratio sandbox/plain:  %.1f\n", s.median / p.median);

  std::string self = SelfPath();
  std::string cmd = std::string(VDX_SIM_BIN) + " -- " + self + " --inner " + std::to_string(calls);
  FILE* in = popen(cmd.c_str(), "r");
  double sim_med = 0, sim_p90 = 0, sys_med = 0, sys_p90 = 0;
  if (in == nullptr || std::fscanf(in, "%lf %lf %lf %lf", &sim_med, &sim_p90, &sys_med, &sys_p90) != 4) {
    std::fprintf(stderr, "sim_bench: the ioctl measurement failed\n");
    return 1;
  }
  pclose(in);
  std::printf("ioctl round trip:     median %.2f us, p90 %.2f us\n", sim_med, sim_p90);
  std::printf("plain ioctl syscall:  median %.3f us, p90 %.3f us\n", sys_med, sys_p90);
  std::printf("ratio simulated/plain: %.0f\n", sim_med / sys_med);
  return 0;
}
