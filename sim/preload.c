/*
 * libvdxsim_preload.so: stands in for the device node "/dev/mkfd" inside every program
 * of a sandbox. An open of the device returns a socket connected to the driver daemon;
 * an ioctl on it sends the request code, the argument record and the memory the record
 * points at, and copies the driver's answer back; close ends the driver connection.
 * Every other descriptor and call goes to the C library untouched.
 *
 * Preloaded into arbitrary programs (shells, cat, sanitized test binaries), so it is
 * plain C, needs nothing beyond libc and is never built with sanitizers.
 */
#define _GNU_SOURCE
#undef _FORTIFY_SOURCE

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "mkfd/include/mkfd_ioctl.h"
#include "sim/wire.h"

#define EXPORT __attribute__((visibility("default")))
#define DEVICE_PATH "/dev/mkfd"
#define MAX_DEVICES 64

struct device {
  int fd;
  uint64_t conn; /* driver connection id */
  pid_t pid;     /* process that last used the socket: a different one is a forked child */
  dev_t dev;     /* identity of the socket, to notice a descriptor closed behind our back */
  ino_t ino;
};

static struct device devices[MAX_DEVICES];
static int device_count;
/* One request in flight per process: the daemon serves one at a time anyway. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static unsigned char message[VDXSIM_MAX_MESSAGE];

typedef int (*open_fn)(const char*, int, ...);
typedef int (*openat_fn)(int, const char*, int, ...);
typedef int (*open2_fn)(const char*, int);
typedef int (*openat2_fn)(int, const char*, int);
typedef int (*ioctl_fn)(int, unsigned long, ...);
typedef int (*close_fn)(int);

#define REAL(name, type) \
  static type real_##name; \
  if (real_##name == NULL) real_##name = (type)dlsym(RTLD_NEXT, #name)

static int sys_close(int fd) { return (int)syscall(SYS_close, fd); }

static int is_device(const char* path) { return path != NULL && strcmp(path, DEVICE_PATH) == 0; }

static int needs_mode(int flags) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

/* Copies between the caller's memory and ours without trusting the caller's pointer:
 * a bad address gives EFAULT, as the kernel's copy would, instead of a crash here. */
static int copy_from_user(void* dst, uint64_t src, size_t len) {
  if (len == 0) return 0;
  if (src == 0) return -1;
  struct iovec local = {dst, len};
  struct iovec remote = {(void*)(uintptr_t)src, len};
  ssize_t n = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
  if (n < 0 && (errno == ENOSYS || errno == EPERM)) {
    memcpy(dst, (const void*)(uintptr_t)src, len);
    return 0;
  }
  return n == (ssize_t)len ? 0 : -1;
}

static int copy_to_user(uint64_t dst, const void* src, size_t len) {
  if (len == 0) return 0;
  if (dst == 0) return -1;
  struct iovec local = {(void*)src, len};
  struct iovec remote = {(void*)(uintptr_t)dst, len};
  ssize_t n = process_vm_writev(getpid(), &local, 1, &remote, 1, 0);
  if (n < 0 && (errno == ENOSYS || errno == EPERM)) {
    memcpy((void*)(uintptr_t)dst, src, len);
    return 0;
  }
  return n == (ssize_t)len ? 0 : -1;
}

static int connect_driver(int cloexec) {
  int s = socket(AF_UNIX, SOCK_SEQPACKET | (cloexec ? SOCK_CLOEXEC : 0), 0);
  if (s < 0) return -1;
  struct sockaddr_un addr;
  socklen_t len = vdxsim_abstract_addr(&addr, VDXSIM_DRIVER_SOCKET);
  if (connect(s, (struct sockaddr*)&addr, len) != 0) {
    sys_close(s);
    return -1;
  }
  return s;
}

/* Sends message[0..len) and receives the reply into message. Returns the reply's size,
 * or -1; *passed receives a descriptor that came with the reply, or -1. */
