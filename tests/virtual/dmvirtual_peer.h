// Tests' view inside the manager: its lists and the private steps, called with the locks
// their callers would hold. Devices added through the peer are deleted by it.
#ifndef ZOVDX_TESTS_VIRTUAL_DMVIRTUAL_PEER_H_
#define ZOVDX_TESTS_VIRTUAL_DMVIRTUAL_PEER_H_

#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "virtual/include/dmvirtual.h"

class DmvirtualPeer {
 public:
  explicit DmvirtualPeer(Dmvirtual& dm) : dm_(dm) {}
  ~DmvirtualPeer() {
    for (Device* device : added_) {
      for (auto it = dm_.device_lists.begin(); it != dm_.device_lists.end(); ++it) {
        if (*it == device) {
          dm_.device_lists.erase(it);
          break;
        }
      }
      delete device;
    }
  }
  DmvirtualPeer(const DmvirtualPeer&) = delete;
  DmvirtualPeer& operator=(const DmvirtualPeer&) = delete;

  // A physical device at 0000:BUS:00.0 with the given units and memory (MiB).
  void AddDevice(uint32_t bus, uint32_t units, uint64_t mib) {
    device_info info;
    memset(&info, 0, sizeof(info));
    info.pciBus = bus;
    info.cuNum = units;
    info.globalMemSize = mib << 20;
    added_.push_back(new Device(info));
    dm_.device_lists.push_back(added_.back());
  }

  const std::vector<Device*>& devices() { return dm_.device_lists; }
  std::vector<virtual_device_info>& vdevs() { return dm_.virtual_device_lists; }
  std::vector<virtual_device_info>& bound() { return dm_.bind_vdev_lists; }
  std::vector<sys_group_info>& groups() { return dm_.group_lists; }
  uint32_t& bitmap() { return dm_.vdev_bitmap; }
  uint64_t& docker_id() { return dm_.docker_id; }
  std::list<std::pair<int, int>>& created() { return dm_.created_vxcus; }
  dmRunMode mode() { return dm_.mode; }
  bool& docker_env() { return dm_.is_docker_virtual_env; }

  vdxStatus GetVirtualDevice(const std::string& dir, const std::string& file,
                             virtual_device_info* info) {
    return dm_.iGetVirtualDevice(dir, file, info);
  }
  vdxStatus Merge(virtual_device_info* out, int size, int* count) {
    return dm_.iMergeVirtualDevice(out, size, count);
  }
  vdxStatus Release(int id) { return dm_.iReleaseVirtualDevice(id); }
  vdxStatus SetVisible(std::vector<virtual_device_info>& vdevs) {
    return dm_.iSetVisiableDevice(vdevs.data(), static_cast<int>(vdevs.size()));
  }
  vdxStatus SetRunMask(uint32_t mask) { return dm_.iSetRunVirtualDevice(mask); }
  vdxStatus ActiveCountFromSys(int* count) { return dm_.iGetActiveVdevCountFromSys(count); }
  // As a start that made the instance would record it (the caller, root, needs no lock here:
  // the tests change nothing else meanwhile).
  void RecordInstance(int device, int pipe) { dm_.iRecordInstance(device, pipe); }

  // The steps that callers run under the manager's locks.
  vdxStatus CheckAndReinit() {
    utils::WriterLock lock(&dm_.virtual_device_lock);
    return dm_.iCheckAndReinitVirtualDevice();
  }
  vdxStatus CheckAndGet(int id, virtual_device_info* info) {
    utils::WriterLock lock(&dm_.virtual_device_lock);
    return dm_.iCheckAndGetVirtualDeviceInfo(id, info);
  }
  vdxStatus InitSysGroup() { return dm_.iInitSysGroup(); }
  vdxStatus GroupInfo(const std::string& path, sys_group_info* info) {
    return dm_.iSysGetGroupInfo(path, info);
  }
  vdxStatus RunVdevMode() { return dm_.iRunProcessVdevMode(); }
  vdxStatus RunGroupMode() {
    std::vector<virtual_device_info> bound;
    {
      utils::ReaderLock lock(&dm_.bind_vdev_lock);
      bound = dm_.bind_vdev_lists;
    }
    return dm_.iRunProcessGroupMode(bound.data(), static_cast<int>(bound.size()));
  }

 private:
  Dmvirtual& dm_;
  std::vector<Device*> added_;
};

#endif  // ZOVDX_TESTS_VIRTUAL_DMVIRTUAL_PEER_H_
