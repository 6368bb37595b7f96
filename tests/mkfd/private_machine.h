// Runs a test body in a forked child that has its own view of "/sys/devices/virtual" and
// "/dev": both are empty tmpfs mounts in a private mount namespace, so the body can shape the
// accelerator topology and the device node the library opens, without touching the host.
// Needs root (CI and the developers' machines run the tests as root).
#ifndef ZOVDX_TESTS_MKFD_PRIVATE_MACHINE_H_
#define ZOVDX_TESTS_MKFD_PRIVATE_MACHINE_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace mkfd_test {

// The body runs in the child; its gtest failures are printed there and turned into a failure
// of the calling test. The child also fails when it leaks memory (under the sanitizers).
void RunInPrivateMachine(const std::function<void()>& body);

// Writes content to path, creating the missing directories.
void WriteFile(const std::string& path, const std::string& content);

// Creates an empty "/dev/mkfd" (a plain file: it opens, and every ioctl on it fails).
void CreateFakeDevice();

struct MemoryBank {
  std::string properties;  // the text of the bank's "properties" file
};

struct Node {
  std::optional<uint32_t> gpu_id;  // none: the node has no "gpu_id" file
  std::string properties;
  std::vector<MemoryBank> banks;
  bool has_mem_banks = true;       // false: no "mem_banks" directory at all
};

// Writes nodes 0..n-1 under the topology directory the library reads.
void WriteTopology(const std::vector<Node>& nodes);

// A complete accelerator "properties" text with the given ids; other values are fixed and
// distinct, so a test can tell which file was read.
std::string AcceleratorProperties(uint32_t vendor, uint32_t device, uint32_t subsystem,
                                  uint32_t simd_count);
std::string BankProperties(uint32_t heap_type, uint64_t size);

// Number of open descriptors of this process.
int CountOpenDescriptors();

}  // namespace mkfd_test

#endif  // ZOVDX_TESTS_MKFD_PRIVATE_MACHINE_H_
