/*
 * libzovdx: split compute accelerators into virtual devices and bind processes to them.
 *
 * Every function returns a vdxStatus. Any thread may call any function; the calls that
 * reach the device manager are serialised inside the library. Memory amounts passed in
 * are MiB; memory amounts in vdxDeviceInfo are bytes. Changes need effective uid 0 and
 * are refused inside a container; queries work everywhere.
 */
#ifndef ZOVDX_VDX_H_
#define ZOVDX_VDX_H_

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#if defined(__GNUC__)
#define VDX_API __attribute__((visibility("default")))
#else
#define VDX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef enum _VDX_STATUS {
  VDX_STATUS_SUCCESS = 0,
  VDX_STATUS_ERROR = 1,
  VDX_STATUS_NO_MEMORY = 2,
  VDX_STATUS_OPEN_MKFD_FAILED = 3,
  VDX_STATUS_MKFD_ALREADY_OPENED = 4,
  VDX_STATUS_SYS_NODE_NOT_EXIST = 5,
  VDX_STATUS_NOT_SUPPORTED = 6,
  VDX_STATUS_MKFD_NOT_OPENED = 7,
  VDX_STATUS_CREATE_VDEV_FAILED = 8,
  VDX_STATUS_DESTROY_VDEV_FAILED = 9,
  VDX_STATUS_INVALID_ARGUMENTS = 10,
  VDX_STATUS_OUT_OF_RESOURCES = 11,
  VDX_STATUS_QUERY_VDEV_INFO_FAILED = 12,
  VDX_STATUS_ERROR_NOT_INITIALIZED = 13,
  VDX_STATUS_DEVICE_NOT_SUPPORT = 14,
  VDX_STATUS_VDEV_NOT_EXIST = 15,
  VDX_STATUS_INIT_DEVICE_FAILED = 16,
  VDX_STATUS_DEVICE_BUSY = 17,
  VDX_STATUS_FILE_ERROR = 18,
  VDX_STATUS_PERMISSION = 19,
  VDX_STATUS_INTERNAL_EXCEPTION = 20,
  VDX_STATUS_INPUT_OUT_OF_BOUNDS = 21,
  VDX_STATUS_SMI_INIT_ERROR = 22,
  VDX_STATUS_NOT_FOUND = 23,
  VDX_STATUS_INSUFFICIENT_SIZE = 24,
  VDX_STATUS_INTERRUPT = 25,
  VDX_STATUS_UNEXPECTED_SIZE = 26,
  VDX_STATUS_NO_DATA = 27,
  VDX_STATUS_UNEXPECTED_DATA = 28,
  VDX_STATUS_SMI_BUSY = 29,
  VDX_STATUS_REFCOUNT_OVERFLOW = 30,
  VDX_STATUS_NOT_YET_IMPLEMENTED = 31,
  VDX_STATUS_ZOMGR_CONNECT_FAILED = 32,
  VDX_STATUS_ZOMGR_SEND_ERROR = 33,
  VDX_STATUS_ZOMGR_RECV_ERROR = 34,
  VDX_STATUS_RESET_REQUIRED = 35,
  VDX_STATUS_UNKNOWN_ERROR = 999
} vdxStatus;

/* A physical or a virtual device. The layout is part of the ABI and never changes. */
typedef struct {
  char name[256];            /* marketing name, NUL-terminated */
  int compute_unit_count;    /* compute units of the device or of the slice */
  size_t global_mem_size;    /* total memory (a slice: its limit), bytes */
  size_t usage_mem_size;     /* memory in use, bytes */
  uint64_t container_id;     /* container using the slice, 0 if none */
  int device_id;             /* physical device index (a slice: the device it lives on) */
} vdxDeviceInfo;

#if defined(__cplusplus)
#define VDX_ASSERT_LAYOUT_(cond, name) static_assert(cond, #name)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define VDX_ASSERT_LAYOUT_(cond, name) _Static_assert(cond, #name)
#else
#define VDX_ASSERT_LAYOUT_(cond, name) typedef char vdx_layout_##name[(cond) ? 1 : -1]
#endif
VDX_ASSERT_LAYOUT_(sizeof(vdxDeviceInfo) == 296, size);
VDX_ASSERT_LAYOUT_(offsetof(vdxDeviceInfo, name) == 0, name);
VDX_ASSERT_LAYOUT_(offsetof(vdxDeviceInfo, compute_unit_count) == 256, compute_unit_count);
VDX_ASSERT_LAYOUT_(offsetof(vdxDeviceInfo, global_mem_size) == 264, global_mem_size);
VDX_ASSERT_LAYOUT_(offsetof(vdxDeviceInfo, usage_mem_size) == 272, usage_mem_size);
VDX_ASSERT_LAYOUT_(offsetof(vdxDeviceInfo, container_id) == 280, container_id);
VDX_ASSERT_LAYOUT_(offsetof(vdxDeviceInfo, device_id) == 288, device_id);
#undef VDX_ASSERT_LAYOUT_

