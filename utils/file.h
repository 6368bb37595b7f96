// File and directory helpers (reporting with a bool, never throwing) and FileLocker, an
// advisory whole-file lock that serialises changes between processes (reporting by throwing).
// A helper that returns false leaves errno telling why (EINVAL for an empty name), whatever
// its clean-up did afterwards, so that a caller may say it with ErrnoMessage (utils.h); the
// lock's exceptions carry the same words.
#ifndef ZOVDX_UTILS_FILE_H_
#define ZOVDX_UTILS_FILE_H_

#include <fcntl.h>
#include <sys/types.h>
#include <time.h>

#include <cstddef>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

bool IsFileExist(const std::string& path);       // any kind of file
bool IsDirectoryExist(const std::string& path);  // follows links

// Stores the times in whole seconds into the outputs that are not null. On failure the
// outputs are untouched.
bool GetTimestamp(const std::string& path, long* atime, unsigned long* mtime, long* ctime);
// The modification time at the file system's full precision (nanoseconds): changes within one
// second are told apart. False on failure, the output untouched.
bool GetModificationTime(const std::string& path, struct timespec* mtime);

// Creates every missing level with mode 0777 (less the umask). The path is always taken
// from the root: the relative a/b creates /a and /a/b.
bool CreateDirectory(const std::string& path);

// Writes content to directory/fileName (truncating, or appending when append is set),
// creating the directory, and syncs it to disk before returning true.
bool WriteTextFile(const std::string& directory, const std::string& fileName,
                   const std::string& content, bool append);

// Replaces directory/fileName with content so that no reader ever sees a part of it: the text
// goes to a temporary file in the same directory (named "." + fileName + ".tmp-" + pid), which
// is given mode and synced (unless sync is false) and renamed over the old file; then the
// directory is synced. Creates the directory. The mode does not depend on the umask. False on
// any failure (errno tells why), the old file untouched and no temporary file left.
bool ReplaceTextFile(const std::string& directory, const std::string& fileName,
                     const std::string& content, mode_t mode = 0644, bool sync = true);

// Creates the directory path (its parents as CreateDirectory does) with exactly mode, whatever
// the umask. A directory already there is left as it is. False on failure.
bool CreateDirectoryWithMode(const std::string& path, mode_t mode);

// Calls visit with each line of path (without its line end) until visit returns false.
// False when the file cannot be opened. The descriptor is close-on-exec.
bool ForEachLine(const std::string& path, const std::function<bool(const std::string&)>& visit);
// The same over a stream the caller opened (and still owns).
void ForEachLine(FILE* file, const std::function<bool(const std::string&)>& visit);

// Appends every entry name but "." and ".." to names, in directory order.
bool GetFileNamesInDirectory(const std::string& directory, std::vector<std::string>& names);

// Calls visit with each entry name but "." and ".." in directory order until visit returns
// false. False when the directory cannot be opened.
bool ForEachDirectoryEntry(const std::string& directory,
                           const std::function<bool(const char* name)>& visit);

// Replaces text with the first limit bytes of the file (all of it for limit 0); path is
// taken relative to dir_fd. False when the file cannot be opened or read; text may then
// hold a part. Meant for small files (sysfs, /proc): everything is held in memory.
bool ReadSmallFile(const std::string& path, std::string& text, size_t limit = 0,
                   int dir_fd = AT_FDCWD);

// Holds a flock on a lock file from construction to Unlock or destruction.
// Not to be shared between threads.
//
// Owner::kAnyone: the lock file is created with mode 0666 whatever the umask, so unprivileged
// processes can share it. Such a file may live in a directory that every user may write
// (/tmp), so it is opened without following a symbolic link, never truncated, and refused
// unless it is a regular file: nobody can make a root process create or clobber a file of
// their choosing.
//
// Owner::kRootOnly: a lock that no other user can hold, and so none can use to stall its
// holders. Its directory is created 0755 and the file 0600, both owned by root; a directory
// that is not root's or that others may write, and a file that is not a regular file of
// root's that only root may open, are refused (OpenLockFileError), never repaired. No link is
// followed on the way.
class FileLocker {
 public:
  static constexpr int kShared = 1;     // LOCK_SH
  static constexpr int kExclusive = 2;  // LOCK_EX

  enum class Owner { kAnyone, kRootOnly };

  class LockTypeError : public std::runtime_error {
   public:
    using std::runtime_error::runtime_error;
    virtual ~LockTypeError() = default;
  };
  class OpenLockFileError : public std::runtime_error {
   public:
    using std::runtime_error::runtime_error;
    virtual ~OpenLockFileError() = default;
  };
  // The lock is held by another process and a non-blocking request was made.
  class AquireLockFail : public std::runtime_error {
   public:
    using std::runtime_error::runtime_error;
    virtual ~AquireLockFail() = default;
  };
  class AquireLockError : public std::runtime_error {
   public:
    using std::runtime_error::runtime_error;
    virtual ~AquireLockError() = default;
  };

  // Throws one of the four classes above; on a throw no descriptor stays open.
  FileLocker(const std::string& lockFile, int lockType, bool nonBlocking,
             Owner owner = Owner::kAnyone);
  ~FileLocker();

  FileLocker(const FileLocker&) = delete;
  FileLocker& operator=(const FileLocker&) = delete;

  // Converts the held lock in place (not atomically: another process may get in between).
  // The system drops the old lock before it asks for the new one, so after a refused or
  // failed conversion nothing is held any more: LockStatus() is then -1.
  void ChangeLockType(int lockType, bool nonBlocking);
  void Unlock();
  // The lock type held now (kShared or kExclusive), or -1 when none.
  int LockStatus() const { return lock_status_; }

  bool operator==(const FileLocker& other) const;

 private:
  const std::string lock_file_;
  int lock_fd_ = -1;
  int lock_status_ = -1;
};

#endif  // ZOVDX_UTILS_FILE_H_
