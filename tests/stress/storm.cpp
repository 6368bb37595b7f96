// The storm: many processes changing and querying virtual devices at once through the
// shipped library, on a simulated machine, with the invariants checked from the files and
// the driver during and after it.
//
// Each process marks what it creates with a memory size no other request uses (its tag),
// finds the id of its new virtual device by that tag, and from then on updates, starts,
// stops and destroys only its own virtual devices. So it knows what must be on disk: a
// virtual device it was told it created, and did not destroy, must still hold its tag.
//
//   storm [--processes P] [--requests R] [--seed S] [--machine FILE]
//   storm --crashes KILLS [--seed S]   the crash loop instead (below)
//   storm --faults 1                   the write faults instead (below)
//   storm --inner P R S          (inside a sandbox) the storm itself (P 0: the crash loop)
//
// Prints the throughput and a create's latency percentiles, and every violation found; exits
// 1 when there was one.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "zovdx/vdx.h"

namespace {

using Clock = std::chrono::steady_clock;

struct VdevFile {
  bool parsed = false;
  std::string pci;
  uint64_t mask_low = 0, mask_high = 0;
  long units = -1, mem = -1, device = -1, id = -1, pipe = -1, enable = -1;
};

// The writer's nine lines, read strictly: anything else is a broken file.
VdevFile ReadVdevFile(const std::string& path) {
  VdevFile f;
  std::ifstream in(path);
  std::string key, value;
  int masks = 0, fields = 0;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    if (!(words >> key >> value)) return f;
    ++fields;
    if (key == "PciBusId:") f.pci = value;
    else if (key == "cu_mask:") (masks++ == 0 ? f.mask_low : f.mask_high) = strtoull(value.c_str(), nullptr, 0);
    else if (key == "cu_count:") f.units = strtol(value.c_str(), nullptr, 0);
    else if (key == "mem:") f.mem = strtol(value.c_str(), nullptr, 0);
    else if (key == "device_id:") f.device = strtol(value.c_str(), nullptr, 0);
    else if (key == "vdev_id:") f.id = strtol(value.c_str(), nullptr, 0);
    else if (key == "pipe_id:") f.pipe = strtol(value.c_str(), nullptr, 0);
    else if (key == "enable:") f.enable = strtol(value.c_str(), nullptr, 0);
    else return f;
  }
  f.parsed = fields == 9 && masks == 2 && !f.pci.empty() && f.units >= 0 && f.mem > 0 &&
             f.device >= 0 && f.id >= 0 && f.pipe >= 0 && f.enable == 1;
  return f;
}

std::map<int, VdevFile> ReadAllFiles(std::vector<std::string>* problems) {
  std::map<int, VdevFile> files;
  DIR* dir = opendir("/etc/vdev");
  if (dir == nullptr) return files;
  while (const dirent* entry = readdir(dir)) {
    int id = -1;
    char tail[8] = {0};
    if (sscanf(entry->d_name, "vdev%d.%7s", &id, tail) != 2 || strcmp(tail, "conf") != 0) continue;
    const VdevFile f = ReadVdevFile(std::string("/etc/vdev/") + entry->d_name);
    if (!f.parsed) problems->push_back(std::string("unparsable file ") + entry->d_name);
    else if (f.id != id) problems->push_back(std::string("file ") + entry->d_name + " holds id " + std::to_string(f.id));
    files[id] = f;
  }
  closedir(dir);
  return files;
}

struct DeviceShape {
  long units;
  long mib;
};

