// The launcher's half of a sandbox: new mount, network and PID namespaces (and a user
// namespace when not root), the private file systems over /etc, /tmp, /sys/devices/virtual
// and /sys/module, and the daemon as pid 1. Nothing of it outlives the launcher.
#ifndef VDX_SIM_SANDBOX_H_
#define VDX_SIM_SANDBOX_H_

#include <cstdint>
#include <string>
#include <vector>

#include "sim/machine.h"

namespace vdxsim {

struct SandboxOptions {
  Machine machine;
  std::vector<std::string> command;
  bool etc_readonly = false;
  bool etc_full = false;
  bool private_home = false;  // root's home directory as an overlay too
  bool containers = false;    // /dev/mkfd and the machine's CDI file, for container engines
  uint64_t etc_size = 64ull << 20;  // room for writes under /etc
};

// Runs the command in a new sandbox and returns the status to exit with.
int RunSandbox(const SandboxOptions& options);

}  // namespace vdxsim

#endif  // VDX_SIM_SANDBOX_H_
