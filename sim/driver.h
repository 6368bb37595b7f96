// The simulated kernel driver: every piece of state that "/dev/mkfd" keeps (instances,
// groups, per-connection run modes, busy units, registers, ...) and the handling of each
// request code against it. Single-threaded and free of system calls, so that the same
// requests always give the same state; the daemon feeds it and mirrors it into sysfs.
#ifndef VDX_SIM_DRIVER_H_
#define VDX_SIM_DRIVER_H_

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sim/machine.h"

namespace vdxsim {

constexpr uint32_t kMaxPipes = 4;         // vgpu ids 0..3 per device
constexpr uint32_t kMaxMaskBits = 256;    // the widest unit mask the driver accepts
constexpr uint32_t kUnitsPerEngine = 16;  // compute units per shader engine
constexpr uint32_t kMaxVmid = 16;
using Words = std::array<uint32_t, 8>;

struct Instance {
  uint32_t gpu_id = 0;
  uint32_t vgpu_id = 0;
  uint64_t group_id = 0;
  uint64_t indentifier = 0;
  uint64_t vram_limit = 0;
  uint64_t vram_usage = 0;
  uint32_t refcount = 1;
  uint32_t mask_bits = 0;
  Words mask{};
};

struct Group {
  uint64_t indentifier = 0;
  uint64_t group_id = 0;
  uint64_t vram_limit = 0;             // limit on every device until updated
  std::map<uint32_t, uint64_t> limits;  // per gpu id, after an update
  std::map<uint32_t, uint64_t> usage;   // per gpu id
  uint32_t refcount = 1;
  uint64_t LimitOn(uint32_t gpu_id) const;
  uint64_t UsageOn(uint32_t gpu_id) const;
};

struct Gpu {
  uint32_t node = 0;  // sysfs node number
  uint32_t gpu_id = 0;
  uint32_t cu_count = 0;
  uint64_t vram_bytes = 0;
  Words busy{};
  uint16_t decoders = 0, encoders = 0, busy_decoders = 0, busy_encoders = 0;
  std::optional<uint64_t> available;  // set by control; otherwise derived
  std::map<uint64_t, uint32_t> regs;
  std::array<uint16_t, kMaxVmid> pasid{};
};

enum RunMode : uint32_t { kModeNone = 0, kModeGroup = 1, kModeVgpu = 2 };

struct Connection {
  uint64_t id = 0;
  int32_t pid = 0;
  RunMode mode = kModeNone;
  uint64_t group = 0;                      // group identifier in group mode
  std::map<uint32_t, uint32_t> pipe_sets;  // gpu id -> attached pipes in vgpu mode
};

// What a request returns besides its record.
struct IoctlOutput {
  std::vector<uint32_t> mask;   // words for the caller's mask pointer
  std::vector<uint8_t> data;    // bytes for the caller's buffer
  bool service_socket = false;  // the caller is to be handed a socket to the manager service
};

// The memory a request points at, as the caller's side could read it.
struct IoctlInput {
  const uint32_t* mask = nullptr;
  size_t mask_words = 0;
  bool mask_fault = false;    // the mask pointer could not be read
  bool record_fault = false;  // the record pointer could not be read
  size_t data_limit = 0;    // how many bytes the reply may carry for the caller's buffer
};

class Driver {
 public:
  explicit Driver(const Machine& machine);

  // A new connection (an open of the device). Returns 0 and sets *err when an injected
  // open fault fires.
  uint64_t Open(int32_t pid, int* err);
  void Close(uint64_t conn);
  bool HasConnection(uint64_t conn) const { return conns_.count(conn) != 0; }

  // One request. *record holds the caller's record and receives the driver's copy.
  // Returns 0 or the errno that the caller sees.
  int Ioctl(uint64_t conn, uint32_t code, std::vector<uint8_t>* record, const IoctlInput& in,
            IoctlOutput* out);

