// Containers inside a sandbox (vdx-sim --containers): what a container engine on the
// simulated host needs to hand the simulated machine to a container. The device node
// "/dev/mkfd" exists (an engine looks at the host's node before it adds it to a container),
// and a CDI file of kind "vdx-sim.zovdx.dev/machine" carries everything else a
// container needs to reach the simulator: its driver tree, its module state file and the
// preload library that stands in for the device.
#ifndef VDX_SIM_CONTAINERS_H_
#define VDX_SIM_CONTAINERS_H_

#include <string>

namespace vdxsim {

// The CDI name a container engine is given, and the file that defines it.
inline constexpr char kMachineCdiName[] = "vdx-sim.zovdx.dev/machine=sim";
inline constexpr char kMachineCdiFile[] = "/etc/cdi/vdx-sim.json";
// Where the preload library appears inside a container.
inline constexpr char kContainerPreload[] = "/usr/lib/vdx-sim/libvdxsim_preload.so";

// In the sandbox's mount namespace, before its private /tmp hides `store` (a directory on a
// file system of the sandbox's own): an overlay over /dev, its writes kept under `store`,
// with the node "/dev/mkfd". The host's /dev is not touched. "" or what failed.
std::string MakeDeviceNode(const std::string& store);

// Writes kMachineCdiFile (under the sandbox's private /etc) for a preload library at
// `preload`. "" or what failed.
std::string WriteMachineCdi(const std::string& preload);

// The CDI document itself.
std::string MachineCdi(const std::string& preload);

}  // namespace vdxsim

#endif  // VDX_SIM_CONTAINERS_H_
