// Client of the host device-manager service (zomgr): a connected stream socket (handed over
// by the driver, or the service's abstract unix socket), and one framed request or reply at
// a time. Keeps no connection of its own: every call takes the caller's socket. The plain
// functions report failures at error level, the Quiet ones at debug level only.
#ifndef ZOVDX_COMMON_ZOMGR_CLIENT_H_
#define ZOVDX_COMMON_ZOMGR_CLIENT_H_

#include <cstdint>

enum FromType : int16_t {
  FROM_TYPE_UNKNOWN = -1,
  FROM_TYPE_COMPUTE = 0,
  FROM_TYPE_CLI = 1,
  FROM_TYPE_SERVER = 2,
  FROM_TYPE_SMI = 3,
  FROM_TYPE_XFM = 4,
};

enum CommandType : int16_t {
  CTYPE_ERROR_COMMAND = 0,
  CTYPE_INVALID_COMMAND = 1,
  CTYPE_GET_TOPO_INFO = 2,
  CTYPE_SET_ECC_MODE = 4,
  CTYPE_GET_ECC_MODE = 5,
  CTYPE_LOAD_DRIVER = 8,
  CTYPE_UNLOAD_DRIVER = 9,
  CTYPE_SET_AUTO_LOAD_DRIVER = 10,
  CTYPE_GET_AUTO_LOAD_DRIVER = 11,
  CTYPE_SET_DRIVER_PARAMS = 12,
  CTYPE_GET_DRIVER_PARAMS = 13,
  CTYPE_GET_EXCEPTION_INFO = 14,
  CTYPE_CREATE_VGPU = 15,
  CTYPE_DESTROY_VGPU = 16,
  CTYPE_UPDATE_VGPU = 17,
  CTYPE_QUERY_VGPU = 18,
  CTYPE_CREATE_GROUP = 19,
  CTYPE_DESTROY_GROUP = 20,
  CTYPE_UPDATE_GROUP = 21,
  CTYPE_QUERY_GROUP = 22,
  CTYPE_SET_ECC_STATUS = 23,
  CTYPE_GET_ECC_STATUS = 24,
  CTYPE_CHECK_VERSION = 25,
  CTYPE_SET_MAX_PROCESS_COUNT = 26,
  CTYPE_SET_PROCESS_INFO = 27,
  CTYPE_GET_PROCESS_INFO = 28,
  CTYPE_GET_SYSTEM_MODE = 29,
  CTYPE_SET_MEMIO_VOLTAGE = 30,
  CTYPE_GET_MEMIO_VOLTAGE = 31,
  CTYPE_GET_LAST_LOAD_STATUS = 32,
  CTYPE_SET_XFM_LINK_STATUS = 33,
  CTYPE_GET_XFM_LINK_STATUS = 34,
  CTYPE_ADD_STABLE_DRIVER_PARAMS = 35,
  CTYPE_GET_STABLE_DRIVER_PARAMS = 36,
  CTYPE_CLEAR_STABLE_DRIVER_PARAMS = 37,
  CTYPE_GET_KERNEL_STATUS = 38,
  CTYPE_SET_RSMI_INFO = 39,
  CTYPE_GET_RSMI_INFO = 40,
  CTYPE_SET_AUTO_RUN_ZOCKPTD = 41,
  CTYPE_GET_AUTO_RUN_ZOCKPTD = 42,
  CTYPE_RUN_ZOCKPTD = 43,
  CTYPE_STOP_ZOCKPTD = 44,
  CTYPE_SET_EXTEND_BW = 45,
  CTYPE_GET_EXTEND_BW = 46,
};

