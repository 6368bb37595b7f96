// The virtual device configuration files: the reader of one file, the loaders that keep
// virtual_device_lists, vdev_bitmap and virtual_mtime in step with /etc/vdev, and the
// per-device summary of the bound virtual devices. Callers hold virtual_device_lock
// exclusively (iMergeVirtualDevice: bind_vdev_lock), and the file lock where a read must
// agree with a writer in another process.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "utils/file.h"
#include "utils/logger.h"
#include "utils/scoped.h"
#include "utils/utils.h"
#include "virtual/dmvirtual_labels.h"
#include "virtual/include/dmvirtual.h"
#include "virtual/vdev_file.h"

std::string VdevFileName(int vdev_id) { return "vdev" + std::to_string(vdev_id) + ".conf"; }

uint32_t PresentVdevIds(const std::string& dir) {
  uint32_t present = 0;
  ForEachDirectoryEntry(dir, [&present](const char* name) {
    // Exactly the names VdevFileName makes: no sign, no leading zero, ids 0 to 31.
    const size_t length = strlen(name);
    if (length < 10 || length > 11 || strncmp(name, "vdev", 4) != 0 ||
        strcmp(name + length - 5, ".conf") != 0)
      return true;
    const char* digits = name + 4;
    const size_t count = length - 9;
    if (!isdigit(static_cast<unsigned char>(digits[0])) ||
        (count == 2 && (digits[0] == '0' || !isdigit(static_cast<unsigned char>(digits[1])))))
      return true;
    const int id = count == 1 ? digits[0] - '0' : (digits[0] - '0') * 10 + (digits[1] - '0');
    if (id < kMaxVirtualDevices) present |= IdBit(id);
    return true;
  });
  return present;
}

namespace {

// A configuration file is nine short lines; anything much larger is not one.
constexpr off_t kMaxVdevFileSize = 4096;

// Whether the stamp (seconds, nanoseconds) is at least as new as the file's.
bool NotOlder(time_t seconds, long nanoseconds, const struct timespec& file) {
  return seconds > file.tv_sec || (seconds == file.tv_sec && nanoseconds >= file.tv_nsec);
}

// Whether a view read at now may have missed a change whose time stamp equals stamp: a file
// system stamps changes with a coarse clock (one tick, a few milliseconds), so a change made
// after the view was read, within the same tick, leaves the stamp where it was. Such a view is
// not trusted (git calls its index "racily clean" in the same case). A stamp without
// nanoseconds comes from a file system that keeps whole seconds.
bool WithinOneTick(const struct timespec& stamp, const struct timespec& now) {
  static const long long tick_ns = [] {
    struct timespec resolution = {0, 0};
    clock_getres(CLOCK_REALTIME_COARSE, &resolution);
    const long long ns = resolution.tv_sec * 1000000000LL + resolution.tv_nsec;
    return ns < 1000000 ? 1000000LL : ns;
  }();
  // Two ticks: the stamp itself may lag the change by up to one.
  const long long margin = stamp.tv_nsec == 0 ? 1000000000LL + 2 * tick_ns : 2 * tick_ns;
  const long long age = (static_cast<long long>(now.tv_sec) - stamp.tv_sec) * 1000000000LL +
                        (now.tv_nsec - stamp.tv_nsec);
  return age < margin;
}

}  // namespace

