/* A preload library for the write-fault test: it counts the file operations a process makes
 * on the configuration (/etc/vdev...) and the host's shared state (/run/zovdx: the lock, the
 * generation, the record of instances; the lock is opened relative to its directory), and fails
 * the N-th of them with EIO, N taken from ZOVDX_FAIL_FILE_OP. At exit it writes how many it
 * counted to the file named by ZOVDX_FILE_OP_COUNT, so the test knows when N ran past the
 * request. Counted: opens for writing, write, fsync, rename, unlink, mkdir, utime, flock. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

static long g_fail_at = -1;
static long g_count = 0;
static char g_tracked[4096];  /* descriptors opened on a counted path */

static int Counted(const char* path) {
  return path != NULL && (strncmp(path, "/etc/vdev", 9) == 0 ||
                          strncmp(path, "/run/zovdx", 10) == 0 ||
                          strcmp(path, "vdx_virtual.lock") == 0);
}

/* 1 when this operation is the one to fail. */
static int Fail(void) {
  ++g_count;
  if (g_count == g_fail_at) {
    errno = EIO;
    return 1;
  }
  return 0;
}

static int TrackedFd(int fd) { return fd >= 0 && fd < (int)sizeof(g_tracked) && g_tracked[fd]; }

__attribute__((constructor)) static void Start(void) {
  const char* at = getenv("ZOVDX_FAIL_FILE_OP");
  if (at != NULL) g_fail_at = atol(at);
}

__attribute__((destructor)) static void Finish(void) {
  const char* out = getenv("ZOVDX_FILE_OP_COUNT");
  if (out == NULL) return;
  FILE* file = fopen(out, "w");
  if (file == NULL) return;
  fprintf(file, "%ld\n", g_count);
  fclose(file);
}

/* The next definition of a wrapped function (the C library's). */
#define REAL(name)                        \
  static __typeof__(&name) real_##name;   \
  if (!real_##name) real_##name = (__typeof__(&name))dlsym(RTLD_NEXT, #name)

static int OpenCommon(int (*real)(int, const char*, int, ...), int dirfd, const char* path,
                      int flags, mode_t mode) {
  /* Opens for writing count; a read-only open (a file being read, the directory opened to
   * be synced) is only tracked, so that what is done with its descriptor counts. */
  if (Counted(path) && (flags & (O_WRONLY | O_RDWR | O_CREAT)) && Fail()) return -1;
  const int fd = real(dirfd, path, flags, mode);
  if (fd >= 0 && fd < (int)sizeof(g_tracked)) g_tracked[fd] = (char)Counted(path);
  return fd;
}

int openat(int dirfd, const char* path, int flags, ...) {
  REAL(openat);
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? (mode_t)va_arg(args, int) : 0;
  va_end(args);
  return OpenCommon(real_openat, dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
  REAL(openat64);
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? (mode_t)va_arg(args, int) : 0;
  va_end(args);
  return OpenCommon(real_openat64, dirfd, path, flags, mode);
}

int open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? (mode_t)va_arg(args, int) : 0;
  va_end(args);
  return openat(AT_FDCWD, path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? (mode_t)va_arg(args, int) : 0;
  va_end(args);
  return openat64(AT_FDCWD, path, flags, mode);
}

int close(int fd) {
  REAL(close);
  if (fd >= 0 && fd < (int)sizeof(g_tracked)) g_tracked[fd] = 0;
  return real_close(fd);
}

ssize_t write(int fd, const void* data, size_t size) {
  REAL(write);
  if (TrackedFd(fd) && Fail()) return -1;
  return real_write(fd, data, size);
}

int fsync(int fd) {
  REAL(fsync);
  if (TrackedFd(fd) && Fail()) return -1;
  return real_fsync(fd);
}

int flock(int fd, int operation) {
  REAL(flock);
  if (TrackedFd(fd) && !(operation & LOCK_UN) && Fail()) return -1;
  return real_flock(fd, operation);
}

int rename(const char* from, const char* to) {
  REAL(rename);
  if (Counted(to) && Fail()) return -1;
  return real_rename(from, to);
}

int unlink(const char* path) {
  REAL(unlink);
  if (Counted(path) && Fail()) return -1;
  return real_unlink(path);
}

int mkdir(const char* path, mode_t mode) {
  REAL(mkdir);
  if (Counted(path) && Fail()) return -1;
  return real_mkdir(path, mode);
}

int utime(const char* path, const struct utimbuf* times) {
  REAL(utime);
  if (Counted(path) && Fail()) return -1;
  return real_utime(path, times);
}