  // Control. Each returns an empty string or the reason for refusing.
  std::string SetBusy(uint32_t gpu_id, const Words& words);
  std::string SetInstanceUsage(uint32_t gpu_id, uint32_t vgpu, uint64_t bytes);
  std::string SetInstanceRefcount(uint32_t gpu_id, uint32_t vgpu, uint32_t count);
  std::string SetGroupUsage(uint64_t indentifier, uint32_t gpu_id, uint64_t bytes);
  std::string SetGroupRefcount(uint64_t indentifier, uint32_t count);
  std::string SetAvailable(uint32_t gpu_id, std::optional<uint64_t> bytes);
  std::string SetCodec(uint32_t gpu_id, bool decoder, uint16_t busy, std::optional<uint16_t> total);
  std::string SetPasid(uint32_t gpu_id, uint32_t vmid, uint16_t pasid);
  // command: a name from CommandNames() or "open"; count 0 clears that command's fault.
  std::string InjectFault(const std::string& command, int err, uint32_t count);
  void ClearFaults() { faults_.clear(); }
  // Whether a forked child may use a descriptor it inherited (true), or gets EBADF for
  // it, as a driver that binds a descriptor to the process that opened it does.
  void set_inherited_usable(bool usable) { inherited_usable_ = usable; }
  bool inherited_usable() const { return inherited_usable_; }
  static std::vector<std::string> CommandNames();

  // Stable text of the whole state, for people and tests.
  std::string Dump() const;

  const std::map<std::pair<uint32_t, uint32_t>, Instance>& instances() const { return instances_; }
  const std::map<uint64_t, Group>& groups() const { return groups_; }
  const std::vector<Gpu>& gpus() const { return gpus_; }
  uint64_t AvailableOn(const Gpu& gpu) const;

 private:
  struct Fault {
    int err = 0;
    uint32_t remaining = 0;
  };
  Gpu* FindGpu(uint32_t gpu_id);
  Instance* FindInstance(uint32_t gpu_id, uint32_t vgpu);
  bool TakeFault(const std::string& command, int* err);
  void Detach(Connection* c);
  void Attach(Connection* c);

  int SetProcessMode(Connection* c, std::vector<uint8_t>* rec);
  int CreateVgpu(std::vector<uint8_t>* rec, const IoctlInput& in);
  int DestroyVgpu(std::vector<uint8_t>* rec);
  int UpdateVgpu(std::vector<uint8_t>* rec, const IoctlInput& in);
  int CreateGroup(std::vector<uint8_t>* rec);
  int DestroyGroup(std::vector<uint8_t>* rec);
  int QueryGroup(std::vector<uint8_t>* rec);
  int QueryGroupById(std::vector<uint8_t>* rec);
  int UpdateGroup(std::vector<uint8_t>* rec);
  int QueryVgpu(std::vector<uint8_t>* rec, IoctlOutput* out);
  int QueryVgpuSe(std::vector<uint8_t>* rec, const IoctlInput& in);
  int WaveInfo(std::vector<uint8_t>* rec, const IoctlInput& in, IoctlOutput* out);
  int CuBusy(std::vector<uint8_t>* rec);
  int AvailableMem(std::vector<uint8_t>* rec);
  int VmidPasid(std::vector<uint8_t>* rec);
  int RegsOp(std::vector<uint8_t>* rec);
  int CodecBusy(std::vector<uint8_t>* rec);

  std::vector<Gpu> gpus_;
  std::map<std::pair<uint32_t, uint32_t>, Instance> instances_;  // (gpu id, vgpu id)
  std::map<uint64_t, Group> groups_;                              // by owner identifier
  std::map<uint64_t, Connection> conns_;
  std::map<std::string, Fault> faults_;
  uint64_t next_conn_ = 1;
  bool inherited_usable_ = true;
};

// Per-engine words of a unit mask: unit n is bit n % 16 of word n / 16.
Words EngineMask(const Words& units);

}  // namespace vdxsim

#endif  // VDX_SIM_DRIVER_H_