// The global invariants, from the files, read under the shared file lock that every writer
// excludes: otherwise the files could be read across someone's change, half before and half
// after it.
std::vector<std::string> CheckFiles(const std::vector<DeviceShape>& devices) {
  std::vector<std::string> problems;
  const int lock = open("/run/zovdx/vdx_virtual.lock", O_RDWR | O_CLOEXEC);
  if (lock >= 0) flock(lock, LOCK_SH);
  struct Unlock {
    int fd;
    ~Unlock() {
      if (fd >= 0) close(fd);
    }
  } unlock{lock};
  const std::map<int, VdevFile> files = ReadAllFiles(&problems);
  std::map<long, std::vector<const VdevFile*>> by_device;
  for (const auto& [id, f] : files)
    if (f.parsed) by_device[f.device].push_back(&f);
  for (const auto& [device, vdevs] : by_device) {
    if (device < 0 || device >= static_cast<long>(devices.size())) {
      problems.push_back("a file names device " + std::to_string(device));
      continue;
    }
    uint64_t low = 0, high = 0;
    long units = 0, mib = 0;
    std::set<long> pipes;
    for (const VdevFile* f : vdevs) {
      if ((low & f->mask_low) || (high & f->mask_high))
        problems.push_back("a unit of device " + std::to_string(device) + " held twice (vdev " + std::to_string(f->id) + ")");
      low |= f->mask_low;
      high |= f->mask_high;
      units += f->units;
      mib += f->mem;
      if (f->pipe > 3 || !pipes.insert(f->pipe).second)
        problems.push_back("pipe " + std::to_string(f->pipe) + " of device " + std::to_string(device) + " twice or out of range");
    }
    if (units > devices[device].units) problems.push_back("device " + std::to_string(device) + " holds more units than it has");
    if (mib > devices[device].mib) problems.push_back("device " + std::to_string(device) + " holds more memory than it has");
  }
  return problems;
}

struct Tally {
  long requests = 0;
  long violations = 0;
  std::vector<double> create_ms;
};

