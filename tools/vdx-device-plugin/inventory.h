// What the device plugin offers: one device per configured virtual device ("vdev<N>"), with
// its health, and the resource it is offered under. Gathered through the library's public
// interface, like every tool.
//
// A device is healthy while its virtual device is configured and usable, its accelerator is
// present and its driver instance runs (vdxd keeps instances running). A configured virtual
// device whose file the library cannot use is offered as unhealthy rather than dropped, so
// the kubelet sees it fail and recover instead of vanish and reappear.
#ifndef ZOVDX_TOOLS_DEVICE_PLUGIN_INVENTORY_H_
#define ZOVDX_TOOLS_DEVICE_PLUGIN_INVENTORY_H_

#include <string>
#include <vector>

namespace vdxplugin {

enum class Strategy { kSingle, kMixed };

inline constexpr char kDomain[] = "zovdx.dev";
inline constexpr char kSingleResource[] = "zovdx.dev/vdev";

struct PluginDevice {
  int vdev = 0;
  int device = -1;         // its accelerator; -1 when unknown (unusable file)
  int units = 0;           // 0: it shares its accelerator's units
  long long memory_mib = 0;
  bool healthy = false;
  std::string resource;    // the resource it is offered under

  std::string Id() const { return "vdev" + std::to_string(vdev); }
  bool Shares() const { return units == 0; }
  bool operator==(const PluginDevice& o) const {
    return vdev == o.vdev && device == o.device && units == o.units &&
           memory_mib == o.memory_mib && healthy == o.healthy && resource == o.resource;
  }
};

// The resource a virtual device is offered under. Single: zovdx.dev/vdev for all. Mixed: one
// per shape, "zovdx.dev/vdev-<units>cu-<memory>mib", or "zovdx.dev/vdev-shared-<memory>mib"
// for one that shares its accelerator's units: at most 34 characters after the domain, within
// Kubernetes' 63 for a name, made of lower-case letters, digits and dashes.
std::string ResourceFor(Strategy strategy, int units, long long memory_mib);

// Every configured virtual device, by id. False when the library cannot be asked at all
// (*error says why); a single bad file only makes its device unhealthy.
bool Scan(Strategy strategy, std::vector<PluginDevice>* devices, std::string* error);

// Why these devices cannot be given to one container together ("" when they can): the
// library in a container refuses virtual devices that share units beside ones that hold
// their own.
std::string WhyNotTogether(const std::vector<const PluginDevice*>& devices);

}  // namespace vdxplugin

#endif  // ZOVDX_TOOLS_DEVICE_PLUGIN_INVENTORY_H_
