#include "tools/vdxctl/cdi.h"

namespace vdxctl {
namespace {

nlohmann::json Mount(int id) {
  const std::string name = "vdev" + std::to_string(id) + ".conf";
  return {{"hostPath", "/etc/vdev/" + name},
          {"containerPath", "/etc/vdev/docker/" + name},
          {"options", {"ro", "bind"}}};
}

nlohmann::json Edits(const std::vector<int>& ids) {
  nlohmann::json mounts = nlohmann::json::array();
  for (int id : ids) mounts.push_back(Mount(id));
  return {{"deviceNodes", {{{"path", "/dev/mkfd"}}}}, {"mounts", mounts}};
}

}  // namespace

nlohmann::json CdiSpec(const std::vector<int>& vdev_ids) {
  nlohmann::json devices = nlohmann::json::array();
  for (int id : vdev_ids)
    devices.push_back({{"name", std::to_string(id)}, {"containerEdits", Edits({id})}});
  devices.push_back({{"name", "all"}, {"containerEdits", Edits(vdev_ids)}});
  return {{"cdiVersion", "0.6.0"}, {"kind", kCdiKind}, {"devices", devices}};
}

}  // namespace vdxctl
