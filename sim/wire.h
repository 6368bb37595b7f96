/*
 * The simulator's private wire between the preload library (standing in for the device
 * node inside every program), the launcher's control client and the driver daemon.
 * Plain C so that the preload library needs nothing but libc.
 *
 * Driver traffic uses SOCK_SEQPACKET on an abstract address that exists only in the
 * sandbox's own network namespace: one message per request and one per reply, so no
 * framing is needed and SCM_RIGHTS can ride on a reply.
 */
#ifndef VDX_SIM_WIRE_H_
#define VDX_SIM_WIRE_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

/* Abstract names (the leading NUL is added by vdxsim_abstract_addr). */
#define VDXSIM_DRIVER_SOCKET "vdx-sim/mkfd"
#define VDXSIM_CONTROL_SOCKET "vdx-sim/ctl"

/* What a message on the driver socket asks for. */
enum vdxsim_msg_kind {
  VDXSIM_MSG_OPEN = 1,   /* a fresh open of the device: the daemon starts a connection */
  VDXSIM_MSG_ATTACH = 2, /* a forked child joins the connection of its inherited descriptor */
  VDXSIM_MSG_IOCTL = 3,
  /* Sent on a fresh socket right after a device descriptor was closed: the daemon takes in
   * every hang-up that has happened so far before it answers, so that close of the last
   * descriptor releases the connection before close returns, as a driver's release does. */
  VDXSIM_MSG_SETTLE = 4,
};

/* The user memory that a request points at could not be read (the caller's bad pointer):
 * the daemon decides whether the command needed it and answers EFAULT if so. */
#define VDXSIM_FLAG_MASK_FAULT 1u
/* The argument record itself could not be read; no record bytes follow. */
#define VDXSIM_FLAG_RECORD_FAULT 2u

struct vdxsim_request {
  uint32_t kind;        /* enum vdxsim_msg_kind */
  uint32_t code;        /* ioctl request code */
  uint64_t conn;        /* connection id for VDXSIM_MSG_ATTACH */
  uint32_t record_size; /* bytes of argument record that follow */
  uint32_t mask_words;  /* 32-bit mask words that follow the record */
  uint32_t flags;
  uint32_t pad;
};

struct vdxsim_reply {
  int32_t error;        /* 0, or the errno the driver reports */
  uint32_t record_size; /* bytes of record that follow (copied back on success) */
  uint64_t conn;        /* the connection id (OPEN and ATTACH) */
  uint32_t mask_words;  /* mask words that follow the record (query results) */
  uint32_t data_size;   /* bytes for the caller's buffer (wave dumps) that follow */
};

/* The largest record an ioctl code can describe, the mask words a request may carry and
 * the most bytes of wave data one reply carries. */
#define VDXSIM_MAX_RECORD 16383u
#define VDXSIM_MAX_MASK_WORDS 32u
#define VDXSIM_MAX_DATA 65536u
#define VDXSIM_MAX_MESSAGE \
  (sizeof(struct vdxsim_reply) + VDXSIM_MAX_RECORD + 4u * VDXSIM_MAX_MASK_WORDS + VDXSIM_MAX_DATA)

static inline socklen_t vdxsim_abstract_addr(struct sockaddr_un* addr, const char* name) {
  size_t len = strlen(name);
  memset(addr, 0, sizeof(*addr));
  addr->sun_family = AF_UNIX;
  memcpy(addr->sun_path + 1, name, len);
  return (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + len);
}

#endif /* VDX_SIM_WIRE_H_ */