static ssize_t round_trip(int s, size_t len, int* passed) {
  ssize_t n;
  do {
    n = send(s, message, len, MSG_NOSIGNAL);
  } while (n < 0 && errno == EINTR);
  if (n != (ssize_t)len) return -1;
  union {
    struct cmsghdr align;
    char buf[CMSG_SPACE(sizeof(int))];
  } control;
  struct iovec iov = {message, sizeof message};
  struct msghdr msg;
  memset(&msg, 0, sizeof msg);
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control.buf;
  msg.msg_controllen = sizeof control.buf;
  do {
    n = recvmsg(s, &msg, MSG_CMSG_CLOEXEC);
  } while (n < 0 && errno == EINTR);
  *passed = -1;
  struct cmsghdr* cm = n > 0 ? CMSG_FIRSTHDR(&msg) : NULL;
  if (cm != NULL && cm->cmsg_level == SOL_SOCKET && cm->cmsg_type == SCM_RIGHTS) {
    memcpy(passed, CMSG_DATA(cm), sizeof(int));
  }
  if (n < (ssize_t)sizeof(struct vdxsim_reply)) {
    if (*passed >= 0) sys_close(*passed);
    *passed = -1;
    return -1;
  }
  return n;
}

/* OPEN or ATTACH on socket s; returns 0 with the connection id, or an errno. */
static int hello(int s, uint32_t kind, uint64_t* conn) {
  struct vdxsim_request req;
  memset(&req, 0, sizeof req);
  req.kind = kind;
  req.conn = *conn;
  memcpy(message, &req, sizeof req);
  int passed;
  if (round_trip(s, sizeof req, &passed) < 0) return EIO;
  struct vdxsim_reply rep;
  memcpy(&rep, message, sizeof rep);
  if (rep.error != 0) return rep.error;
  *conn = rep.conn;
  return 0;
}

static void remember(int fd, uint64_t conn) {
  struct stat st;
  if (fstat(fd, &st) != 0 || device_count == MAX_DEVICES) return;
  struct device* d = &devices[device_count++];
  d->fd = fd;
  d->conn = conn;
  d->pid = getpid();
  d->dev = st.st_dev;
  d->ino = st.st_ino;
}

static void forget(struct device* d) { *d = devices[--device_count]; }

static struct device* find(int fd) {
  struct stat st;
  int have_st = 0;
  for (int i = 0; i < device_count; ++i) {
    if (devices[i].fd != fd) continue;
    have_st = fstat(fd, &st) == 0;
    if (have_st && st.st_dev == devices[i].dev && st.st_ino == devices[i].ino) return &devices[i];
    forget(&devices[i]); /* closed some other way, and the number reused */
    break;
  }
  /* A duplicate (dup, dup2, a shell redirection) of a device descriptor is the device too. */
  if (!have_st && fstat(fd, &st) != 0) return NULL;
  if (!S_ISSOCK(st.st_mode)) return NULL;
  for (int i = 0; i < device_count; ++i) {
    if (st.st_dev == devices[i].dev && st.st_ino == devices[i].ino) return &devices[i];
  }
  return NULL;
}

/* Another descriptor of this process on the same socket as d, or -1. */
static int other_descriptor(const struct device* d) {
  char want[64], link[64], path[64];
  snprintf(want, sizeof want, "socket:[%lu]", (unsigned long)d->ino);
  DIR* dir = opendir("/proc/self/fd");
  if (dir == NULL) return -1;
  int found = -1;
  struct dirent* e;
  while (found < 0 && (e = readdir(dir)) != NULL) {
    int fd = atoi(e->d_name);
    if (e->d_name[0] == '.' || fd == d->fd || fd == dirfd(dir)) continue;
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(path, link, sizeof link - 1);
    if (n > 0) {
      link[n] = 0;
      if (strcmp(link, want) == 0) found = fd;
    }
  }
  closedir(dir);
  return found;
}

static int device_open(int flags) {
  int s = connect_driver((flags & O_CLOEXEC) != 0);
  if (s < 0) {
    errno = ENOENT; /* no driver: as if the device node did not exist */
    return -1;
  }
  uint64_t conn = 0;
  pthread_mutex_lock(&lock);
  int err = hello(s, VDXSIM_MSG_OPEN, &conn);
  if (err == 0) remember(s, conn);
  pthread_mutex_unlock(&lock);
  if (err != 0) {
    sys_close(s);
    errno = err;
    return -1;
  }
  return s;
}

/* A forked child shares the parent's socket, and with it the parent's replies. On its
 * first request it takes a socket of its own, joined to the same driver connection,
 * under the same descriptor number. */
static int reattach(struct device* d) {
  int fdflags = fcntl(d->fd, F_GETFD);
  int s = connect_driver(1);
  if (fdflags < 0 || s < 0) {
    if (s >= 0) sys_close(s);
    return -1;
  }
  uint64_t conn = d->conn;
  int err = hello(s, VDXSIM_MSG_ATTACH, &conn);
  if (err != 0 || dup3(s, d->fd, (fdflags & FD_CLOEXEC) ? O_CLOEXEC : 0) < 0) {
    sys_close(s);
    return -1;
  }
  sys_close(s);
  struct stat st;
  if (fstat(d->fd, &st) != 0) return -1;
  d->pid = getpid();
  d->dev = st.st_dev;
  d->ino = st.st_ino;
  return 0;
}

