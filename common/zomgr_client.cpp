// The framed protocol client of the host device-manager service.
#include "common/zomgr_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "mkfd/include/dmkfd.h"
#include "utils/logger.h"
#include "utils/scoped.h"
#include "utils/utils.h"

// A failure goes to the error level when the caller wants it seen, else to debug level
// behind a "DEBUG: " fragment.
#define ZOMGR_REPORT(print_error, format, ...) \
  do {                                         \
    if (print_error) {                         \
      LOG_ERROR(format, ##__VA_ARGS__);        \
    } else {                                   \
      LOG_DEBUG("DEBUG: ");                    \
      LOG_DEBUG(format, ##__VA_ARGS__);        \
    }                                          \
  } while (0)

namespace {

constexpr const char kServiceName[] = "xcu_uds_abstract_socket";
constexpr size_t kHeaderSize = sizeof(Command);
constexpr size_t kStagingSize = 1024;

}  // namespace

int ConnectServer(int* socket_fd, bool is_docker, bool is_driver_exist) {
  return ConnectServerInternal(socket_fd, true, is_docker, is_driver_exist);
}

int ConnectServerQuiet(int* socket_fd, bool is_docker, bool is_driver_exist) {
  return ConnectServerInternal(socket_fd, false, is_docker, is_driver_exist);
}

int ConnectServerInternal(int* socket_fd, bool print_error, bool /*is_docker*/,
                          bool is_driver_exist) {
  LOG_DEBUG("DEBUG: Connect service\n");
  if (is_driver_exist) {
    if (GetSocketByDriver(socket_fd)) return 0;
    LOG_DEBUG("DEBUG: Failed to get socket by driver\n");
  }

  *socket_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (*socket_fd < 0) {
    const int err = errno;
    *socket_fd = -1;
    ZOMGR_REPORT(print_error, "Create socket failed: %s\n", ErrnoMessage(err).c_str());
    return -1;
  }

  // A service that accepts nothing (a full backlog) must not hold the caller forever: connect
  // and send wait at most this long.
  const struct timeval silence = {kServiceSilenceMs / 1000, (kServiceSilenceMs % 1000) * 1000};
  setsockopt(*socket_fd, SOL_SOCKET, SO_SNDTIMEO, &silence, sizeof(silence));

  // An abstract address: a leading zero byte, then the name without a terminating zero.
  struct sockaddr_un address;
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path + 1, kServiceName, sizeof(kServiceName) - 1);
  const socklen_t length =
      static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + sizeof(kServiceName) - 1);
  int rc;
  do {
    rc = connect(*socket_fd, reinterpret_cast<struct sockaddr*>(&address), length);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    const int err = errno;
    ZOMGR_REPORT(print_error, "Connect service failed: %s\n", ErrnoMessage(err).c_str());
    close(*socket_fd);
    *socket_fd = -1;
    return -1;
  }
  // The name is free for anyone to bind while the service is down: only a listener that
  // runs as root is the service.
  struct ucred peer;
  socklen_t peer_length = sizeof(peer);
  if (getsockopt(*socket_fd, SOL_SOCKET, SO_PEERCRED, &peer, &peer_length) != 0 ||
      peer.uid != 0) {
    ZOMGR_REPORT(print_error, "Connect service failed: %s\n", ErrnoMessage(EPERM).c_str());
    close(*socket_fd);
    *socket_fd = -1;
    return -1;
  }
  return 0;
}

bool GetSocketByDriver(int* socket_fd) {
  LOG_DEBUG("DEBUG: Get socket by driver\n");
  if (dmkfdInit() != VDX_STATUS_SUCCESS) return false;
  const vdxStatus opened = dmkfdOpenMkfd();
  if (opened != VDX_STATUS_SUCCESS && opened != VDX_STATUS_MKFD_ALREADY_OPENED) {
    LOG_DEBUG("Open mkfd failed\n");
    // Only a failed open leaves nothing open: after a failed topology scan (no nodes, no
    // memory) the device is open all the same and must be closed, or it leaks.
    if (opened != VDX_STATUS_OPEN_MKFD_FAILED) dmkfdCloseMkfd();
    dmkfdShutDown();
    return false;
  }
  const vdxStatus connected = dmkfdConnectZouds(socket_fd);
  const int err = errno;
  // The socket stays valid after the driver is closed.
  dmkfdCloseMkfd();
  dmkfdShutDown();
  if (connected != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("Connect service failed: %s\n", ErrnoMessage(err).c_str());
    return false;
  }
  return true;
}

