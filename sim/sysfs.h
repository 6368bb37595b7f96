// The driver's sysfs tree as the daemon publishes it: the topology from the machine
// description, the module state file, and the "vgpu" and "group" directories that follow
// the driver state. Everything lives under a root prefix ("" in a sandbox, a scratch
// directory in unit tests). Files are replaced by rename so that a reader never sees
// half a file.
#ifndef VDX_SIM_SYSFS_H_
#define VDX_SIM_SYSFS_H_

#include <map>
#include <string>

#include "sim/driver.h"
#include "sim/machine.h"

namespace vdxsim {

class Sysfs {
 public:
  explicit Sysfs(std::string root) : root_(std::move(root)) {}

  // Creates the tree and writes the topology and the module state. Returns an empty
  // string or what failed.
  std::string Publish(const Machine& machine);
  // Writes the module state file ("absent" removes it).
  std::string SetModuleState(const std::string& state);
  // Brings "vgpu" and "group" in line with the driver.
  void Sync(const Driver& driver);

  std::string KfdDir() const { return root_ + "/sys/devices/virtual/kfd/kfd"; }
  std::string ModuleDir() const { return root_ + "/sys/module/zocu"; }

  // Text of a group's entry file.
  static std::string GroupEntry(const Group& group);

 private:
  bool WriteFile(const std::string& path, const std::string& text);
  void SyncDir(const std::string& dir, const std::map<std::string, std::string>& want,
               std::map<std::string, std::string>* have, bool as_entry_dir);

  std::string root_;
  std::map<std::string, std::string> vgpu_files_;   // name -> content
  std::map<std::string, std::string> group_files_;  // name -> entry content
  unsigned staging_seq_ = 0;
};

}  // namespace vdxsim

#endif  // VDX_SIM_SYSFS_H_
