// The machine description: which nodes the simulated host has (in sysfs order), their
// properties and memory banks, and the initial state of the world around the driver.
// Parsed from a small line-oriented text (see docs/simulator.md) or taken from the
// built-in default. Pure data; nothing here touches the system.
#ifndef VDX_SIM_MACHINE_H_
#define VDX_SIM_MACHINE_H_

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace vdxsim {

struct Property {
  std::string key;
  uint64_t value = 0;
};

struct MemBank {
  std::vector<Property> props;  // written in this order to mem_banks/B/properties
};

// Heap type of a public frame-buffer bank: the one whose size is the device's memory.
constexpr uint64_t kHeapFrameBufferPublic = 1;

struct Node {
  uint32_t gpu_id = 0;  // 0 for a CPU node
  std::vector<Property> props;
  std::vector<MemBank> banks;
  std::array<uint32_t, 8> busy{};  // initial busy units, one word per shader engine
  uint32_t decoders = 0;
  uint32_t encoders = 0;

  bool IsGpu() const { return gpu_id != 0; }
  // Value of the first property named key, or def.
  uint64_t Prop(const std::string& key, uint64_t def = 0) const;
  // Compute units: SIMDs divided by SIMDs per unit (0 when unknown).
  uint32_t CuCount() const;
  // Size of the last public frame-buffer bank, as the topology reader picks it.
  uint64_t VramBytes() const;
};

struct Machine {
  std::vector<Node> nodes;        // sysfs order: node N is topology/nodes/N
  int32_t system_mode = 0;        // what the manager service reports (0 none, 1 mig)
  std::string module_state = "live";  // text of the module state file; "absent": no file
};

// Parses a description. On failure returns false and sets *error to "line N: reason";
// *out is then unspecified.
bool ParseMachine(const std::string& text, Machine* out, std::string* error);

// The built-in description: one CPU node and two accelerators.
const std::string& DefaultMachineText();

}  // namespace vdxsim

#endif  // VDX_SIM_MACHINE_H_
