// The driver daemon: pid 1 of a sandbox. It publishes the machine in sysfs, serves the
// driver connections of the preload library, the control socket and the manager
// service from one single-threaded poll loop, starts the command, reaps every orphan,
// and ends (taking the whole sandbox with it) when the command ends.
#ifndef VDX_SIM_DAEMON_H_
#define VDX_SIM_DAEMON_H_

#include <string>
#include <vector>

#include "sim/control.h"
#include "sim/machine.h"

namespace vdxsim {

struct DaemonConfig {
  Machine machine;
  std::vector<std::string> argv;  // the command
  std::vector<std::string> env;   // its environment
  int parent_fd = -1;             // hangs up when the launcher is gone
  EtcStore* etc = nullptr;
};

// Returns the status the sandbox exits with: the command's, or 128 + its signal.
int RunDaemon(const DaemonConfig& config);

}  // namespace vdxsim

#endif  // VDX_SIM_DAEMON_H_
