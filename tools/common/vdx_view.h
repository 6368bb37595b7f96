// What the host tools show, gathered through the library's public interface only: the
// devices with what is left of them and their busy share, and the configured virtual devices
// with their usage, started state and busy share. A virtual device's pipe comes from its
// configuration file, whose format is documented; everything else from the library.
#ifndef ZOVDX_TOOLS_COMMON_VDX_VIEW_H_
#define ZOVDX_TOOLS_COMMON_VDX_VIEW_H_

#include <cstdint>
#include <string>
#include <vector>

#include "zovdx/vdx.h"

namespace vdxtool {

struct DeviceView {
  int index = 0;
  std::string name;
  int units = 0;
  uint64_t memory_bytes = 0;
  uint64_t used_bytes = 0;
  bool has_remaining = false;  // not answered inside a container on virtual devices
  uint64_t remaining_units = 0;
  uint64_t remaining_bytes = 0;
  bool has_busy = false;  // not answered under the mode that excludes virtualization
  int busy_percent = 0;
};

struct VdevView {
  int id = 0;
  int device = 0;
  std::string device_name;
  int units = 0;
  uint64_t memory_limit_bytes = 0;
  uint64_t used_bytes = 0;
  uint64_t container = 0;
  int pipe = -1;         // -1: the file could not be read
  bool started = false;  // the driver has its instance
  bool has_busy = false;
  int busy_percent = 0;
};

// The library's text for a status ("unknown status N" for one it does not know).
std::string StatusText(vdxStatus status);

// A configured virtual device that the library cannot use (its file is damaged, disabled, not
// a regular file, names no device here...): its id and the status its query gave.
struct UnusableVdev {
  int id = 0;
  vdxStatus status = VDX_STATUS_ERROR;
};

// Fill the views. A failing count is returned; a detail a device cannot answer is left unset.
// One unusable virtual device never hides the others: it is left out of *vdevs and, when
// unusable is given, named there.
vdxStatus ListDevices(std::vector<DeviceView>* devices);
vdxStatus ListVdevs(std::vector<VdevView>* vdevs, std::vector<UnusableVdev>* unusable = nullptr);

// The pipe written in /etc/vdev/vdev<id>.conf, or -1.
int PipeOf(int id);

}  // namespace vdxtool

#endif  // ZOVDX_TOOLS_COMMON_VDX_VIEW_H_
