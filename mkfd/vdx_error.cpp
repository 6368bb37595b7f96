// The fixed English sentence of every status code.
#include <cstring>

#include "zovdx/vdx.h"

namespace {

struct StatusText {
  unsigned int code;
  const char* text;
};

// The texts are part of what callers show their users: keep them word for word.
constexpr StatusText kStatusTexts[] = {
    {VDX_STATUS_SUCCESS, "The function has been executed successfully."},
    {VDX_STATUS_ERROR, "A generic error has occurred."},
    {VDX_STATUS_NO_MEMORY, "No memory available (when allocating memory)."},
    {VDX_STATUS_OPEN_MKFD_FAILED, "Open /dev/mkfd failed."},
    {VDX_STATUS_MKFD_ALREADY_OPENED, "The /dev/mkfd has been already opened."},
    {VDX_STATUS_SYS_NODE_NOT_EXIST, "Node does not exist."},
    {VDX_STATUS_NOT_SUPPORTED, "VDX function is not supported on this node."},
    {VDX_STATUS_MKFD_NOT_OPENED, "Before operating kfd, kfd is not opened."},
    {VDX_STATUS_CREATE_VDEV_FAILED, "Failed to create virtual device."},
    {VDX_STATUS_DESTROY_VDEV_FAILED, "Failed to destroy virtual device."},
    {VDX_STATUS_INVALID_ARGUMENTS, "Invalid arguments."},
    {VDX_STATUS_OUT_OF_RESOURCES,
     "Failed to allocate the necessary resources. The required resources exceed the upper "
     "limit of physical devices."},
    {VDX_STATUS_QUERY_VDEV_INFO_FAILED, "Failed to query virtual device information."},
    {VDX_STATUS_ERROR_NOT_INITIALIZED, "The device management runtime does not initialize."},
    {VDX_STATUS_DEVICE_NOT_SUPPORT,
     "The current device does not support. There may be more than 64 CUs, or in a multi device "
     "environment, each device needs to be the same CU and mem size."},
    {VDX_STATUS_VDEV_NOT_EXIST, "The virtual device is not exist."},
    {VDX_STATUS_INIT_DEVICE_FAILED, "Init device failed, may be set process run mode failed."},
    {VDX_STATUS_DEVICE_BUSY, "The device is exist and may be in use."},
    {VDX_STATUS_FILE_ERROR, "File read or write error."},
    {VDX_STATUS_PERMISSION, "Permission denied."},
    {VDX_STATUS_INTERNAL_EXCEPTION, "An internal exception was caught."},
    {VDX_STATUS_INPUT_OUT_OF_BOUNDS, "The provided input is out of allowable or safe range."},
    {VDX_STATUS_SMI_INIT_ERROR,
     "An error occurred when smi initializing internal data structures."},
    {VDX_STATUS_NOT_FOUND, "An item was searched for but not found."},
    {VDX_STATUS_INSUFFICIENT_SIZE, "Not enough resources were available for the operation."},
    {VDX_STATUS_INTERRUPT, "An interrupt occurred during execution of function."},
    {VDX_STATUS_UNEXPECTED_SIZE, "An unexpected amount of data was read."},
    {VDX_STATUS_NO_DATA, "No data was found for a given input."},
    {VDX_STATUS_UNEXPECTED_DATA, "The data read or provided to function is not what was expected."},
    {VDX_STATUS_SMI_BUSY,
     "A resource or mutex could not be acquired because it is already being used."},
    {VDX_STATUS_REFCOUNT_OVERFLOW, "An internal reference counter exceeded INT32_MAX."},
    {VDX_STATUS_NOT_YET_IMPLEMENTED,
     "The requested function has not yet been implemented in the current system for the "
     "current devices."},
    {VDX_STATUS_ZOMGR_CONNECT_FAILED, "An error occurred when connecting to zomgr."},
    {VDX_STATUS_ZOMGR_SEND_ERROR, "An error occurred when sending command to zomgr."},
    {VDX_STATUS_ZOMGR_RECV_ERROR, "An error occurred when receiving data from zomgr."},
    {VDX_STATUS_RESET_REQUIRED, "The device need to reset."},
    {VDX_STATUS_UNKNOWN_ERROR, "An unknown error occurred."},
};

}  // namespace

extern "C" vdxStatus vdxGetStatusString(vdxStatus status, const char** status_string) {
  // C callers may pass any int. Take the bits as they came, without loading them as an
  // enumeration value (which C++ would not allow outside its range), and compare unsigned.
  unsigned int code;
  static_assert(sizeof(code) == sizeof(status), "vdxStatus travels as a 32-bit int");
  std::memcpy(&code, &status, sizeof(code));
  for (const StatusText& entry : kStatusTexts) {
    if (entry.code == code) {
      *status_string = entry.text;
      return VDX_STATUS_SUCCESS;
    }
  }
  return VDX_STATUS_ERROR;
}