vdxStatus Dmvirtual::iGetVirtualDevice(std::string dir, std::string file,
                                       virtual_device_info* info) {
  const std::string path = dir + "/" + file;
  if (!IsDirectoryExist(dir) || !IsFileExist(path)) return VDX_STATUS_VDEV_NOT_EXIST;
  // Anyone who can write here can plant anything under a file's name: only a regular file of
  // a sane size is read. No link is followed (a link to an endless device would hang every
  // process), and a FIFO does not block the open.
  utils::FdHandle fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (fd.get() < 0) {
    LOG_DEBUG("[%s] %s: failed to open file '%s' - %s.\n", __func__, kLabelError, path.c_str(),
              ErrnoMessage(errno).c_str());
    return VDX_STATUS_ERROR;
  }
  std::string error;
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
    error = "not a regular file";
  else if (st.st_size > kMaxVdevFileSize)
    error = "a size of " + std::to_string(st.st_size) + " bytes";
  if (!error.empty()) {
    LOG_DEBUG("[%s] %s: file '%s' has been damaged, due to %s.\n", __func__, kLabelError,
              path.c_str(), error.c_str());
    return VDX_STATUS_ERROR;
  }
  std::string text;
  char buffer[1024];
  for (;;) {
    const ssize_t n = read(fd.get(), buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  fd.reset();

  VdevFileFields fields;
  error = ParseVdevFile(text, &fields);
  virtual_device_info record = fields.record;
  const bool enable = fields.enable;
  const unsigned int domain = fields.domain, bus = fields.bus, device = fields.device,
                     function = fields.function;
  if (!error.empty()) {
    LOG_DEBUG("[%s] %s: file '%s' has been damaged, due to %s.\n", __func__, kLabelError,
              path.c_str(), error.c_str());
    return VDX_STATUS_ERROR;
  }
  if (!enable) {
    LOG_DEBUG("[%s] %s: virtual device disabled in configuration file %s, skip it.\n", __func__,
              kLabelError, path.c_str());
    return VDX_STATUS_ERROR;
  }

  // The PCI address, not the stored index, decides the physical device: files stay valid
  // when the enumeration order of the devices changes.
  int matched = -1;
  for (size_t d = 0; d < device_lists.size(); ++d) {
    const device_info& physical = device_lists[d]->Info();
    if (physical.pciDomainID == domain && physical.pciBus == bus &&
        physical.pciDevice == device && physical.pciFunction == function) {
      matched = static_cast<int>(d);
      break;
    }
  }
  if (matched < 0) {
    LOG_DEBUG("[%s] %s: no physical device matches the pci identifier(%04x:%02x:%02x.%02x) of "
              "virtual device's configuration, skip it.\n",
              __func__, kLabelError, domain, bus, device, function);
    return VDX_STATUS_ERROR;
  }
  if (record.device_id != matched) {
    LOG_DEBUG("[%s] %s: device id(%d) in configuration file(%s) inconsistent with pci matched "
              "physical device(%d), override it.\n",
              __func__, kLabelWarning, record.device_id, path.c_str(), matched);
    record.device_id = matched;
  }

  struct timespec mtime;
  if (!GetModificationTime(path, &mtime)) {
    LOG_DEBUG("[%s] %s: failed to get the timestamp of file %s.\n", __func__, kLabelError,
              path.c_str());
    return VDX_STATUS_ERROR;
  }
  record.mtime = mtime.tv_sec;
  record.mtime_nsec = mtime.tv_nsec;
  LOG_DEBUG("[%s] Get virtual device(%d)'s cuMask(0x%016lx%016lx).\n", __func__, record.vdev_id,
            CuMaskWord64(record.cuMask, 1), CuMaskWord64(record.cuMask, 0));
  *info = record;
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iInitVirtualDevice() {
  virtual_device_lists.clear();
  vdev_bitmap = 0xffffffffu;
  // Read before the files: a change that lands while they are read bumps it again, and the
  // next query sees that.
  generation_seen = ReadGeneration();
  view_racy = false;
  if (!IsDirectoryExist(kVdevDir)) return VDX_STATUS_SUCCESS;
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  struct timespec mtime;
  if (!GetModificationTime(kVdevDir, &mtime)) {
    LOG_DEBUG("[%s] %s: failed to get the timestamp of file %s.\n", __func__, kLabelError,
              kVdevDir);
    return VDX_STATUS_ERROR;
  }
  virtual_mtime = mtime.tv_sec;
  virtual_mtime_nsec = mtime.tv_nsec;
  view_racy = WithinOneTick(mtime, now);
  // A missing, damaged, disabled or orphaned file costs only its own virtual device. One
  // listing finds the files that are there, instead of a look-up for each of the 32 ids.
  const uint32_t present = PresentVdevIds(kVdevDir);
  for (int id = 0; id < kMaxVirtualDevices; ++id) {
    if (!(present & IdBit(id))) continue;
    virtual_device_info info;
    if (iGetVirtualDevice(kVdevDir, VdevFileName(id), &info) != VDX_STATUS_SUCCESS) continue;
    info.file_id = id;
    virtual_device_lists.push_back(info);
    vdev_bitmap &= ~IdBit(info.vdev_id);  // the id the file holds, not its name's
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iCheckAndReinitVirtualDevice() {
  // Every query and change asks this first: the generation says whether this library changed
  // anything since the view was loaded, in any process; one stat answers both whether the
  // directory is there and when it last changed (a hand edit).
  const std::string generation = ReadGeneration();
  struct stat st;
  const bool stated = stat(kVdevDir, &st) == 0;
  if ((stated && !S_ISDIR(st.st_mode)) || (!stated && (errno == ENOENT || errno == ENOTDIR))) {
    virtual_device_lists.clear();
    vdev_bitmap = 0xffffffffu;
    generation_seen = generation;
    view_racy = false;
    return VDX_STATUS_SUCCESS;
  }
  if (!stated) {
    LOG_DEBUG("[%s] %s: failed to get the timestamp of file %s.\n", __func__, kLabelError,
              kVdevDir);
    return VDX_STATUS_ERROR;
  }
  // Files created, removed or replaced move the directory's time stamp; a file rewritten in
  // place is caught per device by iRefreshVirtualDeviceInfo. The stamps are compared to the
  // nanosecond, so that a change made within the same second as the last load is seen; a view
  // read within a tick of the stamp is read again, since the stamp may hide a later change.
  if (generation == generation_seen && !view_racy &&
      NotOlder(virtual_mtime, virtual_mtime_nsec, st.st_mtim)) {
    LOG_DEBUG("[%s] The virtual configuration path is updated.\n", __func__);
    return VDX_STATUS_SUCCESS;
  }
  LOG_DEBUG("[%s] The virtual configuration path is out-of-date, re-initialize virtual "
            "devices.\n",
            __func__);
  if (iInitVirtualDevice() != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: failed to re-initialize virtual devices from file system.\n", __func__,
              kLabelError);
    return VDX_STATUS_ERROR;
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iReinitOrSay(const char* caller) {
  if (iCheckAndReinitVirtualDevice() == VDX_STATUS_SUCCESS) return VDX_STATUS_SUCCESS;
  LOG_DEBUG("[%s] %s: check and re-initialize virtual device failed.\n", caller, kLabelError);
  return VDX_STATUS_ERROR;
}

vdxStatus Dmvirtual::iLoadVirtualDeviceInfo(int vdev_id) {
  LOG_DEBUG("[%s] Loading configuration of virtual device(%d) from file system.\n", __func__,
            vdev_id);
  virtual_device_info info;
  const vdxStatus status = iGetVirtualDevice(kVdevDir, VdevFileName(vdev_id), &info);
  if (status != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: failed to load configuration of virtual device(%d) from file system.\n",
              __func__, kLabelError, vdev_id);
    return status;
  }
  info.file_id = vdev_id;
  // A file that holds another id than its name's stays one record however often it is
  // loaded: its id's bit never clears, so every query here loads it again.
  for (virtual_device_info& loaded : virtual_device_lists) {
    if (loaded.file_id == vdev_id) {
      loaded = info;
      vdev_bitmap &= ~IdBit(info.vdev_id);
      return VDX_STATUS_SUCCESS;
    }
  }
  virtual_device_lists.push_back(info);
  vdev_bitmap &= ~IdBit(info.vdev_id);
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iRefreshVirtualDeviceInfo(int vdev_id) {
  const std::string path = std::string(kVdevDir) + "/" + VdevFileName(vdev_id);
  struct timespec mtime;
  if (!GetModificationTime(path, &mtime)) {
    LOG_DEBUG("[%s] %s: failed to get the timestamp of file %s.\n", __func__, kLabelError,
              path.c_str());
    return VDX_STATUS_ERROR;
  }
  virtual_device_info* stored = nullptr;
  for (virtual_device_info& vdev : virtual_device_lists) {
    if (vdev.vdev_id == vdev_id) {
      stored = &vdev;
      break;
    }
  }
  if (stored == nullptr) {
    LOG_DEBUG("[%s] %s: the virtual device(%d) not exist in memory space.\n", __func__,
              kLabelError, vdev_id);
    return VDX_STATUS_VDEV_NOT_EXIST;
  }
  if (NotOlder(stored->mtime, stored->mtime_nsec, mtime)) {
    LOG_DEBUG("[%s] The configuration of virtual device(%d) is up-to-date.\n", __func__, vdev_id);
    return VDX_STATUS_SUCCESS;
  }
  virtual_device_info info;
  const vdxStatus status = iGetVirtualDevice(kVdevDir, VdevFileName(vdev_id), &info);
  if (status != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: failed to get configuration of virtual device(%d).\n", __func__,
              kLabelError, vdev_id);
    return status;
  }
  info.file_id = vdev_id;
  *stored = info;
  LOG_DEBUG("[%s] The configuration of virtual device(%d) has been refreshed.\n", __func__,
            vdev_id);
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iCheckAndGetVirtualDeviceInfo(int vdev_id, virtual_device_info* info) {
  if (!IsFileExist(std::string(kVdevDir) + "/" + VdevFileName(vdev_id))) {
    LOG_DEBUG("[%s] The configuration file of virtual device(%d) not exist.\n", __func__,
              vdev_id);
    iReleaseVirtualDevice(vdev_id);
    return VDX_STATUS_VDEV_NOT_EXIST;
  }
  // The bitmap, not a search of the list, says whether the id is loaded.
  if (vdev_bitmap & IdBit(vdev_id)) {
    if (iLoadVirtualDeviceInfo(vdev_id) != VDX_STATUS_SUCCESS) {
      LOG_DEBUG("[%s] %s: failed to load the configuration of virtual device(%d).\n", __func__,
                kLabelError, vdev_id);
      return VDX_STATUS_ERROR;
    }
  } else if (iRefreshVirtualDeviceInfo(vdev_id) != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: failed to refresh the configuration of virtual device(%d).\n", __func__,
              kLabelError, vdev_id);
    return VDX_STATUS_ERROR;
  }
  if (iGetVirtualDeviceById(vdev_id, info) != VDX_STATUS_SUCCESS) {
    LOG_DEBUG("[%s] %s: failed to get the configuration of virtual device(%d).\n", __func__,
              kLabelError, vdev_id);
    return VDX_STATUS_ERROR;
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iMergeVirtualDevice(virtual_device_info* out, int out_size, int* out_count) {
  int count = 0;
  for (size_t d = 0; d < device_lists.size(); ++d) {
    bool matched = false;
    int units = 0, memory = 0;
    uint32_t ids = 0, pipes = 0;
    for (const virtual_device_info& bound : bind_vdev_lists) {
      if (bound.device_id != static_cast<int>(d)) continue;
      matched = true;
      units += bound.cuCount;
      memory += bound.memLimit;
      // A number outside 0..31 has no bit of its own: it never stands for another.
      if (bound.vdev_id >= 0 && bound.vdev_id < kMaxVirtualDevices) ids |= IdBit(bound.vdev_id);
      if (bound.pipe_id >= 0 && bound.pipe_id < 32) pipes |= IdBit(bound.pipe_id);
    }
    if (!matched) continue;
    if (out != nullptr && count < out_size) {
      // In this summary the two id fields carry sets: the bound ids and their pipes.
      virtual_device_info& entry = out[count];
      entry = virtual_device_info{};
      entry.cuCount = units;
      entry.memLimit = memory;
      entry.device_id = static_cast<int>(d);
      entry.vdev_id = static_cast<int>(ids);
      entry.pipe_id = static_cast<int>(pipes);
    }
    ++count;
  }
  if (out_count != nullptr) *out_count = count;
  if (count > kMaxPhysicalDevices) {
    LOG_DEBUG("[%s] %s: device count(%d), max support physical device(%d).\n", __func__,
              kLabelWarning, count, kMaxPhysicalDevices);
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iWriteVdevFile(const char* caller, virtual_device_info* vdev,
                                    bool touch_directory) {
  const std::string file = VdevFileName(vdev->vdev_id);
  const std::string path = std::string(kVdevDir) + "/" + file;
  // Replaced whole, never rewritten in place: a process killed half-way leaves the old file
  // or the new one, and a reader never sees a part of it.
  if (!ReplaceTextFile(kVdevDir, file, VdevFileText(device_lists[vdev->device_id]->Info(), *vdev))) {
    LOG_DEBUG("[%s] %s: write text file %s failed.\n", caller, kLabelError, path.c_str());
    return VDX_STATUS_ERROR;
  }
  if (touch_directory && utime(kVdevDir, nullptr) != 0) {
    LOG_DEBUG("[%s] %s: set the timestamp of directory %s failed, %s.\n", caller, kLabelError,
              kVdevDir, ErrnoMessage(errno).c_str());
    return VDX_STATUS_ERROR;
  }
  struct timespec mtime;
  if (!GetModificationTime(path, &mtime)) {
    LOG_DEBUG("[%s] %s: get the timestamp of written text file %s failed.\n", caller,
              kLabelError, path.c_str());
    return VDX_STATUS_ERROR;
  }
  vdev->mtime = mtime.tv_sec;
  vdev->mtime_nsec = mtime.tv_nsec;
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::iReloadUnderExclusiveLock(bool* changed) {
  const std::vector<virtual_device_info> before = virtual_device_lists;
  const uint32_t bitmap_before = vdev_bitmap;
  const vdxStatus status = iInitVirtualDevice();
  auto same = [](const virtual_device_info& a, const virtual_device_info& b) {
    return a.vdev_id == b.vdev_id && a.device_id == b.device_id && a.pipe_id == b.pipe_id &&
           a.cuCount == b.cuCount && a.memLimit == b.memLimit && a.cuMask == b.cuMask;
  };
  *changed = status != VDX_STATUS_SUCCESS || bitmap_before != vdev_bitmap ||
             before.size() != virtual_device_lists.size() ||
             !std::equal(before.begin(), before.end(), virtual_device_lists.begin(), same);
  return status;
}
