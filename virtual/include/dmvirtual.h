// Dmvirtual: the process-wide device manager behind the exported functions. It owns the
// picture of the machine: the supported physical devices, the virtual devices configured in
// /etc/vdev, the driver's container groups, the virtual devices this process is bound to, and
// the driver instances this process created (destroyed again at its exit).
//
// Locks, always taken in this order: the exported functions' gate mutex, then
// virtual_device_lock (guards virtual_device_lists, vdev_bitmap, virtual_mtime and the rest of
// the view's freshness), then bind_vdev_lock (guards bind_vdev_lists), then the inter-process
// lock (ConfigLock, virtual/run_state.h), which only root holds.
// The gate mutex (vdx_virtual.cpp) serialises every call of a manager method but the
// encryption pair, which touches no member: it is what guards the members that no lock of
// their own covers (below, next to each member), and why the busy query may refresh the
// group list before it takes virtual_device_lock.
// Each guard is written next to its members (GUARDED_BY) and each method's needs next to it
// (REQUIRES): clang checks them when it builds the library (utils/thread_annotations.h). The
// file lock is not a mutex and stays in the comments. Methods whose name starts with "i"
// expect their caller to hold what their annotation and comment say.
// Every message of the manager is written at debug level.
//
// The methods are defined by concern: dmvirtual.cpp (start-up and lifetime),
// dmvirtual_config.cpp (configuration files; their text is vdev_file.cpp's),
// dmvirtual_accounting.cpp (physical devices and what is left of them), dmvirtual_create.cpp
// (creation), dmvirtual_destroy.cpp (destroy and update), change_frame.h (the frame every
// change runs in), dmvirtual_instance.cpp (driver instances: start, stop, the instances this
// process made and their teardown at exit), dmvirtual_query.cpp (queries, busy percentages,
// refusals), dmvirtual_bind.cpp (process binding), dmvirtual_encrypt.cpp (encryption flag).
#ifndef ZOVDX_VIRTUAL_INCLUDE_DMVIRTUAL_H_
#define ZOVDX_VIRTUAL_INCLUDE_DMVIRTUAL_H_

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "common/env_check.h"
#include "mkfd/include/dmkfd.h"
#include "utils/mutex.h"
#include "virtual/cu_mask.h"
#include "virtual/run_state.h"
#include "zovdx/vdx.h"

// Where the configuration lives; the container's own files are under kVdevDockerDir.
inline constexpr char kVdevDir[] = "/etc/vdev";
inline constexpr char kVdevDockerDir[] = "/etc/vdev/docker";
inline constexpr char kSysfsGroupDir[] = "/sys/devices/virtual/kfd/kfd/group";

inline constexpr int kMaxVirtualDevices = 32;       // ids 0..31, host-wide

// MiB as the files and the records hold them (an int) to bytes. The int is taken as 32
// unsigned bits, the way the driver takes a limit, so the arithmetic never overflows.
inline uint64_t MibToBytes(int mib) {
  return static_cast<uint64_t>(static_cast<uint32_t>(mib)) << 20;
}
inline constexpr int kMaxVdevsPerDevice = 4;        // one per pipe
inline constexpr int kMaxPhysicalDevices = 8;

// The file name of a virtual device id: "vdev<id>.conf".
std::string VdevFileName(int vdev_id);
// The set of ids 0..31 whose file is present in dir (bit i: VdevFileName(i) exists), from
// one listing of the directory; 0 when it cannot be listed.
uint32_t PresentVdevIds(const std::string& dir);

// One physical device, as the driver topology describes it.
typedef struct _device_info {
  uint32_t pciDomainID;
  uint32_t pciBus;
  uint32_t pciDevice;
  uint32_t pciFunction;
  uint32_t simdCount;
  uint32_t simdPerCu;
  uint32_t vendorId;
  uint32_t deviceId;
  uint32_t cuNum;  // simdCount / simdPerCu
  uint32_t wavePerSimd;
  uint64_t globalMemSize;  // bytes
  char name[256];
} device_info;

class Device {
 public:
  explicit Device(const device_info& info) : _info(info) {}
  const device_info& Info() const { return _info; }

 private:
  device_info _info;
};

