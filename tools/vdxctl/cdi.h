// A Container Device Interface file of the configured virtual devices: one CDI
// device per virtual device, and "all" for every virtual device at once. Each gives the
// container the driver's device node and the virtual device's configuration file, read-only,
// where the library in the container looks for it (/etc/vdev/docker).
//
// A container cannot be given virtual devices that share their device's units (0 units, run
// as a group) together with ones that have units of their own: when the host has both,
// "all" is replaced by "all-units" and "all-shared", one for each kind.
#ifndef ZOVDX_TOOLS_VDXCTL_CDI_H_
#define ZOVDX_TOOLS_VDXCTL_CDI_H_

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vdxctl {

inline constexpr char kCdiKind[] = "zovdx.dev/vdev";

struct CdiVdev {
  int id = 0;
  bool shares_units = false;  // 0 units of its own
};

// The CDI file of a non-empty list of virtual devices (a CDI file must name at least
// one device), its cdiVersion the lowest whose features it uses.
nlohmann::json CdiDocument(const std::vector<CdiVdev>& vdevs);

// The lowest CDI version that has every feature the file uses: 0.3.0 for device
// nodes by path and bind mounts; 0.4.0 for a mount type; 0.5.0 for a device node's host path;
// 0.6.0 for annotations or a dot in the kind's name; 0.7.0 for intelRdt or additional gids.
// Older engines read only the versions they know, so no file claims more than it needs.
std::string MinimumCdiVersion(const nlohmann::json& cdi);

// The CDI files in the engines' directories (/etc/cdi, /var/run/cdi) that hand the
// configuration file of virtual device `id` to containers. A container holds that file as
// it was when it started (a bind mount keeps the replaced file), so a change reaches only
// the containers started after it.
std::vector<std::string> CdiFilesHandingOut(int id);

}  // namespace vdxctl

#endif  // ZOVDX_TOOLS_VDXCTL_CDI_H_
