// Which pod holds which virtual device, passed from vdx-device-plugin (which asks the
// kubelet's pod resources API) to vdxd (which labels its metrics with it) through one small
// file, "/run/zovdx/pods": a line per virtual device, "vdev<N>\t<namespace>\t<pod>\t<container>".
//
// vdxd runs as root and reads what the plugin wrote, so the file is trusted only as root's:
// a regular file owned by root that nobody else may write, at most 64 KiB, written within
// the last 30 seconds (the plugin rewrites it every few seconds and removes it at exit, so
// an older file is one it left behind). Anything else reads as no pods at all.
#ifndef ZOVDX_TOOLS_COMMON_POD_MAP_H_
#define ZOVDX_TOOLS_COMMON_POD_MAP_H_

#include <map>
#include <string>

namespace vdxtool {

inline constexpr char kPodMapPath[] = "/run/zovdx/pods";

struct PodRef {
  std::string namespace_name;
  std::string pod;
  std::string container;
  bool operator==(const PodRef& o) const {
    return namespace_name == o.namespace_name && pod == o.pod && container == o.container;
  }
};

using PodMap = std::map<int, PodRef>;  // by virtual device id

std::string FormatPodMap(const PodMap& pods);
// Lines that do not parse are skipped.
PodMap ParsePodMap(const std::string& text);

// Replaces the file whole (0644). False with *error.
bool WritePodMap(const std::string& path, const PodMap& pods, std::string* error);
// The map, or an empty one when the file is missing, stale or not trusted (*why says which,
// "" when it is simply missing).
PodMap ReadPodMap(const std::string& path, std::string* why);

}  // namespace vdxtool

#endif  // ZOVDX_TOOLS_COMMON_POD_MAP_H_