/* Number of supported physical devices into *count. */
VDX_API vdxStatus vdxGetDeviceCount(int* count);

/* Describes physical device device_id (0-based) in *device_info. */
VDX_API vdxStatus vdxGetDeviceInfo(int device_id, vdxDeviceInfo* device_info);

/* Largest number of virtual devices the host can hold into *count. */
VDX_API vdxStatus vdxGetMaxVDeviceCount(int* count);

/* Number of configured virtual devices into *count. */
VDX_API vdxStatus vdxGetVDeviceCount(int* count);

/* Compute units and memory of device_id not yet given to any virtual device. */
VDX_API vdxStatus vdxGetDeviceRemainingInfo(int device_id, size_t* cus, size_t* memories);

/* Describes virtual device vdevice_id (0 to 31) in *vdevice_info. */
VDX_API vdxStatus vdxGetVDeviceInfo(int vdevice_id, vdxDeviceInfo* vdevice_info);

/* Plans vdev_count virtual devices on device_id with the given compute units and MiB each.
 * Root only; refused in a container. Driver instances appear at vdxStartVDevice. */
VDX_API vdxStatus vdxCreateVDevices(int device_id, int vdev_count, int* vdev_cus,
                                    int* vdev_memories);

/* Destroys every virtual device of physical device device_id. Root only. */
VDX_API vdxStatus vdxDestroyVDevices(int device_id);

/* Destroys one virtual device. Root only; VDX_STATUS_DEVICE_BUSY while a container uses it. */
VDX_API vdxStatus vdxDestroySingleVDevice(int vdevice_id);

/* Resizes one virtual device to vdev_cus compute units and vdev_memories MiB. Root only. */
VDX_API vdxStatus vdxUpdateSingleVDevice(int vdevice_id, int vdev_cus, int vdev_memories);

/* Creates the driver instance of a configured virtual device and binds this process to it. */
VDX_API vdxStatus vdxStartVDevice(int vdevice_id);

/* Removes the driver instance of a virtual device and releases this process's binding. */
VDX_API vdxStatus vdxStopVDevice(int vdevice_id);

/* Busy percentage (0 to 100) of physical device device_id into *busy_percent. */
VDX_API vdxStatus vdxGetDevBusyPercent(int device_id, int* busy_percent);

/* Busy percentage (0 to 100) of virtual device vdevice_id into *busy_percent. */
VDX_API vdxStatus vdxGetVDevBusyPercent(int vdevice_id, int* busy_percent);

/* Records for the real user whether this host runs encrypted virtual machines.
 * Works even when the library failed to initialise. */
VDX_API vdxStatus vdxSetEncryptionVMStatus(bool status);

/* Reads the flag written by vdxSetEncryptionVMStatus into *status. */
VDX_API vdxStatus vdxGetEncryptionVMStatus(bool* status);

/* Sets the log level by name: "none", "warning", "info" or "debug"; any other text is
 * VDX_STATUS_INVALID_ARGUMENTS. The VDX_LOG_LEVEL environment variable (0 none to 5 trace)
 * overrides the name. log_level must not be NULL. */
VDX_API vdxStatus vdxSetLogLevel(const char* log_level);

/* Deprecated: does nothing but zero *device_info (when not NULL); always VDX_STATUS_SUCCESS. */
VDX_API vdxStatus vdxInitDevice(vdxDeviceInfo* device_info);

/* Stores a static English sentence for status in *status_string. An unknown code returns
 * VDX_STATUS_ERROR and leaves *status_string as it was. The text must not be freed. */
VDX_API vdxStatus vdxGetStatusString(vdxStatus status, const char** status_string);

#ifdef __cplusplus
}
#endif

#endif /* ZOVDX_VDX_H_ */
