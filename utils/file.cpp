#include "utils/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <memory>

#include "utils/logger.h"
#include "utils/scoped.h"
#include "utils/utils.h"

namespace {

constexpr const char kRedInvalid[] = "\033[31minvalid\033[0m";
constexpr const char kRedError[] = "\033[31merror\033[0m";

std::string ErrnoText(int err) { return std::to_string(err) + ":" + ErrnoMessage(err); }

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
  if (path.empty()) return errno = ENOENT, false;
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

bool GetModificationTime(const std::string& path, struct timespec* mtime) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  *mtime = st.st_mtim;
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

bool CreateDirectoryWithMode(const std::string& path, mode_t mode) {
  if (IsDirectoryExist(path)) return true;
  const size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0 && !CreateDirectory(path.substr(0, slash)))
    return false;
  if (mkdir(path.c_str(), mode) != 0) return errno == EEXIST && IsDirectoryExist(path);
  // mkdir applied the umask; the directory this call made gets exactly the mode asked for.
  utils::FdHandle fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return fd.get() >= 0 && fchmod(fd.get(), mode) == 0;
}

bool WriteTextFile(const std::string& directory, const std::string& fileName,
                   const std::string& content, bool append) {
  if (directory.empty() || fileName.empty()) return errno = EINVAL, false;
  if (!CreateDirectory(directory)) return false;
  const std::string path = directory + "/" + fileName;
  utils::FileHandle file(fopen(path.c_str(), append ? "a+e" : "we"));
  if (!file) return false;
  // A short write, a failed flush, a failed sync or a failed close all mean the file is not
  // what the caller asked for: say so instead of reporting success, with the first failure's
  // errno (the later steps fail because of it, and would say less).
  int why = 0;
  const auto step = [&why](bool done) {
    if (!done && why == 0) why = errno != 0 ? errno : EIO;
  };
  errno = 0;
  step(fwrite(content.data(), 1, content.size(), file.get()) == content.size());
  step(fflush(file.get()) == 0);
  step(fsync(fileno(file.get())) == 0);
  step(fclose(file.release()) == 0);
  if (why != 0) errno = why;
  return why == 0;
}