/* Where the records that point at caller memory keep the pointer and its length. */
struct pointer_field {
  uint32_t code;
  size_t count_at; /* mask bits (32-bit) */
  size_t ptr_at;
};

static const struct pointer_field mask_in[] = {
    {MKFD_IOC_CREATE_VGPU, offsetof(struct mkfd_ioctl_create_vgpu_args, num_cu_mask),
     offsetof(struct mkfd_ioctl_create_vgpu_args, cu_mask_ptr)},
    {MKFD_IOC_UPDATE_VGPU, offsetof(struct mkfd_ioctl_update_vgpu_args, num_cu_mask),
     offsetof(struct mkfd_ioctl_update_vgpu_args, cu_mask_ptr)},
    {MKFD_IOC_QUERY_VGPU_SE_INFO, offsetof(struct mkfd_ioctl_query_vgpu_se_info_args, num_cu_mask),
     offsetof(struct mkfd_ioctl_query_vgpu_se_info_args, cu_mask_ptr)},
};

static uint64_t field(const unsigned char* rec, size_t at, size_t width) {
  uint64_t v = 0;
  memcpy(&v, rec + at, width);
  return v;
}

static int device_ioctl(struct device* d, uint32_t code, void* arg) {
  if (d->pid != getpid() && reattach(d) != 0) {
    errno = EBADF;
    return -1;
  }
  struct vdxsim_request req;
  memset(&req, 0, sizeof req);
  req.kind = VDXSIM_MSG_IOCTL;
  req.code = code;
  req.record_size = _IOC_SIZE(code);
  unsigned char* rec = message + sizeof req;
  if (copy_from_user(rec, (uint64_t)(uintptr_t)arg, req.record_size) != 0) {
    /* The driver decides: an unknown request is EINVAL before any copy, a known one EFAULT. */
    req.flags |= VDXSIM_FLAG_RECORD_FAULT;
    req.record_size = 0;
  }
  for (size_t i = 0; req.record_size != 0 && i < sizeof mask_in / sizeof mask_in[0]; ++i) {
    if (mask_in[i].code != code) continue;
    uint64_t bits = field(rec, mask_in[i].count_at, 4);
    uint64_t words = (bits + 31) / 32;
    if (words > VDXSIM_MAX_MASK_WORDS) break; /* the driver refuses such a mask by its size */
    if (copy_from_user(rec + req.record_size, field(rec, mask_in[i].ptr_at, 8), words * 4) != 0) {
      req.flags |= VDXSIM_FLAG_MASK_FAULT;
    } else {
      req.mask_words = (uint32_t)words;
    }
  }
  memcpy(message, &req, sizeof req);
  int passed = -1;
  ssize_t n = round_trip(d->fd, sizeof req + req.record_size + 4u * req.mask_words, &passed);
  if (n < 0) {
    errno = EIO;
    return -1;
  }
  struct vdxsim_reply rep;
  memcpy(&rep, message, sizeof rep);
  size_t want = sizeof rep + rep.record_size + 4u * rep.mask_words + rep.data_size;
  if (rep.error != 0 || (size_t)n != want || rep.record_size != _IOC_SIZE(code)) {
    if (passed >= 0) sys_close(passed);
    errno = rep.error != 0 ? rep.error : EIO;
    return -1;
  }
  unsigned char* out = message + sizeof rep;
  unsigned char* extra = out + rep.record_size;
  int fault = 0;
  if (code == MKFD_IOC_CREATE_ZOUDS_CONN) {
    if (passed < 0) {
      errno = EIO;
      return -1;
    }
    int32_t fd = passed;
    memcpy(out + offsetof(struct mkfd_ioctl_create_zouds_conn_args, fd), &fd, sizeof fd);
  } else if (code == MKFD_IOC_QUERY_VGPU_INFO) {
    fault = copy_to_user(field(out, offsetof(struct mkfd_ioctl_query_vgpu_info_args, cu_mask_ptr), 8),
                         extra, 4u * rep.mask_words);
  } else if (code == MKFD_IOC_GET_WAVE_INFO) {
    fault = copy_to_user(field(out, offsetof(struct mkfd_ioctl_get_wave_info_args, buffer), 8),
                         extra + 4u * rep.mask_words, rep.data_size);
  }
  if (fault == 0) fault = copy_to_user((uint64_t)(uintptr_t)arg, out, rep.record_size);
  if (fault != 0) {
    if (passed >= 0) sys_close(passed);
    errno = EFAULT;
    return -1;
  }
  return 0;
}