void Violation(Tally* tally, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Violation(Tally* tally, const char* format, ...) {
  va_list args;
  va_start(args, format);
  fprintf(stderr, "storm: VIOLATION pid %d: ", getpid());
  vfprintf(stderr, format, args);
  fprintf(stderr, "\n");
  va_end(args);
  ++tally->violations;
}

std::string ReportPath(int index) { return "/tmp/storm-report-" + std::to_string(index); }

// One process of the storm. What it did goes to its report file (the parent reads them all
// at the end; a pipe could fill up before that).
void Worker(int index, int requests, unsigned seed, int devices) {
  std::mt19937 random(seed * 7919u + static_cast<unsigned>(index));
  std::map<int, int> mine;  // id -> tag (its memory in MiB)
  Tally tally;
  int next_tag = 0;
  auto tag_of = [&](int n) { return 1 + index * (requests + 1) + n; };

  auto check_mine = [&]() {
    for (const auto& [id, tag] : mine) {
      const VdevFile f = ReadVdevFile("/etc/vdev/vdev" + std::to_string(id) + ".conf");
      if (!f.parsed || f.mem != tag)
        Violation(&tally, "its virtual device %d (tag %d) is gone or changed (mem %ld)", id, tag, f.mem);
    }
  };

  for (int n = 0; n < requests; ++n) {
    ++tally.requests;
    const int pick = static_cast<int>(random() % 100);
    if (pick < 30 || mine.empty()) {
      int units = static_cast<int>(random() % 5);
      int mib = tag_of(next_tag++);
      const int device = static_cast<int>(random() % devices);
      const auto start = Clock::now();
      const vdxStatus status = vdxCreateVDevices(device, 1, &units, &mib);
      tally.create_ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
      if (status != VDX_STATUS_SUCCESS) continue;
      int found = -1;
      for (int id = 0; id < 32 && found < 0; ++id) {
        const VdevFile f = ReadVdevFile("/etc/vdev/vdev" + std::to_string(id) + ".conf");
        if (f.parsed && f.mem == mib) found = id;
      }
      if (found < 0) Violation(&tally, "created a virtual device with tag %d, and no file holds it", mib);
      else mine[found] = mib;
    } else {
      auto it = mine.begin();
      std::advance(it, random() % mine.size());
      const int id = it->first;
      if (pick < 45) {
        const int tag = tag_of(next_tag++);
        const vdxStatus status = vdxUpdateSingleVDevice(id, -1, tag);
        if (status == VDX_STATUS_SUCCESS) it->second = tag;
      } else if (pick < 60) {
        if (vdxDestroySingleVDevice(id) == VDX_STATUS_SUCCESS) mine.erase(it);
      } else if (pick < 70) {
        vdxStartVDevice(id);
      } else if (pick < 80) {
        vdxStopVDevice(id);
      } else {
        size_t cus = 0, bytes = 0;
        int count = 0, percent = 0;
        vdxDeviceInfo info;
        switch (pick % 4) {
          case 0: vdxGetDeviceRemainingInfo(static_cast<int>(random() % devices), &cus, &bytes); break;
          case 1: vdxGetVDeviceCount(&count); break;
          case 2: vdxGetVDeviceInfo(static_cast<int>(random() % 32), &info); break;
          default: vdxGetDevBusyPercent(static_cast<int>(random() % devices), &percent); break;
        }
      }
    }
    if (n % 50 == 49) check_mine();
  }
  check_mine();
  std::string report = std::to_string(tally.requests) + " " + std::to_string(tally.violations);
  for (double ms : tally.create_ms) report += " " + std::to_string(ms);
  report += "\n";
  std::ofstream out(ReportPath(index), std::ios::trunc);
  out << report;
  if (!out.flush()) _exit(3);
}

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

int Crashes(int kills, unsigned seed, const std::vector<DeviceShape>& devices);
int Faults(const std::vector<DeviceShape>& devices, const std::string& shim);

int Inner(int processes, int requests, unsigned seed) {
  int count = 0;
  if (vdxGetDeviceCount(&count) != VDX_STATUS_SUCCESS || count < 1) {
    fprintf(stderr, "storm: the library did not start\n");
    return 2;
  }
  std::vector<DeviceShape> devices;
  for (int d = 0; d < count; ++d) {
    vdxDeviceInfo info;
    vdxGetDeviceInfo(d, &info);
    devices.push_back({info.compute_unit_count, static_cast<long>(info.global_mem_size >> 20)});
  }
  if (processes == 0) return Crashes(requests, seed, devices);
  if (processes < 0) return Faults(devices, FAULT_SHIM);
  printf("storm: %d processes x %d requests on %d devices, seed %u\n", processes, requests, count, seed);
  fflush(stdout);

  const auto start = Clock::now();
  std::vector<pid_t> workers;
  for (int i = 0; i < processes; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      // A fresh library in each worker: it starts its own manager, as a separate tool would.
      execl("/proc/self/exe", "storm", "--worker", std::to_string(i).c_str(),
            std::to_string(requests).c_str(), std::to_string(seed).c_str(),
            std::to_string(count).c_str(), nullptr);
      _exit(127);
    }
    workers.push_back(pid);
  }

  // Sampled checks while the storm runs.
  long sampled = 0, sample_problems = 0;
  for (;;) {
    bool running = false;
    for (pid_t pid : workers)
      if (kill(pid, 0) == 0 && waitpid(pid, nullptr, WNOHANG) == 0) running = true;
    if (!running) break;
    for (const std::string& p : CheckFiles(devices)) {
      fprintf(stderr, "storm: VIOLATION during the storm: %s\n", p.c_str());
      ++sample_problems;
    }
    ++sampled;
    usleep(100000);
  }
  for (pid_t pid : workers) waitpid(pid, nullptr, 0);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();

  Tally total;
  for (int i = 0; i < processes; ++i) {
    std::ifstream report(ReportPath(i));
    long requests_done = 0, violations = 0;
    if (!(report >> requests_done >> violations)) {
      fprintf(stderr, "storm: VIOLATION worker %d left no report\n", i);
      ++total.violations;
      continue;
    }
    total.requests += requests_done;
    total.violations += violations;
    double ms;
    while (report >> ms) total.create_ms.push_back(ms);
  }

  long final_problems = 0;
  for (const std::string& p : CheckFiles(devices)) {
    fprintf(stderr, "storm: VIOLATION after the storm: %s\n", p.c_str());
    ++final_problems;
  }
  // A fresh process agrees with the files.
  const pid_t fresh = fork();
  if (fresh == 0) {
    execl("/proc/self/exe", "storm", "--agree", nullptr);
    _exit(127);
  }
  int status = 0;
  waitpid(fresh, &status, 0);
  const long disagreements = WIFEXITED(status) ? WEXITSTATUS(status) : 1;

  printf("storm: %ld requests in %.2f s: %.0f requests/s\n", total.requests, seconds,
         static_cast<double>(total.requests) / seconds);
  printf("storm: create latency p50 %.2f ms, p90 %.2f ms, p99 %.2f ms (%zu creates)\n",
         Percentile(total.create_ms, 0.5), Percentile(total.create_ms, 0.9),
         Percentile(total.create_ms, 0.99), total.create_ms.size());
  printf("storm: violations: %ld seen by the processes, %ld in %ld samples, %ld after, %ld "
         "disagreements of a fresh process\n",
         total.violations, sample_problems, sampled, final_problems, disagreements);
  return total.violations + sample_problems + final_problems + disagreements == 0 ? 0 : 1;
}

