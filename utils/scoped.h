// Scoped owners of the operating system's handles and of malloc'd buffers: a descriptor, a
// DIR*, a FILE* and a buffer each released on every way out of the scope that made it,
// exceptions included. Releasing never changes errno, so a helper that fails and returns
// leaves errno saying why the failure happened, not how the clean-up went.
#ifndef ZOVDX_UTILS_SCOPED_H_
#define ZOVDX_UTILS_SCOPED_H_

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace utils {

// Keeps errno across a clean-up call.
template <typename Release>
void KeepingErrno(Release release) {
  const int saved = errno;
  release();
  errno = saved;
}

struct DirCloser {
  void operator()(DIR* dir) const { KeepingErrno([dir] { closedir(dir); }); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

struct FileCloser {
  void operator()(FILE* file) const { KeepingErrno([file] { fclose(file); }); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

// A buffer from malloc or calloc (the frames of the service protocol, for instance).
struct FreeDeleter {
  void operator()(void* buffer) const { KeepingErrno([buffer] { free(buffer); }); }
};
template <typename T>
using MallocHandle = std::unique_ptr<T, FreeDeleter>;

// Owns a descriptor; a negative value owns nothing.
class FdHandle {
 public:
  explicit FdHandle(int fd = -1) : fd_(fd) {}
  ~FdHandle() { reset(); }
  FdHandle(const FdHandle&) = delete;
  FdHandle& operator=(const FdHandle&) = delete;

  int get() const { return fd_; }
  // Gives the descriptor up without closing it.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    const int old = fd_;
    if (old >= 0) KeepingErrno([old] { close(old); });
    fd_ = fd;
  }

 private:
  int fd_;
};

}  // namespace utils

#endif  // ZOVDX_UTILS_SCOPED_H_
