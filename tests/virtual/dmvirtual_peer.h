// Tests' view inside the manager: the lists that only the steps meant for library clients
// (the run modes) change, the instances this process made, and the private steps those tests
// drive.
#ifndef ZOVDX_TESTS_VIRTUAL_DMVIRTUAL_PEER_H_
#define ZOVDX_TESTS_VIRTUAL_DMVIRTUAL_PEER_H_

#include <list>
#include <string>
#include <vector>

#include "virtual/include/dmvirtual.h"

class DmvirtualPeer {
 public:
  explicit DmvirtualPeer(Dmvirtual& dm) : dm_(dm) {}

  std::vector<virtual_device_info>& vdevs() { return dm_.virtual_device_lists; }
  std::vector<virtual_device_info>& bound() { return dm_.bind_vdev_lists; }
  std::vector<sys_group_info>& groups() { return dm_.group_lists; }
  uint64_t& docker_id() { return dm_.docker_id; }
  std::list<std::pair<int, int>>& created() { return dm_.created_vxcus; }
  dmRunMode mode() { return dm_.mode; }
  bool& docker_env() { return dm_.is_docker_virtual_env; }

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
};

#endif  // ZOVDX_TESTS_VIRTUAL_DMVIRTUAL_PEER_H_
