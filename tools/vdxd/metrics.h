// The Prometheus text exposition of vdxd: one gauge family per quantity, each with HELP and
// TYPE, labels for the device index and name, the virtual device id and its container.
#ifndef ZOVDX_TOOLS_VDXD_METRICS_H_
#define ZOVDX_TOOLS_VDXD_METRICS_H_

#include <string>
#include <vector>

#include "tools/common/pod_map.h"
#include "tools/common/vdx_view.h"

namespace vdxd {

// unusable: how many configured virtual devices the library cannot use (bad files);
// build_version: vdxd's version, for vdx_build_info; pods: the pod, namespace and container
// (Kubernetes') that hold a virtual device, as labels of its series.
std::string RenderMetrics(const std::vector<vdxtool::DeviceView>& devices,
                          const std::vector<vdxtool::VdevView>& vdevs, size_t unusable,
                          const std::string& build_version, const vdxtool::PodMap& pods = {});

}  // namespace vdxd

#endif  // ZOVDX_TOOLS_VDXD_METRICS_H_