bool ReplaceTextFile(const std::string& directory, const std::string& fileName,
                     const std::string& content, mode_t mode, bool sync) {
  if (directory.empty() || fileName.empty()) return errno = EINVAL, false;
  if (!CreateDirectory(directory)) return false;
  const std::string path = directory + "/" + fileName;
  const std::string temporary =
      directory + "/." + fileName + ".tmp-" + std::to_string(static_cast<long>(getpid()));
  utils::FdHandle fd(
      open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode));
  if (fd.get() < 0) return false;
  // The mode is the caller's, not what the umask leaves of it: a umask of 0 must not make a
  // root-written file writable by everyone.
  bool ok = fchmod(fd.get(), mode) == 0;
  for (size_t done = 0; ok && done < content.size();) {
    const ssize_t n = write(fd.get(), content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<size_t>(n);
  }
  ok = ok && (!sync || fsync(fd.get()) == 0);
  fd.reset();
  ok = ok && rename(temporary.c_str(), path.c_str()) == 0;
  if (!ok) {
    const int err = errno;
    unlink(temporary.c_str());
    errno = err;
    return false;
  }
  if (!sync) return true;
  // The rename itself is durable only once the directory is synced.
  utils::FdHandle dir(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return dir.get() >= 0 && fsync(dir.get()) == 0;
}

bool ForEachLine(const std::string& path,
                 const std::function<bool(const std::string&)>& visit) {
  utils::FileHandle file(fopen(path.c_str(), "re"));
  if (!file) return false;
  ForEachLine(file.get(), visit);
  return true;
}

void ForEachLine(FILE* file, const std::function<bool(const std::string&)>& visit) {
  // getline mallocs and reallocs the buffer; whatever pointer it left is freed on every way
  // out, a throwing visitor included.
  struct LineBuffer {
    char* data = nullptr;
    size_t capacity = 0;
    ~LineBuffer() { free(data); }
  } buffer;
  ssize_t length;
  std::string line;
  while ((length = getline(&buffer.data, &buffer.capacity, file)) >= 0) {
    line.assign(buffer.data, static_cast<size_t>(length));
    if (!line.empty() && line.back() == '\n') line.pop_back();
    if (!visit(line)) break;
  }
}

bool ForEachDirectoryEntry(const std::string& directory,
                           const std::function<bool(const char* name)>& visit) {
  utils::DirHandle dir(opendir(directory.c_str()));  // glibc opens it close-on-exec
  if (!dir) return false;
  while (const struct dirent* entry = readdir(dir.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    if (!visit(entry->d_name)) break;
  }
  return true;
}

bool GetFileNamesInDirectory(const std::string& directory, std::vector<std::string>& names) {
  return ForEachDirectoryEntry(directory, [&names](const char* name) {
    names.emplace_back(name);
    return true;
  });
}

bool ReadSmallFile(const std::string& path, std::string& text, size_t limit, int dir_fd) {
  text.clear();
  utils::FdHandle fd(openat(dir_fd, path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return false;
  char buffer[4096];
  for (;;) {
    size_t want = sizeof(buffer);
    if (limit != 0) {
      if (text.size() >= limit) break;
      want = std::min(want, limit - text.size());
    }
    const ssize_t n = read(fd.get(), buffer, want);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  return true;
}

namespace {

// Opens lock_file read-write, creating it with mode (exactly, whatever the umask) when it is
// missing, relative to dir_fd. Only a missing file is created, with O_EXCL, so that only a
// file this very call made gets its mode set; a file that comes or goes between the two opens
// is simply taken on the next round. No link is followed and nothing is truncated. Returns
// the descriptor, or -1 with *err set; *existed says which of the two opens answered.
int OpenOrCreateLockFile(int dir_fd, const std::string& name, const std::string& shown,
                         mode_t mode, bool* existed, int* err) {
  *existed = true;
  utils::FdHandle fd;
  for (int round = 0; round < 8; ++round) {
    fd.reset(openat(dir_fd, name.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (fd.get() >= 0 || errno != ENOENT) {
      *err = errno;
      if (round == 0) LOG_DEBUG("[%s] lock file %s exist, open it.\n", "FileLocker", shown.c_str());
      break;
    }
    if (round == 0)
      LOG_DEBUG("[%s] lock file %s does not exist, create it.\n", "FileLocker", shown.c_str());
    *existed = false;
    fd.reset(openat(dir_fd, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                    mode));
    if (fd.get() >= 0) {
      // The mode is set on the descriptor, not through the process-wide umask, which other
      // threads' files would share meanwhile.
      if (fchmod(fd.get(), mode) != 0) {
        *err = errno;
        return -1;
      }
      break;
    }
    *err = errno;
    if (*err != EEXIST) break;
  }
  struct stat st;
  if (fd.get() >= 0 && (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))) {
    *err = EINVAL;
    return -1;
  }
  return fd.release();
}

// A directory that may hold a root-only lock: root's, and nobody else may write it, so that
// nobody else can plant or swap the lock file in it.
bool IsRootOnlyDirectory(const struct stat& st) {
  return S_ISDIR(st.st_mode) && st.st_uid == 0 && (st.st_mode & 022) == 0;
}

// A root-only lock file: a regular file of root's that nobody else may open (and so lock).
bool IsRootOnlyLockFile(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 077) == 0;
}

// The directory of a root-only lock, created 0755 when missing; refused (EPERM) unless it is
// a root-only directory. Returns a descriptor of it, or -1 with *err set.
int OpenRootLockDirectory(const std::string& dir, int* err) {
  const bool made = mkdir(dir.c_str(), 0755) == 0;
  if (!made && errno != EEXIST) {
    *err = errno;
    return -1;
  }
  utils::FdHandle fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.get() < 0) {
    *err = errno;
    return -1;
  }
  if (made && fchmod(fd.get(), 0755) != 0) {
    *err = errno;
    return -1;
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !IsRootOnlyDirectory(st)) {
    *err = EPERM;
    return -1;
  }
  return fd.release();
}

// Opens the root-only lock file path in dir, making both when missing. The common case, both
// there, costs a look at the directory (without following a link: only root can change what
// /run holds) and one open.
int OpenRootLockFile(const std::string& dir, const std::string& name, const std::string& path,
                     bool* existed, int* err) {
  *existed = true;
  struct stat st;
  if (lstat(dir.c_str(), &st) == 0) {
    if (!IsRootOnlyDirectory(st)) {
      *err = EPERM;
      return -1;
    }
    utils::FdHandle fd(open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (fd.get() >= 0) {
      LOG_DEBUG("[%s] lock file %s exist, open it.\n", "FileLocker", path.c_str());
      if (!IsRootOnlyLockFile(fd.get())) {
        *err = EPERM;
        return -1;
      }
      return fd.release();
    }
    if (errno != ENOENT) {
      *err = errno;
      return -1;
    }
  } else if (errno != ENOENT) {
    *err = errno;
    return -1;
  }
  const utils::FdHandle dir_fd(OpenRootLockDirectory(dir, err));
  if (dir_fd.get() < 0) return -1;
  utils::FdHandle fd(OpenOrCreateLockFile(dir_fd.get(), name, path, 0600, existed, err));
  if (fd.get() >= 0 && !IsRootOnlyLockFile(fd.get())) {
    *err = EPERM;
    return -1;
  }
  return fd.release();
}

}  // namespace

FileLocker::FileLocker(const std::string& lockFile, int lockType, bool nonBlocking, Owner owner)
    : lock_file_(lockFile) {
  if (!IsValidLockType(lockType))
    throw LockTypeError(std::string(kRedInvalid) + " input lock_type parameter");

  bool existed = true;
  int err = 0;
  utils::FdHandle fd;
  if (owner == Owner::kAnyone) {
    fd.reset(OpenOrCreateLockFile(AT_FDCWD, lock_file_, lock_file_, 0666, &existed, &err));
  } else {
    const size_t slash = lock_file_.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : lock_file_.substr(0, slash);
    fd.reset(OpenRootLockFile(dir.empty() ? "/" : dir, lock_file_.substr(slash + 1), lock_file_,
                              &existed, &err));
  }
  if (fd.get() < 0) {
    throw OpenLockFileError(std::string(kRedError) +
                            (existed ? " while open lock file " : " while create lock file ") +
                            lock_file_ + ". " + ErrnoText(err));
  }

  err = FlockRetrying(fd.get(), lockType, nonBlocking);
  if (err == 0) {
    lock_fd_ = fd.release();
    lock_status_ = lockType;
    return;
  }
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
  // flock released the old lock before it tried the new one: nothing is held now.
  lock_status_ = -1;
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
