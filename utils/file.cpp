#include "utils/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "utils/logger.h"
#include "utils/utils.h"

namespace {

constexpr const char kRedInvalid[] = "\033[31minvalid\033[0m";
constexpr const char kRedError[] = "\033[31merror\033[0m";

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

std::string ErrnoText(int err) { return std::to_string(err) + ":" + strerror(err); }

bool IsValidLockType(int lockType) {
  return lockType == FileLocker::kShared || lockType == FileLocker::kExclusive;
}

// flock, retried when a signal interrupts a blocking wait. 0 on success, else the errno.
int FlockRetrying(int fd, int lockType, bool nonBlocking) {
  for (;;) {
    if (flock(fd, lockType | (nonBlocking ? LOCK_NB : 0)) == 0) return 0;
    if (errno != EINTR) return errno;
  }
}

std::string HeldElsewhereText(const std::string& path) {
  return "the lock on file " + path + " has been already aquired by another process";
}

}  // namespace

bool IsFileExist(const std::string& path) {
  return !path.empty() && access(path.c_str(), F_OK) == 0;
}

bool IsDirectoryExist(const std::string& path) {
  if (path.empty()) return false;
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool GetTimestamp(const std::string& path, long* atime, unsigned long* mtime, long* ctime) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  if (atime != nullptr) *atime = st.st_atime;
  if (mtime != nullptr) *mtime = static_cast<unsigned long>(st.st_mtime);
  if (ctime != nullptr) *ctime = st.st_ctime;
  return true;
}

bool CreateDirectory(const std::string& path) {
  if (IsDirectoryExist(path)) return true;
  std::vector<std::string> pieces;
  SplitStr(path, "/", pieces, true);
  std::string prefix;
  for (const std::string& piece : pieces) {
    prefix += "/" + piece;
    if (IsDirectoryExist(prefix)) continue;
    if (mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST) return false;
  }
  return true;
}

bool WriteTextFile(const std::string& directory, const std::string& fileName,
                   const std::string& content, bool append) {
  if (directory.empty() || fileName.empty()) return false;
  if (!CreateDirectory(directory)) return false;
  const std::string path = directory + "/" + fileName;
  FILE* fp = fopen(path.c_str(), append ? "a+e" : "we");
  if (fp == nullptr) return false;
  // A short write, a failed flush or a failed sync all mean the file is not what the
  // caller asked for: say so instead of reporting success.
  bool ok = fwrite(content.data(), 1, content.size(), fp) == content.size();
  ok = fflush(fp) == 0 && ok;
  ok = fsync(fileno(fp)) == 0 && ok;
  ok = fclose(fp) == 0 && ok;
  return ok;
}

bool ForEachLine(const std::string& path,
                 const std::function<bool(const std::string&)>& visit) {
  FILE* fp = fopen(path.c_str(), "re");
  if (fp == nullptr) return false;
  char* buffer = nullptr;
  size_t capacity = 0;
  ssize_t length;
  std::string line;
  while ((length = getline(&buffer, &capacity, fp)) >= 0) {
    line.assign(buffer, static_cast<size_t>(length));
    if (!line.empty() && line.back() == '\n') line.pop_back();
    if (!visit(line)) break;
  }
  free(buffer);
  fclose(fp);
  return true;
}

bool GetFileNamesInDirectory(const std::string& directory, std::vector<std::string>& names) {
  if (!IsDirectoryExist(directory)) return false;
  DirHandle dir(opendir(directory.c_str()));
  if (!dir) return false;
  while (const struct dirent* entry = readdir(dir.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    names.emplace_back(entry->d_name);
  }
  return true;
}

FileLocker::FileLocker(const std::string& lockFile, int lockType, bool nonBlocking)
    : lock_file_(lockFile) {
  if (!IsValidLockType(lockType))
    throw LockTypeError(std::string(kRedInvalid) + " input lock_type parameter");

  // With umask 0 the lock file comes out 0666, so that unprivileged processes can take a
  // shared lock on a file that root created.
  const mode_t old_mask = umask(0);
  if (!IsFileExist(lock_file_)) {
    LOG_DEBUG("[%s] lock file %s does not exist, create it.\n", "FileLocker", lock_file_.c_str());
    lock_fd_ = open(lock_file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (lock_fd_ < 0) {
      const int err = errno;
      umask(old_mask);
      throw OpenLockFileError(std::string(kRedError) + " while create lock file " + lock_file_ +
                              ". " + ErrnoText(err));
    }
  } else {
    LOG_DEBUG("[%s] lock file %s exist, open it.\n", "FileLocker", lock_file_.c_str());
    lock_fd_ = open(lock_file_.c_str(), O_RDWR | O_CLOEXEC);
    if (lock_fd_ < 0) {
      const int err = errno;
      umask(old_mask);
      throw OpenLockFileError(std::string(kRedError) + " while open lock file " + lock_file_ +
                              ". " + ErrnoText(err));
    }
  }
  umask(old_mask);

  const int err = FlockRetrying(lock_fd_, lockType, nonBlocking);
  if (err == 0) {
    lock_status_ = lockType;
    return;
  }
  close(lock_fd_);
  lock_fd_ = -1;
  if (err == EWOULDBLOCK) throw AquireLockFail(HeldElsewhereText(lock_file_));
  throw AquireLockError(std::string(kRedError) + " while aquire the lock on file " + lock_file_ +
                        "." + ErrnoText(err));
}

FileLocker::~FileLocker() {
  Unlock();
  if (lock_fd_ != -1) close(lock_fd_);
}

void FileLocker::ChangeLockType(int lockType, bool nonBlocking) {
  if (!IsValidLockType(lockType))
    throw LockTypeError(std::string(kRedInvalid) + " input lock_type parameter");
  if (lock_status_ == lockType) return;
  const int err = FlockRetrying(lock_fd_, lockType, nonBlocking);
  if (err == 0) {
    lock_status_ = lockType;
    return;
  }
  if (err == EWOULDBLOCK) throw AquireLockFail(HeldElsewhereText(lock_file_));
  throw AquireLockError(std::string(kRedError) + " while aquire lock to lock file " + lock_file_ +
                        "." + ErrnoText(err));
}

void FileLocker::Unlock() {
  if (lock_status_ == -1) return;
  flock(lock_fd_, LOCK_UN);
  lock_status_ = -1;
}

bool FileLocker::operator==(const FileLocker& other) const {
  return lock_file_ == other.lock_file_ && lock_fd_ == other.lock_fd_ &&
         lock_status_ == other.lock_status_;
}
