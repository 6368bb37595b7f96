#include "tools/vdxctl/cdi.h"

#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <sstream>

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

// Whether any of the container edits (of the cdi or of a device) holds key, in an entry
// of list when list is given.
bool EditsUse(const nlohmann::json& cdi, const char* list, const char* key) {
  std::vector<const nlohmann::json*> edits;
  if (cdi.contains("containerEdits")) edits.push_back(&cdi["containerEdits"]);
  if (cdi.contains("devices"))
    for (const nlohmann::json& device : cdi["devices"])
      if (device.contains("containerEdits")) edits.push_back(&device["containerEdits"]);
  for (const nlohmann::json* e : edits) {
    if (!e->is_object()) continue;
    if (list == nullptr) {
      if (e->contains(key)) return true;
      continue;
    }
    if (!e->contains(list) || !(*e)[list].is_array()) continue;
    for (const nlohmann::json& entry : (*e)[list])
      if (entry.is_object() && entry.contains(key)) return true;
  }
  return false;
}

}  // namespace

std::string MinimumCdiVersion(const nlohmann::json& cdi) {
  if (EditsUse(cdi, nullptr, "intelRdt") || EditsUse(cdi, nullptr, "additionalGids"))
    return "0.7.0";
  bool annotations = cdi.contains("annotations");
  if (cdi.contains("devices"))
    for (const nlohmann::json& device : cdi["devices"])
      annotations = annotations || device.contains("annotations");
  const std::string kind = cdi.value("kind", "");
  const std::string name = kind.substr(kind.find('/') + 1);
  if (annotations || name.find('.') != std::string::npos) return "0.6.0";
  if (EditsUse(cdi, "deviceNodes", "hostPath")) return "0.5.0";
  if (EditsUse(cdi, "mounts", "type")) return "0.4.0";
  return "0.3.0";
}

nlohmann::json CdiDocument(const std::vector<CdiVdev>& vdevs) {
  nlohmann::json devices = nlohmann::json::array();
  std::vector<int> all, units, shared;
  for (const CdiVdev& v : vdevs) {
    devices.push_back({{"name", std::to_string(v.id)}, {"containerEdits", Edits({v.id})}});
    all.push_back(v.id);
    (v.shares_units ? shared : units).push_back(v.id);
  }
  if (units.empty() || shared.empty()) {
    devices.push_back({{"name", "all"}, {"containerEdits", Edits(all)}});
  } else {
    devices.push_back({{"name", "all-units"}, {"containerEdits", Edits(units)}});
    devices.push_back({{"name", "all-shared"}, {"containerEdits", Edits(shared)}});
  }
  nlohmann::json cdi = {{"kind", kCdiKind}, {"devices", devices}};
  cdi["cdiVersion"] = MinimumCdiVersion(cdi);
  return cdi;
}

std::vector<std::string> CdiFilesHandingOut(int id) {
  const std::string file = "\"/etc/vdev/vdev" + std::to_string(id) + ".conf\"";
  std::vector<std::string> found;
  for (const char* directory : {"/etc/cdi", "/var/run/cdi"}) {
    DIR* listing = opendir(directory);
    if (listing == nullptr) continue;
    std::vector<std::string> names;
    while (const dirent* entry = readdir(listing)) names.push_back(entry->d_name);
    closedir(listing);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      const size_t dot = name.rfind('.');
      if (dot == std::string::npos || (name.substr(dot) != ".json" && name.substr(dot) != ".yaml"))
        continue;
      const std::string path = std::string(directory) + "/" + name;
      std::ifstream in(path);
      std::ostringstream text;
      text << in.rdbuf();
      if (text.str().find(file) != std::string::npos) found.push_back(path);
    }
  }
  return found;
}

}  // namespace vdxctl
