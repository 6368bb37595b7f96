// The control commands of `vdx-sim ctl`, carried out inside the daemon against the live
// simulated world.
#ifndef VDX_SIM_CONTROL_H_
#define VDX_SIM_CONTROL_H_

#include <string>
#include <vector>

#include "sim/driver.h"
#include "sim/service.h"
#include "sim/sysfs.h"

namespace vdxsim {

// The writable configuration store ("/etc") of a sandbox: read-only, full, or normal.
class EtcStore {
 public:
  virtual ~EtcStore() = default;
  virtual std::string Set(const std::string& mode) = 0;  // "rw", "ro", "full", "space"
  virtual std::string Describe() const = 0;
};

struct World {
  Driver* driver;
  Sysfs* sysfs;
  Service* service;
  EtcStore* etc;  // null outside a sandbox
  std::string module_state;
};

// Runs one command. Returns the exit status for the caller (0 ok, 1 refused, 2 usage)
// and appends what it prints to *out.
int RunControl(const std::vector<std::string>& args, World* world, std::string* out);

extern const char kControlUsage[];

// errno by name ("EINTR") or number; -1 when unknown.
int ParseErrno(const std::string& text);

}  // namespace vdxsim

#endif  // VDX_SIM_CONTROL_H_