void DisconnectServer(int* socket_fd) {
  LOG_DEBUG("DEBUG: Disconnect service\n");
  if (*socket_fd != -1) {
    close(*socket_fd);
    *socket_fd = -1;
  }
}

int SendCommand(CommandType type, char* data, int size, int socket_fd) {
  return SendCommandInternal(type, data, size, socket_fd, true);
}

int SendCommandQuiet(CommandType type, char* data, int size, int socket_fd) {
  return SendCommandInternal(type, data, size, socket_fd, false);
}

int SendCommandInternal(CommandType type, char* data, int size, int socket_fd,
                        bool print_error) {
  LOG_DEBUG("DEBUG: Send Command\n");
  if (socket_fd == -1) {
    ZOMGR_REPORT(print_error, "Please connect to the server first\n");
    return -1;
  }
  // A negative size carries no payload; it must never shrink the frame below its header.
  const size_t payload = size > 0 ? static_cast<size_t>(size) : 0;
  const size_t frame_size = kHeaderSize + payload;
  utils::MallocHandle<Command> holder(static_cast<Command*>(calloc(1, frame_size)));
  Command* frame = holder.get();
  if (frame == nullptr) {
    ZOMGR_REPORT(print_error, "Malloc command failed, size: %d\n", static_cast<int>(frame_size));
    return -1;
  }
  frame->header = kCommandMagic;
  frame->from_pid = getpid();
  frame->from_type = FROM_TYPE_SMI;
  frame->cmd_type = type;
  if (size > 0 && data != nullptr) {
    frame->data_size = size;
    memcpy(frame->cmd_data, data, payload);
  } else {
    frame->data_size = 0;
  }
  // MSG_NOSIGNAL: a service that went away must give an error, not kill the caller with
  // SIGPIPE. A short send is not retried.
  ssize_t sent;
  do {
    sent = send(socket_fd, frame, frame_size, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) {
    const int err = errno;
    ZOMGR_REPORT(print_error, "Send command failed: %s\n", ErrnoMessage(err).c_str());
    return -1;
  }
  return 0;
}

int RecvCommand(Command** cmd, int socket_fd) { return RecvCommandInternal(cmd, socket_fd, true); }

int RecvCommandQuiet(Command** cmd, int socket_fd) {
  return RecvCommandInternal(cmd, socket_fd, false);
}

int RecvCommandInternal(Command** cmd, int socket_fd, bool print_error) {
  LOG_DEBUG("DEBUG: Recv Command\n");
  if (socket_fd == -1) {
    ZOMGR_REPORT(print_error, "Please connect to the server first\n");
    return -1;
  }

  // The header arrives into a fixed staging buffer; once it is there the frame's own buffer
  // is allocated and reading goes on into it, never past its end.
  char staging[kStagingSize];
  memset(staging, 0, sizeof(staging));
  char* buffer = staging;
  size_t limit = sizeof(staging);
  size_t fill = 0;
  size_t frame_size = 0;
  utils::MallocHandle<Command> frame;  // once the header has told its size
  for (;;) {
    // A service that falls silent ends the wait, not the caller.
    struct pollfd ready = {socket_fd, POLLIN, 0};
    const int polled = poll(&ready, 1, kServiceSilenceMs);
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) {
      const int err = polled == 0 ? ETIMEDOUT : errno;
      ZOMGR_REPORT(print_error, "Revice command failed: %s\n", ErrnoMessage(err).c_str());
      return -1;
    }
    const ssize_t n = recv(socket_fd, buffer + fill, limit - fill, MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      const int err = errno;
      ZOMGR_REPORT(print_error, "Revice command failed: %s\n", ErrnoMessage(err).c_str());
      return -1;
    }
    if (n == 0) {
      ZOMGR_REPORT(print_error, "Server is disconnect, please check server\n");
      return -1;
    }
    fill += static_cast<size_t>(n);
    if (fill < kHeaderSize) continue;
    if (frame == nullptr) {
      Command header;
      memcpy(&header, staging, kHeaderSize);
      if (header.header != kCommandMagic || header.from_type != FROM_TYPE_SERVER ||
          header.data_size < 0 || header.data_size > kMaxReplyPayload) {
        ZOMGR_REPORT(print_error, "The received command is illegal\n");
        return -1;
      }
      frame_size = kHeaderSize + static_cast<size_t>(header.data_size);
      if (fill > frame_size) {
        ZOMGR_REPORT(print_error, "The command did not read complete\n");
        return -1;
      }
      frame.reset(static_cast<Command*>(calloc(1, frame_size)));
      if (frame == nullptr) {
        ZOMGR_REPORT(print_error, "Malloc buffer failed, size: %d\n", static_cast<int>(frame_size));
        return -1;
      }
      memcpy(frame.get(), staging, fill);
      buffer = reinterpret_cast<char*>(frame.get());
      limit = frame_size;
    }
    if (fill >= frame_size) break;
  }

  if (frame->cmd_type == CTYPE_INVALID_COMMAND) {
    ZOMGR_REPORT(print_error, "Revice a invalid command\n");
    return -1;
  }
  if (frame->cmd_type == CTYPE_ERROR_COMMAND) {
    // A short error payload reads as zeros rather than past the frame.
    int32_t raw = 0;
    memcpy(&raw, frame->cmd_data, frame->data_size < 4 ? static_cast<size_t>(frame->data_size) : 4);
    const SrvStatus status = static_cast<SrvStatus>(raw);
    ZOMGR_REPORT(print_error, "%s\n", GetZomgrErrorString(status));
    // A failed VBIOS start needs the user's attention whatever the caller asked for.
    if (status == SRV_STATUS_VBIOS_INIT_ERROR) LOG_ERROR("%s\n", "VBIOS init failed");
    return -1;
  }
  *cmd = frame.release();  // the caller frees it
  return 0;
}

