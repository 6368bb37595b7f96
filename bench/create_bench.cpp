// Creating virtual devices, against its floor: one vdxCreateVDevices of four virtual devices
// on the default simulated machine (the files removed again between rounds), against writing
// and syncing four files of the same size in the same directory tree, and against replacing
// them whole as the library does (a synced temporary file renamed over, the directory
// synced), measured in the same run (goal: within 2x). Runs the shipped library.
// Run without arguments: it starts its own sandbox.
//
//   create_bench [ROUNDS]          ROUNDS creations (default 300)
//   create_bench --inner ROUNDS    (inside a sandbox) the measurement itself
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zovdx/vdx.h"

namespace {

using Clock = std::chrono::steady_clock;

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

double Since(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// What the library does for one file: create, write, flush, sync, close.
void WriteSynced(const std::string& path, const std::string& text) {
  FILE* file = std::fopen(path.c_str(), "we");
  if (file == nullptr || std::fwrite(text.data(), 1, text.size(), file) != text.size() ||
      std::fflush(file) != 0 || fsync(fileno(file)) != 0 || std::fclose(file) != 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
}

// What the library does for one file so that no reader ever sees a part of it: a temporary
// file written and synced, renamed over the old one, the directory synced.
void ReplaceSynced(const std::string& dir, const std::string& name, const std::string& text) {
  const std::string temporary = dir + "/." + name + ".tmp";
  WriteSynced(temporary, text);
  const int directory = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (rename(temporary.c_str(), (dir + "/" + name).c_str()) != 0 || directory < 0 ||
      fsync(directory) != 0) {
    std::perror(name.c_str());
    std::exit(1);
  }
  close(directory);
}

std::string Slurp(const std::string& path) {
  FILE* file = std::fopen(path.c_str(), "re");
  if (file == nullptr) return "";
  char buffer[1024];
  const size_t n = std::fread(buffer, 1, sizeof(buffer), file);
  std::fclose(file);
  return std::string(buffer, n);
}

int Inner(int rounds) {
  int count = 0;
  if (vdxGetDeviceCount(&count) != VDX_STATUS_SUCCESS || count < 1) {
    std::fprintf(stderr, "create_bench: the library did not start\n");
    return 1;
  }
  // Each round's removal must look newer to the library than the last load, whatever the
  // clock's second: the directory's time is set forward by hand.
  const time_t base = time(nullptr) + 10;
  std::vector<double> creates, bare, replaced;
  std::string sample;
  mkdir("/etc/vdev-bare", 0755);
  for (int round = 0; round < rounds + 10; ++round) {
    const auto start = Clock::now();
    if (vdxCreateVDevices(0, 4, nullptr, nullptr) != VDX_STATUS_SUCCESS) {
      std::fprintf(stderr, "create_bench: creation %d failed\n", round);
      return 1;
    }
    const double create_us = Since(start);
    if (sample.empty()) sample = Slurp("/etc/vdev/vdev3.conf");
    for (int id = 0; id < 4; ++id) unlink(("/etc/vdev/vdev" + std::to_string(id) + ".conf").c_str());
    struct utimbuf times;
    times.actime = times.modtime = base + round;
    utime("/etc/vdev", &times);

    const auto bare_start = Clock::now();
    for (int id = 0; id < 4; ++id)
      WriteSynced("/etc/vdev-bare/vdev" + std::to_string(id) + ".conf", sample);
    const double bare_us = Since(bare_start);
    for (int id = 0; id < 4; ++id)
      unlink(("/etc/vdev-bare/vdev" + std::to_string(id) + ".conf").c_str());
    const auto replace_start = Clock::now();
    for (int id = 0; id < 4; ++id)
      ReplaceSynced("/etc/vdev-bare", "vdev" + std::to_string(id) + ".conf", sample);
    const double replace_us = Since(replace_start);
    for (int id = 0; id < 4; ++id)
      unlink(("/etc/vdev-bare/vdev" + std::to_string(id) + ".conf").c_str());
    if (round >= 10) {  // the first rounds warm the caches
      creates.push_back(create_us);
      bare.push_back(bare_us);
      replaced.push_back(replace_us);
    }
  }
  const double create_median = Median(creates), bare_median = Median(bare),
               replace_median = Median(replaced);
  std::printf("four virtual devices, %d rounds (%zu-byte files):\n", rounds, sample.size());
  std::printf("  write and sync four files in place            %8.1f us (median)\n", bare_median);
  std::printf("  replace four files whole (+ rename, dir sync) %8.1f us (median)\n",
              replace_median);
  std::printf("  vdxCreateVDevices                             %8.1f us (median)\n",
              create_median);
  std::printf("  ratio %.2f to the writes in place, %.2f to the whole replacements (goal: at most "
              "2)\n",
              create_median / bare_median, create_median / replace_median);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "--inner") == 0) return Inner(std::atoi(argv[2]));
  const std::string rounds = argc >= 2 ? argv[1] : "300";
  const char* sandbox[] = {VDX_SIM_BIN, "--", argv[0], "--inner", rounds.c_str(), nullptr};
  execv(VDX_SIM_BIN, const_cast<char* const*>(sandbox));
  std::perror("create_bench: " VDX_SIM_BIN);
  return 1;
}
