#include "tools/vdx-device-plugin/inventory.h"

#include <algorithm>

#include "tools/common/vdx_view.h"
#include "zovdx/vdx.h"

namespace vdxplugin {

std::string ResourceFor(Strategy strategy, int units, long long memory_mib) {
  if (strategy == Strategy::kSingle) return kSingleResource;
  const std::string size = std::to_string(memory_mib) + "mib";
  return std::string(kDomain) + "/vdev-" +
         (units == 0 ? "shared-" + size : std::to_string(units) + "cu-" + size);
}

bool Scan(Strategy strategy, std::vector<PluginDevice>* devices, std::string* error) {
  devices->clear();
  int accelerators = 0;
  vdxStatus status = vdxGetDeviceCount(&accelerators);
  if (status != VDX_STATUS_SUCCESS) {
    *error = "the library cannot count the accelerators: " + vdxtool::StatusText(status);
    return false;
  }
  std::vector<vdxtool::VdevView> vdevs;
  std::vector<vdxtool::UnusableVdev> unusable;
  status = vdxtool::ListVdevs(&vdevs, &unusable);
  if (status != VDX_STATUS_SUCCESS) {
    *error = "the library cannot list the virtual devices: " + vdxtool::StatusText(status);
    return false;
  }
  for (const vdxtool::VdevView& v : vdevs) {
    PluginDevice d;
    d.vdev = v.id;
    d.device = v.device;
    d.units = v.units;
    d.memory_mib = static_cast<long long>(v.memory_limit_bytes >> 20);
    d.healthy = v.started && v.device >= 0 && v.device < accelerators;
    d.resource = ResourceFor(strategy, d.units, d.memory_mib);
    devices->push_back(d);
  }
  // A file the library cannot use keeps its place, unhealthy, under the single resource
  // (its shape is unknown); with mixed resources it has no shape to be offered under.
  if (strategy == Strategy::kSingle) {
    for (const vdxtool::UnusableVdev& u : unusable) {
      PluginDevice d;
      d.vdev = u.id;
      d.resource = kSingleResource;
      devices->push_back(d);
    }
  }
  std::sort(devices->begin(), devices->end(),
            [](const PluginDevice& a, const PluginDevice& b) { return a.vdev < b.vdev; });
  return true;
}

std::string WhyNotTogether(const std::vector<const PluginDevice*>& devices) {
  const bool sharing = std::any_of(devices.begin(), devices.end(),
                                   [](const PluginDevice* d) { return d->Shares(); });
  const bool holding = std::any_of(devices.begin(), devices.end(),
                                   [](const PluginDevice* d) { return !d->Shares(); });
  if (sharing && holding)
    return "virtual devices that share their accelerator's units cannot be given to a "
           "container together with virtual devices that hold units of their own: the "
           "library in the container would refuse to start";
  return "";
}

}  // namespace vdxplugin