// One virtual device, as read from its configuration file.
typedef struct _virtual_device_info {
  cu_mask_t cuMask;
  int cuCount;   // 0: a unit-sharing virtual device
  int memLimit;  // MiB
  int device_id;
  int vdev_id;
  int pipe_id;
  time_t mtime;      // of the file it was read from
  long mtime_nsec;   // and its nanoseconds: another process's change in the same second shows
  int file_id;       // the id in the name of that file (vdev_id may differ in a hand-made one)
} virtual_device_info;

// One container group that the driver reports in sysfs.
typedef struct _sys_group_info {
  uint64_t container_id;
  uint64_t group_id;  // bit n: virtual device n belongs to the group
} sys_group_info;

// The exported functions' gate (vdx_virtual.cpp): held around every call of a manager method
// but the encryption pair, and around the start-up.
extern utils::Mutex gvdxlock;

class Dmvirtual {
 public:
  static constexpr size_t cu_mask_field_size = 64;

  ~Dmvirtual();
  // Builds an empty manager; the library's one manager is Instance().
  Dmvirtual();
  Dmvirtual(const Dmvirtual&) = delete;
  Dmvirtual& operator=(const Dmvirtual&) = delete;

  static Dmvirtual& Instance();
  // The one-time start-up; the exported functions' gate calls it once per process.
  vdxStatus Init() REQUIRES(gvdxlock);
  vdxStatus SetLogLevel(std::string log_level) REQUIRES(gvdxlock);
  vdxStatus GetMaxVirtualDeviceCountSupport(int* count) REQUIRES(gvdxlock);
  vdxStatus GetVirualDeviceCount(int* count) REQUIRES(gvdxlock);
  vdxStatus GetVirtualDeviceInfo(int vdev_id, vdxDeviceInfo* info) REQUIRES(gvdxlock);
  vdxStatus GetDeviceInfo(int index, vdxDeviceInfo* info) REQUIRES(gvdxlock);
  vdxStatus GetDeviceRemainingInfo(int device_id, uint64_t* remaining_cus,
                                   uint64_t* remaining_mem) REQUIRES(gvdxlock);
  vdxStatus GetDeviceCount(int* count) REQUIRES(gvdxlock);
  vdxStatus CreateProcessGroup(virtual_device_info* vdevs, int count) REQUIRES(gvdxlock);
  vdxStatus DestroyProcessGroup() REQUIRES(gvdxlock);
  vdxStatus InitDevice(vdxDeviceInfo* infos, int capacity, int* count) REQUIRES(gvdxlock);
  vdxStatus CreateVirtualDevices(int device_id, int count, int* cu_config, int* mem_config) REQUIRES(gvdxlock);
  vdxStatus DestroyVirtualDevices(int device_id) REQUIRES(gvdxlock);
  vdxStatus DestroyVirtualDevice(int vdev_id) REQUIRES(gvdxlock);
  vdxStatus UpdateVirtualDevice(int vdev_id, int cu, int mem) REQUIRES(gvdxlock);
  vdxStatus StartVirtualDevice(int* vdev_ids, int count) REQUIRES(gvdxlock);
  vdxStatus StopVirtualDevice(int* vdev_ids, int count) REQUIRES(gvdxlock);
  vdxStatus GetDevBusyPercent(int index, int* percent) REQUIRES(gvdxlock);
  vdxStatus GetVDevBusyPercent(int vdev_id, int* percent) REQUIRES(gvdxlock);
  // Use none of the manager's state: callable without Init and without any lock.
  vdxStatus SetEncryptedVMStatus(bool status);
  vdxStatus GetEncryptedVMStatus(bool* status);
  bool IsDockerVirtualEnv() REQUIRES(gvdxlock);

 private:
  friend class DmvirtualPeer;  // tests look inside

