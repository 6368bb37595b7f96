// Time to reach a usable driver: dmkfdInit + dmkfdOpenMkfd, which opens the device and
// scans the sysfs topology, on the simulator's default machine (one CPU node and two
// accelerators) and on one with eight accelerators. The difference gives the cost of one
// more node. Run without arguments; it starts the sandboxes itself.
//
//   mkfd_open_bench [ROUNDS]           both machines, ROUNDS timed opens each (default 2000)
//   mkfd_open_bench --inner ROUNDS     (inside a sandbox) time ROUNDS opens, print the figures
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "mkfd/include/dmkfd.h"

namespace {

struct Figures {
  double median_us = 0;
  double p90_us = 0;
  double raw_open_us = 0;  // the baseline: open(2) of the device alone
  unsigned nodes = 0;
};

double Median(std::vector<double>* samples) {
  std::sort(samples->begin(), samples->end());
  return (*samples)[samples->size() / 2];
}

int Inner(int rounds) {
  std::vector<double> raw;
  raw.reserve(rounds);
  for (int i = 0; i < rounds; ++i) {
    const auto start = std::chrono::steady_clock::now();
    const int fd = open("/dev/mkfd", O_RDWR | O_CLOEXEC);
    const auto end = std::chrono::steady_clock::now();
    if (fd < 0) {
      perror("/dev/mkfd");
      return 1;
    }
    close(fd);
    raw.push_back(std::chrono::duration<double, std::micro>(end - start).count());
  }

  std::vector<double> samples;
  samples.reserve(rounds);
  uint32_t count = 0;
  for (int i = 0; i < rounds; ++i) {
    const auto start = std::chrono::steady_clock::now();
    const vdxStatus init = dmkfdInit();
    const vdxStatus open = dmkfdOpenMkfd();
    const auto end = std::chrono::steady_clock::now();
    if (init != VDX_STATUS_SUCCESS || open != VDX_STATUS_SUCCESS) {
      fprintf(stderr, "open failed: init %d open %d\n", init, open);
      return 1;
    }
    dmkfdGetNodeCount(&count);
    dmkfdCloseMkfd();
    dmkfdShutDown();
    samples.push_back(std::chrono::duration<double, std::micro>(end - start).count());
  }
  const double median = Median(&samples);
  printf("%.3f %.3f %.3f %u\n", median, samples[samples.size() * 9 / 10], Median(&raw), count);
  return 0;
}

std::string Run(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "re");
  if (pipe == nullptr) return out;
  char buffer[4096];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.append(buffer, got);
  if (pclose(pipe) != 0) out.clear();
  return out;
}

// The default machine with its accelerator repeated until there are `accelerators` of them,
// each with a gpu id of its own.
std::string ManyAccelerators(const std::string& machine, int accelerators) {
  std::istringstream in(machine);
  std::string line, head, gpu_body;
  bool in_first_gpu = false, seen_gpu = false;
  while (std::getline(in, line)) {
    if (line.rfind("node ", 0) == 0) {
      in_first_gpu = !seen_gpu && line.rfind("node gpu ", 0) == 0;
      seen_gpu = seen_gpu || in_first_gpu;
      if (in_first_gpu) continue;
    }
    if (in_first_gpu) {
      gpu_body += line + "\n";
    } else if (!seen_gpu) {
      head += line + "\n";
    }
  }
  std::string out = head;
  for (int i = 0; i < accelerators; ++i) {
    out += "node gpu " + std::to_string(40001 + i) + "\n" + gpu_body + "\n";
  }
  return out;
}

bool Measure(const std::string& machine_option, int rounds, const char* self, Figures* f) {
  const std::string out = Run(std::string(VDX_SIM_BIN) + " " + machine_option + " -- " + self +
                              " --inner " + std::to_string(rounds));
  return sscanf(out.c_str(), "%lf %lf %lf %u", &f->median_us, &f->p90_us, &f->raw_open_us,
                &f->nodes) == 4;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "--inner") == 0) return Inner(atoi(argv[2]));
  const int rounds = argc > 1 ? atoi(argv[1]) : 2000;
  if (rounds < 1) {
    fprintf(stderr, "usage: %s [ROUNDS]\n", argv[0]);
    return 2;
  }

  const std::string default_machine = Run(std::string(VDX_SIM_BIN) + " --print-machine");
  if (default_machine.empty()) {
    fprintf(stderr, "vdx-sim --print-machine failed\n");
    return 1;
  }
  char dir[] = "/tmp/mkfd_open_bench.XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  const std::string machine_file = std::string(dir) + "/eight.machine";
  FILE* file = fopen(machine_file.c_str(), "we");
  if (file == nullptr) return 1;
  const std::string eight = ManyAccelerators(default_machine, 8);
  fwrite(eight.data(), 1, eight.size(), file);
  fclose(file);

  Figures small, large;
  const bool ok = Measure("", rounds, argv[0], &small) &&
                  Measure("--machine " + machine_file, rounds, argv[0], &large);
  unlink(machine_file.c_str());
  rmdir(dir);
  if (!ok || small.nodes != 2 || large.nodes != 8) {
    fprintf(stderr, "measurement failed (accelerators seen: %u and %u)\n", small.nodes,
            large.nodes);
    return 1;
  }

  // Both machines have one CPU node besides the accelerators.
  const double per_node = (large.median_us - small.median_us) / (large.nodes - small.nodes);
  printf("dmkfdInit + dmkfdOpenMkfd, %d rounds each, median (p90); baseline: open(2) alone\n",
         rounds);
  printf("  default machine, 3 sysfs nodes:  %8.1f us (%.1f), open(2) %.1f us, ratio %.2f\n",
         small.median_us, small.p90_us, small.raw_open_us, small.median_us / small.raw_open_us);
  printf("  8 accelerators, 9 sysfs nodes:   %8.1f us (%.1f), open(2) %.1f us, ratio %.2f\n",
         large.median_us, large.p90_us, large.raw_open_us, large.median_us / large.raw_open_us);
  printf("  per additional node:             %8.1f us\n", per_node);
  printf("  ratio 9 nodes / 3 nodes:         %8.2f\n", large.median_us / small.median_us);
  return 0;
}
