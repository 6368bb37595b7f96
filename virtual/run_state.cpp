// The lock, the configuration's generation and the record of instance owners under
// /run/zovdx. Writers hold the lock exclusively; the files are replaced whole by rename, so
// readers without the lock see one version or the next, never a mix.
#include "virtual/run_state.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "utils/logger.h"
#include "utils/scoped.h"
#include "utils/utils.h"
#include "virtual/dmvirtual_labels.h"

namespace {

constexpr char kGenerationName[] = "generation";
constexpr char kInstanceOwnersName[] = "instances";
// Both files are a few lines; anything larger was not written here.
constexpr size_t kMaxStateFile = 64 * 1024;

// A process's start time, field 22 of /proc/PID/stat (after the name in parentheses, which
// may itself hold blanks and parentheses). 0 when it cannot be read.
unsigned long long StartTimeOf(long pid) {
  std::string text;
  if (!ReadSmallFile("/proc/" + std::to_string(pid) + "/stat", text, 4096)) return 0;
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(text.substr(close + 1));
  std::string field;
  // After the name come state (field 3) and on; the start time is the 20th of them.
  for (int i = 3; i <= 22 && fields >> field; ++i) {
    if (i == 22) return strtoull(field.c_str(), nullptr, 10);
  }
  return 0;
}

bool WriteStateFile(const char* name, const std::string& text) {
  // /run is memory: a rename is enough to make the new text the only one anyone can read.
  return ReplaceTextFile(kRunDir, name, text, 0644, false);
}

}  // namespace

ConfigLock::ConfigLock(int lock_type) {
  if (geteuid() == 0)
    lock_.emplace(kVdevLockFile, lock_type, false, FileLocker::Owner::kRootOnly);
}

void ConfigLock::Raise() {
  if (lock_.has_value()) lock_->ChangeLockType(FileLocker::kExclusive, false);
}

void ConfigLock::Unlock() {
  if (lock_.has_value()) lock_->Unlock();
}

std::string ReadGeneration() {
  // Every query reads it: one open, one read, one close.
  const utils::FdHandle fd(open(kGenerationFile, O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return "";
  char text[128];
  ssize_t n;
  do {
    n = read(fd.get(), text, sizeof(text));
  } while (n < 0 && errno == EINTR);
  return n > 0 ? std::string(text, static_cast<size_t>(n)) : std::string();
}

bool BumpGeneration() {
  // "<count> <token>": the token, drawn when the file is first made, keeps a count that
  // starts again (the file removed by hand) from repeating a text seen before.
  unsigned long long count = 0;
  char token[17] = "";
  const std::string old = ReadGeneration();
  if (sscanf(old.c_str(), "%llu %16s", &count, token) != 2 || strlen(token) != 16) {
    uint64_t random = 0;
    if (getrandom(&random, sizeof(random), GRND_NONBLOCK) != sizeof(random))
      random = static_cast<uint64_t>(getpid()) ^ static_cast<uint64_t>(time(nullptr)) << 20;
    snprintf(token, sizeof(token), "%016" PRIx64, random);
    count = 0;
  }
  char text[64];
  snprintf(text, sizeof(text), "%llu %s\n", count + 1, token);
  if (WriteStateFile(kGenerationName, text)) return true;
  // The change itself stands; other processes still see it by the directory's time stamp.
  LOG_DEBUG("[%s] %s: failed to write %s - %s.\n", __func__, kLabelWarning, kGenerationFile,
            ErrnoMessage(errno).c_str());
  return false;
}

ProcessIdentity SelfIdentity() {
  ProcessIdentity self;
  self.pid = static_cast<long>(getpid());
  self.start = StartTimeOf(self.pid);
  return self;
}

std::vector<InstanceOwner> ReadInstanceOwners() {
  std::vector<InstanceOwner> record;
  std::string text;
  if (!ReadSmallFile(kInstanceOwnersFile, text, kMaxStateFile)) return record;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    InstanceOwner entry;
    if (sscanf(line.c_str(), "%d %d %ld %llu", &entry.device, &entry.pipe, &entry.owner.pid,
               &entry.owner.start) == 4)
      record.push_back(entry);
  }
  return record;
}

bool WriteInstanceOwners(const std::vector<InstanceOwner>& record) {
  std::string text;
  for (const InstanceOwner& entry : record) {
    text += std::to_string(entry.device) + " " + std::to_string(entry.pipe) + " " +
            std::to_string(entry.owner.pid) + " " + std::to_string(entry.owner.start) + "\n";
  }
  return WriteStateFile(kInstanceOwnersName, text);
}

std::optional<ProcessIdentity> InstanceOwnerOf(const std::vector<InstanceOwner>& record,
                                               int device, int pipe) {
  for (const InstanceOwner& entry : record)
    if (entry.device == device && entry.pipe == pipe) return entry.owner;
  return std::nullopt;
}

namespace {

// One instance per device and pipe: whatever the record said of (device, pipe) goes.
std::vector<InstanceOwner> Without(std::vector<InstanceOwner> record, int device, int pipe) {
  std::vector<InstanceOwner> kept;
  for (const InstanceOwner& entry : record)
    if (entry.device != device || entry.pipe != pipe) kept.push_back(entry);
  return kept;
}

}  // namespace

bool SetInstanceOwner(int device, int pipe) {
  std::vector<InstanceOwner> record = Without(ReadInstanceOwners(), device, pipe);
  InstanceOwner entry;
  entry.device = device;
  entry.pipe = pipe;
  entry.owner = SelfIdentity();
  record.push_back(entry);
  return WriteInstanceOwners(record);
}

bool ForgetInstanceOwner(int device, int pipe) {
  const std::vector<InstanceOwner> record = ReadInstanceOwners();
  if (!InstanceOwnerOf(record, device, pipe)) return true;
  return WriteInstanceOwners(Without(record, device, pipe));
}
