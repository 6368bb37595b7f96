// Container detection at start-up against the shell it replaces: CheckContainerEnv with
// automatic detection, and in the same run the process list read through popen("ps aux"),
// the way a shell-based probe would get it. Prints both medians and their ratio.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "common/env_check.h"
#include "common/process_list.h"

namespace {

double MedianMicros(int runs, const std::function<void()>& body) {
  std::vector<double> samples;
  samples.reserve(static_cast<size_t>(runs));
  for (int i = 0; i < runs; ++i) {
    const auto start = std::chrono::steady_clock::now();
    body();
    const auto stop = std::chrono::steady_clock::now();
    samples.push_back(std::chrono::duration<double, std::micro>(stop - start).count());
  }
  std::sort(samples.begin(), samples.end());
  return samples[samples.size() / 2];
}

// The baseline: every line of "ps aux", searched for the same marker.
bool KernelWorkerViaPs() {
  FILE* ps = popen("ps aux", "re");
  if (ps == nullptr) return false;
  char line[256];
  bool found = false;
  while (fgets(line, sizeof(line), ps) != nullptr)
    if (strstr(line, "[kworker/") != nullptr) found = true;  // read to the end, as popen must
  pclose(ps);
  return found;
}

int CountProcesses() {
  int processes = 0;
  ForEachProcessCommand([&processes](const std::string&) {
    ++processes;
    return true;
  });
  return processes;
}

}  // namespace

// usage: container_detect_bench [RUNS [PROCESSES]]
// PROCESSES (default 300): idle children are started until the host has that many.
int main(int argc, char** argv) {
  const int runs = argc > 1 ? atoi(argv[1]) : 50;
  const int wanted = argc > 2 ? atoi(argv[2]) : 300;
  unsetenv("VDX_RUNTIME_ENV_OVERRIDE");

  std::vector<pid_t> idle;
  for (int have = CountProcesses(); have < wanted; ++have) {
    const pid_t pid = fork();
    if (pid == 0) {
      pause();
      _exit(0);
    }
    if (pid < 0) break;
    idle.push_back(pid);
  }
  const int processes = CountProcesses();

  bool in_container = false;
  std::string id;
  const double detect = MedianMicros(runs, [&] { CheckContainerEnv(in_container, &id); });
  // The whole list without an early stop: what a container (no kernel threads) costs.
  const double walk = MedianMicros(runs, [] {
    ForEachProcessCommand(
        [](const std::string& command) { return command.find("[kworker/") == std::string::npos; });
  });
  const double full_walk = MedianMicros(runs, [] {
    ForEachProcessCommand([](const std::string&) { return true; });
  });
  const double baseline = MedianMicros(runs, [] { KernelWorkerViaPs(); });

  printf("processes on this host:                     %d\n", processes);
  printf("CheckContainerEnv (automatic), median:      %10.1f us (in container: %s)\n", detect,
         in_container ? "yes" : "no");
  printf("process list, stop at first kernel worker:  %10.1f us\n", walk);
  printf("process list, every process:                %10.1f us\n", full_walk);
  printf("popen(\"ps aux\") baseline, median:           %10.1f us\n", baseline);
  printf("ratio baseline / CheckContainerEnv:         %10.1fx\n", baseline / detect);
  printf("ratio baseline / full process list:         %10.1fx\n", baseline / full_walk);
  for (pid_t pid : idle) kill(pid, SIGKILL);
  for (pid_t pid : idle) waitpid(pid, nullptr, 0);
  return 0;
}
