// Helpers of the end-to-end tests, which run the shipped libzovdx.so.1 inside a sandbox of
// the simulator (one per test case, so each case is a fresh process whose first gated call
// starts the manager). They use the public header and the standard library only.
#ifndef ZOVDX_TESTS_VIRTUAL_E2E_SUPPORT_H_
#define ZOVDX_TESTS_VIRTUAL_E2E_SUPPORT_H_

#include <stdlib.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sim/ctl_client.h"
#include "zovdx/vdx.h"

namespace e2e {

// The built-in machine's accelerators: PCI addresses and gpu ids.
inline constexpr char kPci0[] = "0000:03:00.0";
inline constexpr char kPci1[] = "0000:04:00.0";

// Fields of a configuration file, written in the writer's own layout unless a test gives
// its own text.
struct VdevFile {
  std::string pci = kPci0;
  uint64_t mask_low = 0xff;
  uint64_t mask_high = 0;
  int cu_count = 8;
  int mem = 4096;
  int device_id = 0;
  int vdev_id = 0;
  int pipe_id = 0;
  int enable = 1;
};

inline std::string Text(const VdevFile& f) {
  char text[512];
  snprintf(text, sizeof(text),
           "PciBusId: %s\ncu_mask: 0x%016lx\ncu_mask: 0x%016lx\ncu_count: %d\nmem: %d MiB\n"
           "device_id: %d\nvdev_id: %d\npipe_id: %d\nenable: %d\n",
           f.pci.c_str(), static_cast<unsigned long>(f.mask_low),
           static_cast<unsigned long>(f.mask_high), f.cu_count, f.mem, f.device_id, f.vdev_id,
           f.pipe_id, f.enable);
  return text;
}

inline void WriteText(const std::string& dir, const std::string& name, const std::string& text) {
  mkdir("/etc/vdev", 0755);
  mkdir(dir.c_str(), 0755);
  std::ofstream out(dir + "/" + name, std::ios::binary | std::ios::trunc);
  out << text;
  ASSERT_TRUE(out.good()) << dir << "/" << name;
}

// /etc/vdev/vdev<name_id>.conf (or under /etc/vdev/docker).
inline void WriteVdev(int name_id, const VdevFile& f, bool docker = false) {
  WriteText(docker ? "/etc/vdev/docker" : "/etc/vdev", "vdev" + std::to_string(name_id) + ".conf",
            Text(f));
}

inline std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs a simulator control command; fails the test when it is refused.
inline void Ctl(const std::vector<std::string>& args) {
  std::string out;
  ASSERT_EQ(vdxsim::SimControl(args, &out), 0) << out;
}

// Standard output of body: the library writes its debug lines there.
inline std::string Stdout(const std::function<void()>& body) {
  testing::internal::CaptureStdout();
  body();
  return testing::internal::GetCapturedStdout();
}

inline bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

inline constexpr uint64_t kMiB = 1ull << 20;

// vdxCreateVDevices with arrays given as lists; an empty list passes no array (an even
// split). The count is the lists' length unless given.
inline vdxStatus Create(int device, std::vector<int> cus, std::vector<int> mems, int count = -1) {
  if (count < 0) count = static_cast<int>(cus.empty() ? mems.size() : cus.size());
  return vdxCreateVDevices(device, count, cus.empty() ? nullptr : cus.data(),
                           mems.empty() ? nullptr : mems.data());
}

// Every manager message is written at debug level: make the first call show them.
inline void ShowDebugLines() { setenv("VDX_LOG_LEVEL", "4", 1); }

}  // namespace e2e

#endif  // ZOVDX_TESTS_VIRTUAL_E2E_SUPPORT_H_