// The crash loop: a process that creates, updates and destroys without pause is killed with
// SIGKILL at a random instant, times over; after each kill every file parses or is absent,
// nothing but vdev<N>.conf counts, and a fresh process agrees with the files.
int Crashes(int kills, unsigned seed, const std::vector<DeviceShape>& devices) {
  std::mt19937 random(seed);
  long problems = 0;
  for (int kill_round = 0; kill_round < kills; ++kill_round) {
    const unsigned child_seed = static_cast<unsigned>(random());
    const pid_t busy = fork();
    if (busy == 0) {
      std::mt19937 r(child_seed);
      for (;;) {
        int units = static_cast<int>(r() % 4);
        int mib = 1 + static_cast<int>(r() % 1000);
        const int id = static_cast<int>(r() % 8);
        switch (r() % 3) {
          case 0: vdxCreateVDevices(static_cast<int>(r() % devices.size()), 1, &units, &mib); break;
          case 1: vdxUpdateSingleVDevice(id, static_cast<int>(r() % 3), mib); break;
          default: vdxDestroySingleVDevice(id); break;
        }
      }
    }
    usleep(static_cast<useconds_t>(random() % 3000));
    kill(busy, SIGKILL);
    waitpid(busy, nullptr, 0);
    for (const std::string& p : CheckFiles(devices)) {
      fprintf(stderr, "storm: VIOLATION after kill %d: %s\n", kill_round, p.c_str());
      ++problems;
    }
    if (kill_round % 10 == 9 || kill_round == kills - 1) {
      const pid_t fresh = fork();
      if (fresh == 0) {
        execl("/proc/self/exe", "storm", "--agree", nullptr);
        _exit(127);
      }
      int status = 0;
      waitpid(fresh, &status, 0);
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++problems;
    }
  }
  // Proof that kills landed in the middle of writes: the temporary files they cut short.
  int temporaries = 0;
  if (DIR* dir = opendir("/etc/vdev")) {
    while (const dirent* entry = readdir(dir)) temporaries += strstr(entry->d_name, ".tmp-") != nullptr;
    closedir(dir);
  }
  printf("storm: %d kills, %ld violations, %d writes cut short (their temporary files ignored)\n",
         kills, problems, temporaries);
  return problems == 0 ? 0 : 1;
}