  // Process binding. iGetRunVirtualDevice, iSetRunVirtualDevice and iReleaseRunVirtualDevice:
  // caller holds bind_vdev_lock exclusively (and virtual_device_lock before it).
  vdxStatus iInitSysGroup() REQUIRES(gvdxlock);
  // Whether the driver reports any group: the empty records that each refresh puts in front
  // of the list are no groups.
  bool iAnySysGroup() const REQUIRES(gvdxlock);
  vdxStatus iSysGetGroupInfo(std::string path, sys_group_info* info) REQUIRES(gvdxlock);
  vdxStatus iSetVisiableDevice(virtual_device_info* vdevs, int count);
  vdxStatus iSetRunVirtualDevice(uint32_t mask) REQUIRES(virtual_device_lock, bind_vdev_lock);
  vdxStatus iGetRunVirtualDevice() REQUIRES(virtual_device_lock, bind_vdev_lock);
  vdxStatus iReleaseRunVirtualDevice() REQUIRES(virtual_device_lock, bind_vdev_lock);
  vdxStatus iRunProcessGroupMode(virtual_device_info* vdevs, int count) REQUIRES(gvdxlock);
  vdxStatus iRunProcessVdevMode() EXCLUDES(bind_vdev_lock);
  // Driver instances; caller holds virtual_device_lock.
  vdxStatus iCreateVdev(int vdev_id) REQUIRES(gvdxlock, virtual_device_lock);
  // The frame every change (create, both destroys, update) runs in, after its own checks:
  // change_frame.h. The steps run under virtual_device_lock and the file lock.
  template <typename BeforeRaise, typename Work>
  vdxStatus iUnderExclusiveFileLock(bool plural, const char* caller, BeforeRaise before_raise,
                                    Work work) REQUIRES(gvdxlock) EXCLUDES(virtual_device_lock);
  // The refusals many entry points share: true (and the refusal logged under caller's name)
  // when this process runs inside a container, or when the devices are in MIG mode.
  bool iRefusedInContainer(const char* caller) const;
  // The checks that open every change: root (19, "<request> failed, root privilege
  // required."), then not in a container (6, the request's own text).
  vdxStatus iChangeAllowed(const char* caller, const char* request,
                           const char* in_container) const;
  bool iRefusedUnderMig(const char* caller) const;
  // The checks start and stop share, under their locks: a current configuration, the list,
  // no group, every id configured. *request: the set of ids asked for.
  vdxStatus iStartStopFrame(const char* caller, int* vdev_ids, int count, uint32_t* request) REQUIRES(gvdxlock, virtual_device_lock);
  // Start (make the instances and bind the process) or stop (destroy them and unbind).
  vdxStatus iStartOrStop(bool start, const char* caller, int* vdev_ids, int count) REQUIRES(gvdxlock);
  vdxStatus iDestroyVdev(int vdev_id) REQUIRES(gvdxlock, virtual_device_lock);
  // Which process made each driver instance. Made here (record) or destroyed by this process,
  // whoever made it (forget): kept in created_vxcus and, for root, in the host's record
  // (run_state.h) under the exclusive lock, which a root caller holds.
  void iRecordInstance(int device, int pipe) REQUIRES(gvdxlock, virtual_device_lock);
  void iForgetInstance(int device, int pipe) REQUIRES(gvdxlock, virtual_device_lock);
  // At exit: destroys the instances this process made that nobody destroyed or replaced since.
  void iDestroyOwnInstancesAtExit() REQUIRES(gvdxlock);
  // Configuration files; caller holds virtual_device_lock exclusively (the file lock too
  // where the read must agree with a writer in another process).
  vdxStatus iInitVirtualDevice() REQUIRES(virtual_device_lock);
  vdxStatus iCheckAndReinitVirtualDevice() REQUIRES(virtual_device_lock);
  // iCheckAndReinitVirtualDevice with its failure said under caller's name ("check and
  // re-initialize virtual device failed.") and reported as 1.
  vdxStatus iReinitOrSay(const char* caller) REQUIRES(virtual_device_lock);
  // For a change that now holds the file lock exclusively: reads the files again whatever the
  // time stamps say (another process may have changed them between the shared lock and the
  // exclusive one, the raise not being atomic). *changed: whether the view moved.
  vdxStatus iReloadUnderExclusiveLock(bool* changed) REQUIRES(virtual_device_lock);
  vdxStatus iReleaseVirtualDevice(int vdev_id) REQUIRES(virtual_device_lock);
  vdxStatus iGetVirtualDevice(std::string dir, std::string file, virtual_device_info* info);
  vdxStatus iLoadVirtualDeviceInfo(int vdev_id) REQUIRES(virtual_device_lock);
  vdxStatus iRefreshVirtualDeviceInfo(int vdev_id) REQUIRES(virtual_device_lock);
  vdxStatus iCheckAndGetVirtualDeviceInfo(int vdev_id, virtual_device_info* info) REQUIRES(virtual_device_lock);
  // Writes a virtual device's file (moving the directory's time when asked, for a file
  // rewritten in place) and records the file's time in vdev->mtime.
  vdxStatus iWriteVdevFile(const char* caller, virtual_device_info* vdev, bool touch_directory) REQUIRES(virtual_device_lock);
  // Caller holds virtual_device_lock: shared for the get, exclusive for the set.
  vdxStatus iGetVirtualDeviceById(int vdev_id, virtual_device_info* info) REQUIRES_SHARED(virtual_device_lock);
  vdxStatus iSetVirtualDeviceById(int vdev_id, virtual_device_info* info) REQUIRES(virtual_device_lock);
  // Caller holds bind_vdev_lock.
  vdxStatus iMergeVirtualDevice(virtual_device_info* out, int out_size, int* out_count) REQUIRES_SHARED(bind_vdev_lock);
  // Accounting and creation; caller holds virtual_device_lock.
  vdxStatus iGetActiveVdevCountFromSys(int* count) REQUIRES(virtual_device_lock);
  vdxStatus iAllocateVdevId(int* vdev_id) REQUIRES(virtual_device_lock);
  vdxStatus iGetDevResources(int device_id, int* remaining_cus, int* remaining_mem,
                             cu_mask_t* free_mask, uint32_t* free_pipes) REQUIRES(virtual_device_lock);
  vdxStatus iGenerateVirtualDevicesConfig(int device_id, int count, int* cu_config,
                                          int* mem_config, std::vector<int>& cus,
                                          std::vector<int>& mems, cu_mask_t& free_mask,
                                          uint32_t& free_pipes) REQUIRES(virtual_device_lock);
  vdxStatus iCreateVirtualDevices(int device_id, int count, std::vector<int>& cus,
                                  std::vector<int>& mems, cu_mask_t& free_mask,
                                  uint32_t& free_pipes) REQUIRES(virtual_device_lock);
  vdxStatus iDestroyVirtualDevice(int vdev_id) REQUIRES(gvdxlock, virtual_device_lock);
  // Releases the container groups and the driver instance that hold a virtual device, before
  // it is destroyed (updating false) or updated (true); 17 while another user holds it, 1 for
  // a record of a device that does not exist.
  vdxStatus iReleaseVdevHolders(const char* caller, const virtual_device_info& vdev,
                                bool updating) REQUIRES(gvdxlock, virtual_device_lock);
  vdxStatus iUpdateVirtualDevice(int vdev_id, int cu, int mem) REQUIRES(gvdxlock, virtual_device_lock);