const char* GetZomgrErrorString(SrvStatus type) {
  switch (type) {
    case SRV_STATUS_SUCCESS: return "Success";
    case SRV_STATUS_TOPO_NOT_INIT: return "Topology is not initialized";
    case SRV_STATUS_LOAD_CFG_ERROR: return "Load config failed";
    case SRV_STATUS_SAVE_CFG_ERROR: return "Save config failed";
    case SRV_STATUS_LOAD_DEV_ERROR: return "Load devices failed";
    case SRV_STATUS_LOAD_DRIVER_ERROR: return "Load driver failed";
    case SRV_STATUS_UNLOAD_DRIVER_ERROR: return "Unload driver failed";
    case SRV_STATUS_MALLOC_ERROR: return "Malloc failed";
    case SRV_STATUS_NO_DEVICE_FOUND: return "No device is found";
    case SRV_STATUS_DEVICE_USED: return "Devices is used";
    case SRV_STATUS_DEVICE_INCOMPATIBLE: return "Devices incompatible";
    case SRV_STATUS_ECC_INCOMPATIBLE: return "Ecc mode incompatible";
    case SRV_STATUS_ECC_MODE_INVALID: return "Ecc mode is invalid";
    case SRV_STATUS_ECC_NOT_SUPPORT: return "Device is not support ecc set";
    case SRV_STATUS_ECC_GET_ERROR: return "Get ecc failed";
    case SRV_STATUS_ECC_SET_ERROR: return "Set ecc failed";
    case SRV_STATUS_CREATE_VGPU_ERROR: return "Create vgpu failed";
    case SRV_STATUS_DESTROY_VGPU_ERROR: return "Destroy vgpu failed";
    case SRV_STATUS_UPDATE_VGPU_ERROR: return "Update vgpu failed";
    case SRV_STATUS_QUERY_VGPU_ERROR: return "Query vgpu failed";
    case SRV_STATUS_CREATE_GROUP_ERROR: return "Create process group failed";
    case SRV_STATUS_DESTROY_GROUP_ERROR: return "Destroy process group failed";
    case SRV_STATUS_UPDATE_GROUP_ERROR: return "Update process group failed";
    case SRV_STATUS_QUERY_GROUP_ERROR: return "Query process group failed";
    case SRV_STATUS_UNSUPPORT_OPERATION: return "Unsupported operation";
    case SRV_STATUS_VERSION_MISMATCH: return "Version mismatch";
    case SRV_STATUS_NOT_FOUND_PROCESS: return "Not found process";
    case SRV_STATUS_EXCEED_PROC_LIMIT: return "Exceed maximum porcess limit";
    case SRV_STATUS_INVALID_VALUE: return "Invalid value";
    case SRV_STATUS_MEMIOVOL_SET_ERROR: return "Set memio voltage failed";
    case SRV_STATUS_MEMIOVOL_GET_ERROR: return "Get memio voltage failed";
    case SRV_STATUS_DEVICE_NUM_INVALID: return "Device number is invalid";
    case SRV_STATUS_LOAD_STATUS_ERROR: return "Load latest driver status failed";
    case SRV_STATUS_SAVE_STATUS_ERROR: return "Save latest driver status failed";
    case SRV_STATUS_RSMI_INIT_ERROR: return "Rsmi init failed";
    case SRV_STATUS_ZOCKPTD_ERROR: return "Run zockptd failed";
    case SRV_STATUS_VBIOS_INIT_ERROR: return "VBIOS init failed";
  }
  return "A generic error has occurred";
}
