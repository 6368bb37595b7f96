// A Container Device Interface specification of the configured virtual devices: one CDI
// device per virtual device, and "all". Each gives the container the driver's device node and
// the virtual device's configuration file, read-only, where the library in the container
// looks for it (/etc/vdev/docker).
#ifndef ZOVDX_TOOLS_VDXCTL_CDI_H_
#define ZOVDX_TOOLS_VDXCTL_CDI_H_

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vdxctl {

inline constexpr char kCdiKind[] = "zovdx.dev/vdev";

nlohmann::json CdiSpec(const std::vector<int>& vdev_ids);

}  // namespace vdxctl

#endif  // ZOVDX_TOOLS_VDXCTL_CDI_H_