  // Set by Init (once, under the gate's once flag), read only afterwards.
  std::vector<Device*> device_lists;  // owned; index = device id
  uint64_t docker_id = 0;
  SystemMode system_mode = SYSTEM_MODE_NONE;
  bool is_docker_virtual_env = false;
  pid_t dmvirtual_pid = -1;

  // Guarded by the gate mutex: refreshed from the driver by whichever method needs it.
  std::vector<sys_group_info> group_lists GUARDED_BY(gvdxlock);
  // Guarded by the gate mutex; start and stop also hold both manager locks when they change
  // it, and the destructor runs at exit, when no call is left.
  // (device id, pipe id) made here
  std::list<std::pair<int, int>> created_vxcus GUARDED_BY(gvdxlock);

  utils::SharedMutex virtual_device_lock;
  // Guarded by virtual_device_lock (exclusive to change, shared to read).
  std::vector<virtual_device_info> virtual_device_lists GUARDED_BY(virtual_device_lock);
  uint32_t vdev_bitmap GUARDED_BY(virtual_device_lock) = 0;  // bit i set: id i is free
  time_t virtual_mtime GUARDED_BY(virtual_device_lock) = 0;
  // Changes within one second are changes too.
  long virtual_mtime_nsec GUARDED_BY(virtual_device_lock) = 0;
  // The generation (run_state.h) that the view was loaded at; a query trusts the view only
  // while the generation is the same.
  std::string generation_seen GUARDED_BY(virtual_device_lock);
  // The view was loaded within one clock tick of the directory's time stamp: a change made
  // in the same tick would not move the stamp, so the next query loads it again.
  bool view_racy GUARDED_BY(virtual_device_lock) = false;

  utils::SharedMutex bind_vdev_lock;
  // Guarded by bind_vdev_lock (taken after virtual_device_lock when both are needed).
  std::vector<virtual_device_info> bind_vdev_lists GUARDED_BY(bind_vdev_lock);
  dmRunMode mode GUARDED_BY(bind_vdev_lock) = DM_PROCESS_NONE_MODE;
};

#endif  // ZOVDX_VIRTUAL_INCLUDE_DMVIRTUAL_H_