// Write faults, SQLite's way: the request (create, update or destroy) runs in a fresh process
// whose N-th file operation on the configuration or the lock file fails (the preload library
// beside this program), for N = 1, 2, ... until the request makes fewer than N. After each:
// the status is success or the generic error, the files hold their invariants, no temporary
// file is left, and the process kept no descriptor and no lock.
void WriteBase() {
  mkdir("/etc/vdev", 0755);
  if (DIR* dir = opendir("/etc/vdev")) {
    while (const dirent* entry = readdir(dir))
      if (entry->d_name[0] != '.' || strstr(entry->d_name, ".tmp-") != nullptr)
        unlink((std::string("/etc/vdev/") + entry->d_name).c_str());
    closedir(dir);
  }
  const char* base[] = {
      "PciBusId: 0000:03:00.0\ncu_mask: 0x000000000000000f\ncu_mask: 0x0000000000000000\n"
      "cu_count: 4\nmem: 100 MiB\ndevice_id: 0\nvdev_id: 0\npipe_id: 0\nenable: 1\n",
      "PciBusId: 0000:04:00.0\ncu_mask: 0x000000000000000f\ncu_mask: 0x0000000000000000\n"
      "cu_count: 4\nmem: 200 MiB\ndevice_id: 1\nvdev_id: 1\npipe_id: 0\nenable: 1\n"};
  for (int id = 0; id < 2; ++id) {
    std::ofstream out("/etc/vdev/vdev" + std::to_string(id) + ".conf", std::ios::trunc);
    out << base[id];
  }
}

int CountDescriptors() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
  }
  return count;
}

// In the faulted process: one request; exit status 0 or 1 for the library's status, 90 a
// status that is neither, 91 a descriptor left open, 92 the lock still held.
int FaultRequest(const std::string& request) {
  int count = 0;
  vdxGetVDeviceCount(&count);  // the library starts before the counted request
  const int descriptors = CountDescriptors();
  vdxStatus status = VDX_STATUS_UNKNOWN_ERROR;
  if (request == "create") {
    int units = 2, mib = 300;
    status = vdxCreateVDevices(0, 1, &units, &mib);
  } else if (request == "update") {
    status = vdxUpdateSingleVDevice(0, 2, 150);
  } else {
    status = vdxDestroySingleVDevice(1);
  }
  if (status != VDX_STATUS_SUCCESS && status != VDX_STATUS_ERROR) return 90;
  if (CountDescriptors() != descriptors) return 91;
  // Bypassing the counting library: is the lock free?
  const int lock = static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/run/zovdx/vdx_virtual.lock", O_RDWR | O_CLOEXEC));
  const bool free_lock = lock >= 0 && syscall(SYS_flock, lock, LOCK_EX | LOCK_NB) == 0;
  if (lock >= 0) syscall(SYS_close, lock);
  if (!free_lock) return 92;
  return status;
}

int Faults(const std::vector<DeviceShape>& devices, const std::string& shim) {
  long problems = 0;
  for (const std::string request : {"create", "update", "destroy"}) {
    int failures = 0;
    for (int n = 1; n < 500; ++n) {
      WriteBase();
      unlink("/tmp/storm-op-count");
      const pid_t child = fork();
      if (child == 0) {
        std::string preload = shim;
        if (const char* rest = getenv("LD_PRELOAD")) preload += std::string(":") + rest;
        setenv("LD_PRELOAD", preload.c_str(), 1);
        setenv("ZOVDX_FAIL_FILE_OP", std::to_string(n).c_str(), 1);
        setenv("ZOVDX_FILE_OP_COUNT", "/tmp/storm-op-count", 1);
        execl("/proc/self/exe", "storm", "--fault-request", request.c_str(), nullptr);
        _exit(127);
      }
      int status = 0;
      waitpid(child, &status, 0);
      const int result = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
      if (result != 0 && result != 1) {
        fprintf(stderr, "storm: VIOLATION %s with operation %d failing: result %d\n",
                request.c_str(), n, result);
        ++problems;
      }
      if (result == 1) ++failures;
      for (const std::string& p : CheckFiles(devices)) {
        fprintf(stderr, "storm: VIOLATION %s with operation %d failing: %s\n", request.c_str(),
                n, p.c_str());
        ++problems;
      }
      if (DIR* dir = opendir("/etc/vdev")) {
        while (const dirent* entry = readdir(dir))
          if (strstr(entry->d_name, ".tmp-") != nullptr) {
            fprintf(stderr, "storm: VIOLATION %s with operation %d failing left %s\n",
                    request.c_str(), n, entry->d_name);
            ++problems;
          }
        closedir(dir);
      }
      std::ifstream counted("/tmp/storm-op-count");
      long operations = 0;
      counted >> operations;
      if (operations < n) {
        printf("storm: %s makes %ld file operations; each failing in turn gave %d errors and %s\n",
               request.c_str(), operations, failures,
               result == 0 ? "then success" : "no success at the end");
        if (result != 0) ++problems;
        break;
      }
    }
  }
  printf("storm: write faults, %ld violations\n", problems);
  return problems == 0 ? 0 : 1;
}