EXPORT int ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  if (__atomic_load_n(&device_count, __ATOMIC_RELAXED) != 0) {
    pthread_mutex_lock(&lock);
    struct device* d = find(fd);
    if (d != NULL) {
      int result = device_ioctl(d, (uint32_t)request, arg);
      int err = errno;
      pthread_mutex_unlock(&lock);
      errno = err;
      return result;
    }
    pthread_mutex_unlock(&lock);
  }
  REAL(ioctl, ioctl_fn);
  return real_ioctl(fd, request, arg);
}

/* After the last descriptor of a connection is closed, the daemon is told to take the
 * hang-up in before close returns (see VDXSIM_MSG_SETTLE). */
static void settle(void) {
  int s = connect_driver(1);
  if (s < 0) return;
  struct vdxsim_request req;
  memset(&req, 0, sizeof req);
  req.kind = VDXSIM_MSG_SETTLE;
  pthread_mutex_lock(&lock);
  memcpy(message, &req, sizeof req);
  int passed;
  round_trip(s, sizeof req, &passed);
  pthread_mutex_unlock(&lock);
  sys_close(s);
}

EXPORT int close(int fd) {
  int was_device = 0;
  if (__atomic_load_n(&device_count, __ATOMIC_RELAXED) != 0) {
    pthread_mutex_lock(&lock);
    for (int i = 0; i < device_count; ++i) {
      if (devices[i].fd != fd) continue;
      int other = other_descriptor(&devices[i]);
      if (other >= 0) {
        devices[i].fd = other; /* a duplicate lives on: the device stays open under its number */
      } else {
        forget(&devices[i]);
        was_device = 1;
      }
      break;
    }
    pthread_mutex_unlock(&lock);
  }
  REAL(close, close_fn);
  int result = real_close(fd);
  int err = errno;
  if (was_device) settle();
  errno = err;
  return result;
}

#define MODE_ARG(flags)                 \
  mode_t mode = 0;                      \
  if (needs_mode(flags)) {              \
    va_list ap;                         \
    va_start(ap, flags);                \
    mode = (mode_t)va_arg(ap, unsigned); \
    va_end(ap);                         \
  }

EXPORT int open(const char* path, int flags, ...) {
  MODE_ARG(flags);
  if (is_device(path)) return device_open(flags);
  REAL(open, open_fn);
  return real_open(path, flags, mode);
}

EXPORT int open64(const char* path, int flags, ...) {
  MODE_ARG(flags);
  if (is_device(path)) return device_open(flags);
  REAL(open64, open_fn);
  return real_open64(path, flags, mode);
}

EXPORT int openat(int dirfd, const char* path, int flags, ...) {
  MODE_ARG(flags);
  if (is_device(path)) return device_open(flags);
  REAL(openat, openat_fn);
  return real_openat(dirfd, path, flags, mode);
}

EXPORT int openat64(int dirfd, const char* path, int flags, ...) {
  MODE_ARG(flags);
  if (is_device(path)) return device_open(flags);
  REAL(openat64, openat_fn);
  return real_openat64(dirfd, path, flags, mode);
}

/* The fortified entry points that _FORTIFY_SOURCE builds call instead of open. */
EXPORT int __open_2(const char* path, int flags) {
  if (is_device(path)) return device_open(flags);
  REAL(__open_2, open2_fn);
  return real___open_2(path, flags);
}

EXPORT int __open64_2(const char* path, int flags) {
  if (is_device(path)) return device_open(flags);
  REAL(__open64_2, open2_fn);
  return real___open64_2(path, flags);
}

EXPORT int __openat_2(int dirfd, const char* path, int flags) {
  if (is_device(path)) return device_open(flags);
  REAL(__openat_2, openat2_fn);
  return real___openat_2(dirfd, path, flags);
}

EXPORT int __openat64_2(int dirfd, const char* path, int flags) {
  if (is_device(path)) return device_open(flags);
  REAL(__openat64_2, openat2_fn);
  return real___openat64_2(dirfd, path, flags);
}

static void before_fork(void) { pthread_mutex_lock(&lock); }
static void after_fork(void) { pthread_mutex_unlock(&lock); }

__attribute__((constructor)) static void init(void) {
  pthread_atfork(before_fork, after_fork, after_fork);
}
