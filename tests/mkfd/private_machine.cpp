#include "tests/mkfd/private_machine.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

namespace mkfd_test {

namespace {

constexpr char kNodesDir[] = "/sys/devices/virtual/kfd/kfd/topology/nodes";

// Exit codes of the child that are not a test result.
constexpr int kSetupFailed = 77;

bool MakePrivateMounts() {
  if (unshare(CLONE_NEWNS) != 0) {
    fprintf(stderr, "unshare(CLONE_NEWNS): %s\n", strerror(errno));
    return false;
  }
  // Without this the tmpfs mounts below would propagate back to the host.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    fprintf(stderr, "making / private: %s\n", strerror(errno));
    return false;
  }
  for (const char* target : {"/sys/devices/virtual", "/dev"}) {
    if (mount("tmpfs", target, "tmpfs", MS_NOSUID, "mode=0755") != 0) {
      fprintf(stderr, "tmpfs over %s: %s\n", target, strerror(errno));
      return false;
    }
  }
  return true;
}

void MakeDirectories(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0755);
  }
  mkdir(path.c_str(), 0755);
}

}  // namespace

void RunInPrivateMachine(const std::function<void()>& body) {
  fflush(stdout);
  fflush(stderr);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0) << strerror(errno);
  if (pid == 0) {
    if (!MakePrivateMounts()) _exit(kSetupFailed);
    body();
    fflush(stdout);
    fflush(stderr);
    // exit, not _exit: the leak checker runs at exit and fails the child on a leak.
    exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status)) << "child ended by signal " << WTERMSIG(status);
  ASSERT_NE(WEXITSTATUS(status), kSetupFailed) << "could not make a private mount namespace";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the test body failed in the child (see above)";
}

void WriteFile(const std::string& path, const std::string& content) {
  MakeDirectories(path.substr(0, path.rfind('/')));
  FILE* file = fopen(path.c_str(), "we");
  ASSERT_NE(file, nullptr) << path << ": " << strerror(errno);
  EXPECT_EQ(fwrite(content.data(), 1, content.size(), file), content.size());
  fclose(file);
}

void CreateFakeDevice() { WriteFile("/dev/mkfd", ""); }

void WriteTopology(const std::vector<Node>& nodes) {
  MakeDirectories(kNodesDir);
  for (size_t n = 0; n < nodes.size(); ++n) {
    const std::string dir = std::string(kNodesDir) + "/" + std::to_string(n);
    MakeDirectories(dir);
    const Node& node = nodes[n];
    if (node.gpu_id) WriteFile(dir + "/gpu_id", std::to_string(*node.gpu_id) + "\n");
    if (!node.properties.empty()) WriteFile(dir + "/properties", node.properties);
    if (!node.has_mem_banks) continue;
    MakeDirectories(dir + "/mem_banks");
    for (size_t b = 0; b < node.banks.size(); ++b) {
      WriteFile(dir + "/mem_banks/" + std::to_string(b) + "/properties", node.banks[b].properties);
    }
  }
}

std::string AcceleratorProperties(uint32_t vendor, uint32_t device, uint32_t subsystem,
                                  uint32_t simd_count) {
  // Same key order and spacing as the driver writes.
  std::string text;
  text += "cpu_cores_count 0\n";
  text += "simd_count " + std::to_string(simd_count) + "\n";
  text += "mem_banks_count 1\n";
  text += "simd_arrays_per_engine 2\n";
  text += "cu_per_simd_array 8\n";
  text += "simd_per_cu 4\n";
  text += "max_waves_per_simd 10\n";
  text += "array_count 8\n";
  text += "vendor_id " + std::to_string(vendor) + "\n";
  text += "device_id " + std::to_string(device) + "\n";
  text += "location_id 1280\n";
  text += "domain 3\n";
  text += "subsystem_device " + std::to_string(subsystem) + "\n";
  text += "dp4x_status 1\n";
  return text;
}

std::string BankProperties(uint32_t heap_type, uint64_t size) {
  return "heap_type " + std::to_string(heap_type) + "\nsize_in_bytes " + std::to_string(size) +
         "\nflags 0\nwidth 4096\nmem_clk_max 1600\n";
}

int CountOpenDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int count = 0;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the directory stream itself
}

}  // namespace mkfd_test