// A fresh process: the library's count and answers agree with the files.
int Agree() {
  std::vector<std::string> problems;
  const std::map<int, VdevFile> files = ReadAllFiles(&problems);
  int count = -1;
  vdxGetVDeviceCount(&count);
  int wrong = count == static_cast<int>(files.size()) ? 0 : 1;
  if (wrong) fprintf(stderr, "storm: VIOLATION the library counts %d, the files %zu\n", count, files.size());
  for (const auto& [id, f] : files) {
    vdxDeviceInfo info;
    if (vdxGetVDeviceInfo(id, &info) != VDX_STATUS_SUCCESS ||
        info.global_mem_size != static_cast<size_t>(f.mem) << 20 || info.compute_unit_count != f.units) {
      fprintf(stderr, "storm: VIOLATION the library's virtual device %d differs from its file\n", id);
      ++wrong;
    }
  }
  return std::min(wrong, 100);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 6 && strcmp(argv[1], "--worker") == 0) {
    Worker(atoi(argv[2]), atoi(argv[3]), static_cast<unsigned>(strtoul(argv[4], nullptr, 10)),
           atoi(argv[5]));
    return 0;
  }
  if (argc == 2 && strcmp(argv[1], "--agree") == 0) return Agree();
  if (argc == 3 && strcmp(argv[1], "--fault-request") == 0) return FaultRequest(argv[2]);
  if (argc == 5 && strcmp(argv[1], "--inner") == 0)
    return Inner(atoi(argv[2]), atoi(argv[3]), static_cast<unsigned>(strtoul(argv[4], nullptr, 10)));

  std::string processes = "16", requests = "500", machine;
  std::string seed = std::to_string(static_cast<unsigned>(time(nullptr)));
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--processes") processes = argv[i + 1];
    else if (option == "--requests") requests = argv[i + 1];
    else if (option == "--seed") seed = argv[i + 1];
    else if (option == "--machine") machine = argv[i + 1];
    else if (option == "--crashes") processes = "0", requests = argv[i + 1];
    else if (option == "--faults") processes = "-1", requests = argv[i + 1];
    else {
      fprintf(stderr, "usage: storm [--processes P] [--requests R | --crashes KILLS] [--seed S] "
                      "[--machine FILE]\n");
      return 2;
    }
  }
  // Inside the sandbox, /proc/self/exe would name vdx-sim: pass this program's own path.
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n <= 0) return 2;
  self[n] = '\0';
  std::vector<const char*> argv_out = {VDX_SIM_BIN};
  if (!machine.empty()) {
    argv_out.push_back("--machine");
    argv_out.push_back(machine.c_str());
  }
  argv_out.insert(argv_out.end(), {"--", self, "--inner", processes.c_str(), requests.c_str(),
                                   seed.c_str(), nullptr});
  execv(VDX_SIM_BIN, const_cast<char* const*>(argv_out.data()));
  perror("storm: " VDX_SIM_BIN);
  return 2;
}
