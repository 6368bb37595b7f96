// What the processes of a host share besides the configuration files, all under /run/zovdx
// (root's, mode 0755, gone at reboot like the driver instances it describes):
//   vdx_virtual.lock  the lock that serialises changes; mode 0600, so that only root can hold
//                     it and nobody else can stall a change or a query by holding it;
//   generation        bumped by every change under the exclusive lock; mode 0644, so that
//                     every process, root or not, compares it before it trusts its view of
//                     /etc/vdev (time stamps alone can miss a change);
//   instances         which process made each live driver instance, so that a process's exit
//                     destroys only its own.
// None of these functions touches the manager's state; the callers hold what each says.
#ifndef ZOVDX_VIRTUAL_RUN_STATE_H_
#define ZOVDX_VIRTUAL_RUN_STATE_H_

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "utils/file.h"

inline constexpr char kRunDir[] = "/run/zovdx";
inline constexpr char kVdevLockFile[] = "/run/zovdx/vdx_virtual.lock";
inline constexpr char kGenerationFile[] = "/run/zovdx/generation";
inline constexpr char kInstanceOwnersFile[] = "/run/zovdx/instances";

// The inter-process lock as this process may take it. Root takes the root-only lock file,
// shared, and raises it to exclusive before it changes anything. Any other user may not open
// it and holds nothing: such a process only reads, and the files are replaced whole by rename,
// so it sees every file whole (though possibly some of another request's files before the
// rest). Throws FileLocker's exceptions. Not to be shared between threads.
class ConfigLock {
 public:
  explicit ConfigLock(int lock_type);
  ConfigLock(const ConfigLock&) = delete;
  ConfigLock& operator=(const ConfigLock&) = delete;

  bool held() const { return lock_.has_value() && lock_->LockStatus() != -1; }
  bool exclusive() const { return held() && lock_->LockStatus() == FileLocker::kExclusive; }
  // To exclusive, waiting for it (not atomic: another process may change the files in
  // between). Nothing when no lock is held.
  void Raise();
  void Unlock();

 private:
  std::optional<FileLocker> lock_;
};

// The generation's text, "" when there is none (nothing changed since boot, or the file
// cannot be read). Two texts are equal only when no change happened between the two reads.
std::string ReadGeneration();
// A new generation; the caller holds the lock exclusively. False when it cannot be written.
bool BumpGeneration();

// A process, told apart from any later one that reuses its pid by its start time.
struct ProcessIdentity {
  long pid = 0;
  unsigned long long start = 0;  // clock ticks after boot, from /proc/PID/stat
  bool operator==(const ProcessIdentity& o) const { return pid == o.pid && start == o.start; }
};
ProcessIdentity SelfIdentity();

// One live instance and the process that made it.
struct InstanceOwner {
  int device = 0;
  int pipe = 0;
  ProcessIdentity owner;
};

// The record as the file holds it; empty when there is none. Malformed lines are skipped.
std::vector<InstanceOwner> ReadInstanceOwners();
// The caller holds the lock exclusively. The instance (device, pipe) now belongs to this
// process (set), or to nobody (forget). False when the record cannot be written.
bool SetInstanceOwner(int device, int pipe);
bool ForgetInstanceOwner(int device, int pipe);
// The record's owner of (device, pipe), if it has one.
std::optional<ProcessIdentity> InstanceOwnerOf(const std::vector<InstanceOwner>& record,
                                               int device, int pipe);
bool WriteInstanceOwners(const std::vector<InstanceOwner>& record);

#endif  // ZOVDX_VIRTUAL_RUN_STATE_H_