// The service's status, the first four payload bytes of a CTYPE_ERROR_COMMAND reply.
enum SrvStatus : int32_t {
  SRV_STATUS_SUCCESS = 0,
  SRV_STATUS_TOPO_NOT_INIT = 1,
  SRV_STATUS_LOAD_CFG_ERROR = 2,
  SRV_STATUS_SAVE_CFG_ERROR = 3,
  SRV_STATUS_LOAD_DEV_ERROR = 4,
  SRV_STATUS_LOAD_DRIVER_ERROR = 5,
  SRV_STATUS_UNLOAD_DRIVER_ERROR = 6,
  SRV_STATUS_MALLOC_ERROR = 7,
  SRV_STATUS_NO_DEVICE_FOUND = 8,
  SRV_STATUS_DEVICE_USED = 9,
  SRV_STATUS_DEVICE_INCOMPATIBLE = 10,
  SRV_STATUS_ECC_INCOMPATIBLE = 11,
  SRV_STATUS_ECC_MODE_INVALID = 12,
  SRV_STATUS_ECC_NOT_SUPPORT = 13,
  SRV_STATUS_ECC_GET_ERROR = 14,
  SRV_STATUS_ECC_SET_ERROR = 15,
  SRV_STATUS_CREATE_VGPU_ERROR = 16,
  SRV_STATUS_DESTROY_VGPU_ERROR = 17,
  SRV_STATUS_UPDATE_VGPU_ERROR = 18,
  SRV_STATUS_QUERY_VGPU_ERROR = 19,
  SRV_STATUS_CREATE_GROUP_ERROR = 20,
  SRV_STATUS_DESTROY_GROUP_ERROR = 21,
  SRV_STATUS_UPDATE_GROUP_ERROR = 22,
  SRV_STATUS_QUERY_GROUP_ERROR = 23,
  SRV_STATUS_UNSUPPORT_OPERATION = 24,
  SRV_STATUS_VERSION_MISMATCH = 25,
  SRV_STATUS_NOT_FOUND_PROCESS = 26,
  SRV_STATUS_EXCEED_PROC_LIMIT = 27,
  SRV_STATUS_INVALID_VALUE = 28,
  SRV_STATUS_MEMIOVOL_SET_ERROR = 29,
  SRV_STATUS_MEMIOVOL_GET_ERROR = 30,
  SRV_STATUS_DEVICE_NUM_INVALID = 31,
  SRV_STATUS_LOAD_STATUS_ERROR = 32,
  SRV_STATUS_SAVE_STATUS_ERROR = 33,
  SRV_STATUS_RSMI_INIT_ERROR = 34,
  SRV_STATUS_ZOCKPTD_ERROR = 35,
  SRV_STATUS_VBIOS_INIT_ERROR = 36,
};

constexpr int32_t kCommandMagic = 0x7A6F6D63;  // "cmoz" in memory order

// No reply of the service comes near this size; a header that announces more is refused
// before anything is allocated for it.
constexpr int32_t kMaxReplyPayload = 1 << 20;
// How long the client waits for the service: silence this long (in milliseconds) ends a
// connect, a send or a reply with a failure.
constexpr int kServiceSilenceMs = 3000;

// One frame: a 16-byte header and data_size payload bytes, little-endian, packed.
struct Command {
  int32_t header;
  int32_t from_pid;
  int16_t from_type;  // FromType
  int16_t cmd_type;   // CommandType
  int32_t data_size;
  char cmd_data[];
};
static_assert(sizeof(Command) == 16, "the frame header is 16 bytes on the wire");

// 0 with *socket_fd connected, -1 with *socket_fd -1. With is_driver_exist the driver's
// socket is tried first. is_docker is accepted and not used. Anyone may bind the service's
// abstract name while the service is down: a peer there is accepted only when it runs as root.
int ConnectServer(int* socket_fd, bool is_docker, bool is_driver_exist);
int ConnectServerQuiet(int* socket_fd, bool is_docker, bool is_driver_exist);
int ConnectServerInternal(int* socket_fd, bool print_error, bool is_docker, bool is_driver_exist);

// True when the driver handed over a socket connected to the service.
bool GetSocketByDriver(int* socket_fd);

// Closes *socket_fd unless it is -1, and sets it to -1.
void DisconnectServer(int* socket_fd);

// Sends one request frame of 16 + size bytes. 0 when sent.
int SendCommand(CommandType type, char* data, int size, int socket_fd);
int SendCommandQuiet(CommandType type, char* data, int size, int socket_fd);
int SendCommandInternal(CommandType type, char* data, int size, int socket_fd, bool print_error);

// Receives one reply frame into a calloc'ed buffer that the caller frees. 0 with *cmd set;
// -1 for a broken, foreign, oversized, error or invalid-command reply, or kServiceSilenceMs
// without a byte (nothing to free).
int RecvCommand(Command** cmd, int socket_fd);
int RecvCommandQuiet(Command** cmd, int socket_fd);
int RecvCommandInternal(Command** cmd, int socket_fd, bool print_error);

// Static English text of a service status.
const char* GetZomgrErrorString(SrvStatus type);

#endif  // ZOVDX_COMMON_ZOMGR_CLIENT_H_
