// Scoped owners of the operating system's handles and of malloc'd buffers: a descriptor, a
// DIR*, a FILE* and a buffer each released on every way out of the scope that made it,
// exceptions included.
#ifndef ZOVDX_UTILS_SCOPED_H_
#define ZOVDX_UTILS_SCOPED_H_

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace utils {

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

// A buffer from malloc or calloc (the frames of the service protocol, for instance).
struct FreeDeleter {
  void operator()(void* buffer) const { free(buffer); }
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
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

}  // namespace utils

#endif  // ZOVDX_UTILS_SCOPED_H_
