#include "sim/driver.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "mkfd/include/mkfd_ioctl.h"

namespace vdxsim {
namespace {

struct CommandName {
  uint32_t code;
  const char* name;
};

const CommandName kCommands[] = {
    {MKFD_IOC_SET_PROCESS_MODE, "set-mode"},
    {MKFD_IOC_CREATE_VGPU, "create-vgpu"},
    {MKFD_IOC_DESTROY_VGPU, "destroy-vgpu"},
    {MKFD_IOC_UPDATE_VGPU, "update-vgpu"},
    {MKFD_IOC_CREATE_GROUP, "create-group"},
    {MKFD_IOC_DESTROY_GROUP, "destroy-group"},
    {MKFD_IOC_QUERY_GROUP_INFO, "query-group"},
    {MKFD_IOC_QUERY_VGPU_INFO, "query-vgpu"},
    {MKFD_IOC_QUERY_GROUP_INFO_BY_ID, "query-group-by-id"},
    {MKFD_IOC_UPDATE_GROUP, "update-group"},
    {MKFD_IOC_GET_WAVE_INFO, "wave-info"},
    {MKFD_IOC_GET_CU_BUSY, "cu-busy"},
    {MKFD_IOC_GET_AVAILABLE_MEM, "available-mem"},
    {MKFD_IOC_CREATE_ZOUDS_CONN, "service-socket"},
    {MKFD_IOC_VMID_PASID_MAPPING, "vmid-pasid"},
    {MKFD_IOC_REGS_OP, "regs"},
    {MKFD_IOC_QUERY_VGPU_SE_INFO, "query-vgpu-se"},
    {MKFD_IOC_GET_CODEC_BUSY, "codec-busy"},
};

const char* NameOf(uint32_t code) {
  for (const auto& c : kCommands) {
    if (c.code == code) return c.name;
  }
  return nullptr;
}

template <class T>
T Load(const std::vector<uint8_t>& rec) {
  T value;
  std::memcpy(&value, rec.data(), sizeof(T));
  return value;
}

template <class T>
void Store(std::vector<uint8_t>* rec, const T& value) {
  std::memcpy(rec->data(), &value, sizeof(T));
}

// The caller's mask as the driver reads it: num_bits bits, the rest of the last word
// ignored. Fails with EINVAL for an empty or oversized mask, EFAULT when unreadable.
int ReadMask(uint32_t num_bits, const IoctlInput& in, Words* mask) {
  if (num_bits == 0 || num_bits > kMaxMaskBits) return EINVAL;
  size_t words = (num_bits + 31) / 32;
  if (in.mask_fault || in.mask_words < words) return EFAULT;
  mask->fill(0);
  for (size_t i = 0; i < words; ++i) (*mask)[i] = in.mask[i];
  if (num_bits % 32 != 0) (*mask)[words - 1] &= (1u << (num_bits % 32)) - 1;
  return 0;
}

bool FitsDevice(const Words& mask, uint32_t cu_count) {
  for (uint32_t bit = cu_count; bit < kMaxMaskBits; ++bit) {
    if (mask[bit / 32] & (1u << (bit % 32))) return false;
  }
  return true;
}

std::string Hex(uint64_t v) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
  return buf;
}

std::string WordsText(const Words& w) {
  std::string s;
  for (size_t i = 0; i < w.size(); ++i) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%s0x%08x", i ? " " : "", w[i]);
    s += buf;
  }
  return s;
}

// One wave of a dump: where it runs and where it is. With gpr set, sixteen vector
// registers follow each wave.
struct WaveRecord {
  uint32_t se;
  uint32_t cu;
  uint32_t simd;
  uint32_t wave;
  uint32_t status;
  uint32_t pad;
  uint64_t pc;
};
constexpr size_t kWaveGprs = 16;

}  // namespace

Words EngineMask(const Words& units) {
  Words se{};
  // Eight engines of sixteen units: units past 128 belong to no engine.
  for (uint32_t n = 0; n < se.size() * kUnitsPerEngine; ++n) {
    if (units[n / 32] & (1u << (n % 32))) se[n / kUnitsPerEngine] |= 1u << (n % kUnitsPerEngine);
  }
  return se;
}

uint64_t Group::LimitOn(uint32_t gpu_id) const {
  auto it = limits.find(gpu_id);
  return it == limits.end() ? vram_limit : it->second;
}

uint64_t Group::UsageOn(uint32_t gpu_id) const {
  auto it = usage.find(gpu_id);
  return it == usage.end() ? 0 : it->second;
}

Driver::Driver(const Machine& machine) {
  for (uint32_t i = 0; i < machine.nodes.size(); ++i) {
    const Node& n = machine.nodes[i];
    if (!n.IsGpu()) continue;
    Gpu g;
    g.node = i;
    g.gpu_id = n.gpu_id;
    g.cu_count = n.CuCount();
    if (g.cu_count > kMaxMaskBits) g.cu_count = kMaxMaskBits;
    g.vram_bytes = n.VramBytes();
    g.busy = n.busy;
    g.decoders = static_cast<uint16_t>(n.decoders);
    g.encoders = static_cast<uint16_t>(n.encoders);
    gpus_.push_back(g);
  }
}

std::vector<std::string> Driver::CommandNames() {
  std::vector<std::string> names;
  for (const auto& c : kCommands) names.push_back(c.name);
  return names;
}

Gpu* Driver::FindGpu(uint32_t gpu_id) {
  for (auto& g : gpus_) {
    if (g.gpu_id == gpu_id) return &g;
  }
  return nullptr;
}

Instance* Driver::FindInstance(uint32_t gpu_id, uint32_t vgpu) {
  auto it = instances_.find({gpu_id, vgpu});
  return it == instances_.end() ? nullptr : &it->second;
}

uint64_t Driver::AvailableOn(const Gpu& gpu) const {
  if (gpu.available) return *gpu.available;
  uint64_t used = 0;
  for (const auto& [key, inst] : instances_) {
    if (key.first != gpu.gpu_id) continue;
    used = inst.vram_limit > UINT64_MAX - used ? UINT64_MAX : used + inst.vram_limit;
  }
  return used >= gpu.vram_bytes ? 0 : gpu.vram_bytes - used;
}

bool Driver::TakeFault(const std::string& command, int* err) {
  auto it = faults_.find(command);
  if (it == faults_.end()) return false;
  *err = it->second.err;
  if (--it->second.remaining == 0) faults_.erase(it);
  return true;
}

uint64_t Driver::Open(int32_t pid, int* err) {
  if (TakeFault("open", err)) return 0;
  Connection c;
  c.id = next_conn_++;
  c.pid = pid;
  conns_[c.id] = c;
  *err = 0;
  return c.id;
}

void Driver::Close(uint64_t conn) {
  auto it = conns_.find(conn);
  if (it == conns_.end()) return;
  Detach(&it->second);
  conns_.erase(it);
}

// A process attached to a group or to instances holds a reference on each, as long as
// its connection stays in that mode.
void Driver::Detach(Connection* c) {
  if (c->mode == kModeGroup) {
    auto g = groups_.find(c->group);
    if (g != groups_.end() && g->second.refcount > 0) --g->second.refcount;
  }
  for (const auto& [gpu, pipes] : c->pipe_sets) {
    for (uint32_t p = 0; p < kMaxPipes; ++p) {
      Instance* inst = (pipes & (1u << p)) ? FindInstance(gpu, p) : nullptr;
      if (inst != nullptr && inst->refcount > 0) --inst->refcount;
    }
  }
  c->mode = kModeNone;
  c->group = 0;
  c->pipe_sets.clear();
}

void Driver::Attach(Connection* c) {
  if (c->mode == kModeGroup) ++groups_[c->group].refcount;
  for (const auto& [gpu, pipes] : c->pipe_sets) {
    for (uint32_t p = 0; p < kMaxPipes; ++p) {
      if (pipes & (1u << p)) ++FindInstance(gpu, p)->refcount;
    }
  }
}

int Driver::Ioctl(uint64_t conn, uint32_t code, std::vector<uint8_t>* rec, const IoctlInput& in,
                  IoctlOutput* out) {
  auto c = conns_.find(conn);
  if (c == conns_.end()) return EBADF;
  const char* name = NameOf(code);
  if (name == nullptr) return EINVAL;
  if (in.record_fault) return EFAULT;
  if (rec->size() != _IOC_SIZE(code)) return EINVAL;
  int err = 0;
  if (TakeFault(name, &err)) return err;
  switch (code) {
    case MKFD_IOC_SET_PROCESS_MODE: return SetProcessMode(&c->second, rec);
    case MKFD_IOC_CREATE_VGPU: return CreateVgpu(rec, in);
    case MKFD_IOC_DESTROY_VGPU: return DestroyVgpu(rec);
    case MKFD_IOC_UPDATE_VGPU: return UpdateVgpu(rec, in);
    case MKFD_IOC_CREATE_GROUP: return CreateGroup(rec);
    case MKFD_IOC_DESTROY_GROUP: return DestroyGroup(rec);
    case MKFD_IOC_QUERY_GROUP_INFO: return QueryGroup(rec);
    case MKFD_IOC_QUERY_VGPU_INFO: return QueryVgpu(rec, out);
    case MKFD_IOC_QUERY_GROUP_INFO_BY_ID: return QueryGroupById(rec);
    case MKFD_IOC_UPDATE_GROUP: return UpdateGroup(rec);
    case MKFD_IOC_GET_WAVE_INFO: return WaveInfo(rec, in, out);
    case MKFD_IOC_GET_CU_BUSY: return CuBusy(rec);
    case MKFD_IOC_GET_AVAILABLE_MEM: return AvailableMem(rec);
    case MKFD_IOC_CREATE_ZOUDS_CONN: out->service_socket = true; return 0;
    case MKFD_IOC_VMID_PASID_MAPPING: return VmidPasid(rec);
    case MKFD_IOC_REGS_OP: return RegsOp(rec);
    case MKFD_IOC_QUERY_VGPU_SE_INFO: return QueryVgpuSe(rec, in);
    case MKFD_IOC_GET_CODEC_BUSY: return CodecBusy(rec);
  }
  return EINVAL;
}

int Driver::SetProcessMode(Connection* c, std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_set_process_mode_args>(*rec);
  if (a.mode > kModeVgpu || FindGpu(a.gpu_id) == nullptr) return EINVAL;
  if (a.mode == kModeGroup && groups_.count(a.indentifier) == 0) return ENOENT;
  if (a.mode == kModeVgpu) {
    // In vgpu mode the identifier carries the set of pipes to run on, per device.
    if (a.indentifier == 0 || a.indentifier > 0xF) return EINVAL;
    for (uint32_t p = 0; p < kMaxPipes; ++p) {
      if ((a.indentifier & (1u << p)) && FindInstance(a.gpu_id, p) == nullptr) return ENOENT;
    }
  }
  Connection next = *c;
  Detach(c);
  c->mode = static_cast<RunMode>(a.mode);
  if (a.mode == kModeGroup) {
    c->group = a.indentifier;
  } else if (a.mode == kModeVgpu) {
    // Other devices keep their pipes when this one changes.
    if (next.mode == kModeVgpu) c->pipe_sets = next.pipe_sets;
    c->pipe_sets[a.gpu_id] = static_cast<uint32_t>(a.indentifier);
  }
  Attach(c);
  return 0;
}

int Driver::CreateVgpu(std::vector<uint8_t>* rec, const IoctlInput& in) {
  auto a = Load<mkfd_ioctl_create_vgpu_args>(*rec);
  Gpu* gpu = FindGpu(a.gpu_id);
  if (gpu == nullptr || a.vgpu_id >= kMaxPipes) return EINVAL;
  Words mask{};
  if (int err = ReadMask(a.num_cu_mask, in, &mask)) return err;
  if (FindInstance(a.gpu_id, a.vgpu_id) != nullptr) return EEXIST;
  if (!FitsDevice(mask, gpu->cu_count)) return EINVAL;
  Instance inst;
  inst.gpu_id = a.gpu_id;
  inst.vgpu_id = a.vgpu_id;
  inst.group_id = a.group_id;
  inst.indentifier = a.indentifier;
  inst.vram_limit = a.vram_limit;
  inst.mask_bits = a.num_cu_mask;
  inst.mask = mask;
  instances_[{a.gpu_id, a.vgpu_id}] = inst;
  return 0;
}

int Driver::DestroyVgpu(std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_destroy_vgpu_args>(*rec);
  if (FindGpu(a.gpu_id) == nullptr || a.vgpu_id >= kMaxPipes) return EINVAL;
  if (instances_.erase({a.gpu_id, a.vgpu_id}) == 0) return ENOENT;
  // Processes that ran on it lose it; their connections stay open.
  for (auto& [id, c] : conns_) {
    auto it = c.pipe_sets.find(a.gpu_id);
    if (it != c.pipe_sets.end()) it->second &= ~(1u << a.vgpu_id);
  }
  return 0;
}

int Driver::UpdateVgpu(std::vector<uint8_t>* rec, const IoctlInput& in) {
  auto a = Load<mkfd_ioctl_update_vgpu_args>(*rec);
  Gpu* gpu = FindGpu(a.gpu_id);
  if (a.type > MKFD_UPDATE_VGPU_CU_MASK || gpu == nullptr || a.vgpu_id >= kMaxPipes) return EINVAL;
  Instance* inst = FindInstance(a.gpu_id, a.vgpu_id);
  if (inst == nullptr) return ENOENT;
  if (a.type == MKFD_UPDATE_VGPU_VRAM_LIMIT) {
    inst->vram_limit = a.vram_limit;
    return 0;
  }
  Words mask{};
  if (int err = ReadMask(a.num_cu_mask, in, &mask)) return err;
  if (!FitsDevice(mask, gpu->cu_count)) return EINVAL;
  inst->mask = mask;
  inst->mask_bits = a.num_cu_mask;
  return 0;
}

int Driver::CreateGroup(std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_create_group_args>(*rec);
  if (groups_.count(a.indentifier) != 0) return EBUSY;
  Group g;
  g.indentifier = a.indentifier;
  g.group_id = a.group_id;
  g.vram_limit = a.vram_limit;
  groups_[a.indentifier] = g;
  return 0;
}

int Driver::DestroyGroup(std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_destroy_group_args>(*rec);
  if (groups_.erase(a.indentifier) == 0) return ENOENT;
  for (auto& [id, c] : conns_) {
    if (c.mode == kModeGroup && c.group == a.indentifier) {
      c.mode = kModeNone;
      c.group = 0;
    }
  }
  return 0;
}

int Driver::QueryGroup(std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_query_group_info_args>(*rec);
  if (FindGpu(a.gpu_id) == nullptr) return EINVAL;
  auto it = groups_.find(a.indentifier);
  // A missing group is an answer, not an error.
  a.result = it != groups_.end();
  a.vram_limit = a.result ? it->second.LimitOn(a.gpu_id) : 0;
  a.vram_usage = a.result ? it->second.UsageOn(a.gpu_id) : 0;
  a.refcount = a.result ? it->second.refcount : 0;
  Store(rec, a);
  return 0;
}

int Driver::QueryGroupById(std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_query_group_info_by_id_args>(*rec);
  if (FindGpu(a.gpu_id) == nullptr) return EINVAL;
  a.result = 0;
  a.indentifier = a.vram_limit = a.vram_usage = 0;
  for (const auto& [ident, g] : groups_) {
    if (g.group_id != a.group_id) continue;
    a.result = 1;
    a.indentifier = ident;
    a.vram_limit = g.LimitOn(a.gpu_id);
    a.vram_usage = g.UsageOn(a.gpu_id);
    break;
  }
  Store(rec, a);
  return 0;
}

int Driver::UpdateGroup(std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_update_group_args>(*rec);
  if (FindGpu(a.gpu_id) == nullptr) return EINVAL;
  auto it = groups_.find(a.indentifier);
  if (it == groups_.end()) return ENOENT;
  it->second.limits[a.gpu_id] = a.vram_limit;
  return 0;
}

int Driver::QueryVgpu(std::vector<uint8_t>* rec, IoctlOutput* out) {
  auto a = Load<mkfd_ioctl_query_vgpu_info_args>(*rec);
  if (FindGpu(a.gpu_id) == nullptr || a.vgpu_id >= kMaxPipes) return EINVAL;
  if (a.num_cu_mask > 32 * 32) return EINVAL;
  const Instance* inst = FindInstance(a.gpu_id, a.vgpu_id);
  if (inst == nullptr) return ENOENT;
  a.vram_limit = inst->vram_limit;
  a.vram_usage = inst->vram_usage;
  a.group_id = inst->group_id;
  a.indentifier = inst->indentifier;
  a.refcount = inst->refcount;
  Words se = EngineMask(inst->mask);
  std::memcpy(a.se_mask, se.data(), sizeof a.se_mask);
  // As many mask bits as the caller has room for, zero past the instance's own.
  out->mask.assign((a.num_cu_mask + 31) / 32, 0);
  for (size_t i = 0; i < out->mask.size() && i < inst->mask.size(); ++i) out->mask[i] = inst->mask[i];
  if (a.num_cu_mask % 32 != 0) out->mask.back() &= (1u << (a.num_cu_mask % 32)) - 1;
  Store(rec, a);
  return 0;
}

int Driver::QueryVgpuSe(std::vector<uint8_t>* rec, const IoctlInput& in) {
  auto a = Load<mkfd_ioctl_query_vgpu_se_info_args>(*rec);
  if (FindGpu(a.gpu_id) == nullptr || a.vgpu_id >= kMaxPipes) return EINVAL;
  const Instance* inst = FindInstance(a.gpu_id, a.vgpu_id);
  if (inst == nullptr) return ENOENT;
  // Without a mask of its own the caller learns the instance's engines.
  Words mask = inst->mask;
  if (a.num_cu_mask != 0) {
    if (int err = ReadMask(a.num_cu_mask, in, &mask)) return err;
  }
  Words se = EngineMask(mask);
  std::memcpy(a.se_mask, se.data(), sizeof a.se_mask);
  Store(rec, a);
  return 0;
}

int Driver::WaveInfo(std::vector<uint8_t>* rec, const IoctlInput& in, IoctlOutput* out) {
  auto a = Load<mkfd_ioctl_get_wave_info_args>(*rec);
  Gpu* gpu = FindGpu(a.gpu_id);
  if (gpu == nullptr || a.gpr > 1) return EINVAL;
  if (a.buffer == 0 && a.buffer_size != 0) return EFAULT;
  // One wave on every busy unit; the dump holds the whole waves that fit.
  size_t wave_size = sizeof(WaveRecord) + (a.gpr ? kWaveGprs * 4 : 0);
  uint64_t room = a.buffer_size < in.data_limit ? a.buffer_size : in.data_limit;
  a.wave_count = 0;
  for (uint32_t se = 0; se < 8; ++se) {
    for (uint32_t bit = 0; bit < kUnitsPerEngine; ++bit) {
      if (!(gpu->busy[se] & (1u << bit))) continue;
      if (out->data.size() + wave_size > room) break;
      uint32_t cu = se * kUnitsPerEngine + bit;
      WaveRecord w{se, cu, cu % 4, a.wave_count, 1, 0, 0x1000ull + cu * 0x100ull};
      const auto* bytes = reinterpret_cast<const uint8_t*>(&w);
      out->data.insert(out->data.end(), bytes, bytes + sizeof w);
      for (uint32_t r = 0; a.gpr && r < kWaveGprs; ++r) {
        uint32_t v = (cu << 16) | r;
        const auto* vb = reinterpret_cast<const uint8_t*>(&v);
        out->data.insert(out->data.end(), vb, vb + 4);
      }
      ++a.wave_count;
    }
  }
  Store(rec, a);
  return 0;
}

int Driver::CuBusy(std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_get_cu_busy_args>(*rec);
  Gpu* gpu = FindGpu(a.gpu_id);
  if (gpu == nullptr) return EINVAL;
  std::memcpy(a.se_mask, gpu->busy.data(), sizeof a.se_mask);
  Store(rec, a);
  return 0;
}

int Driver::AvailableMem(std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_get_available_mem_size_args>(*rec);
  Gpu* gpu = FindGpu(a.gpu_id);
  if (gpu == nullptr) return EINVAL;
  a.available = AvailableOn(*gpu);
  Store(rec, a);
  return 0;
}

int Driver::VmidPasid(std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_atc_vmid_pasid_mapping_info_args>(*rec);
  Gpu* gpu = FindGpu(a.gpu_id);
  if (gpu == nullptr || a.vmid >= kMaxVmid) return EINVAL;
  a.pasid = gpu->pasid[a.vmid];
  Store(rec, a);
  return 0;
}

int Driver::RegsOp(std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_regs_op_args>(*rec);
  Gpu* gpu = FindGpu(a.gpu_id);
  if (gpu == nullptr) return EINVAL;
  // Banked registers are distinct per bank; the rest share one copy.
  uint64_t key = a.reg;
  if (a.use_bank) {
    key |= (uint64_t{a.se_bank & 0xff} << 32) | (uint64_t{a.sh_bank & 0xff} << 40) |
           (uint64_t{a.instance_bank & 0xff} << 48) | (1ull << 63);
  }
  if (a.read) {
    auto it = gpu->regs.find(key);
    a.value = it == gpu->regs.end() ? 0 : it->second;
  } else {
    gpu->regs[key] = a.value;
  }
  Store(rec, a);
  return 0;
}

int Driver::CodecBusy(std::vector<uint8_t>* rec) {
  auto a = Load<mkfd_ioctl_get_codec_busy_args>(*rec);
  Gpu* gpu = FindGpu(a.gpu_id);
  if (gpu == nullptr) return EINVAL;
  a.total_instance = a.is_dec ? gpu->decoders : gpu->encoders;
  a.busy_instance = a.is_dec ? gpu->busy_decoders : gpu->busy_encoders;
  Store(rec, a);
  return 0;
}

std::string Driver::SetBusy(uint32_t gpu_id, const Words& words) {
  Gpu* gpu = FindGpu(gpu_id);
  if (gpu == nullptr) return "no accelerator with gpu id " + std::to_string(gpu_id);
  gpu->busy = words;
  return "";
}

std::string Driver::SetInstanceUsage(uint32_t gpu_id, uint32_t vgpu, uint64_t bytes) {
  Instance* inst = FindInstance(gpu_id, vgpu);
  if (inst == nullptr) return "no instance " + std::to_string(gpu_id) + "/" + std::to_string(vgpu);
  inst->vram_usage = bytes;
  return "";
}

std::string Driver::SetInstanceRefcount(uint32_t gpu_id, uint32_t vgpu, uint32_t count) {
  Instance* inst = FindInstance(gpu_id, vgpu);
  if (inst == nullptr) return "no instance " + std::to_string(gpu_id) + "/" + std::to_string(vgpu);
  inst->refcount = count;
  return "";
}

std::string Driver::SetGroupUsage(uint64_t indentifier, uint32_t gpu_id, uint64_t bytes) {
  auto it = groups_.find(indentifier);
  if (it == groups_.end()) return "no group " + Hex(indentifier);
  if (FindGpu(gpu_id) == nullptr) return "no accelerator with gpu id " + std::to_string(gpu_id);
  it->second.usage[gpu_id] = bytes;
  return "";
}

std::string Driver::SetGroupRefcount(uint64_t indentifier, uint32_t count) {
  auto it = groups_.find(indentifier);
  if (it == groups_.end()) return "no group " + Hex(indentifier);
  it->second.refcount = count;
  return "";
}

std::string Driver::SetAvailable(uint32_t gpu_id, std::optional<uint64_t> bytes) {
  Gpu* gpu = FindGpu(gpu_id);
  if (gpu == nullptr) return "no accelerator with gpu id " + std::to_string(gpu_id);
  gpu->available = bytes;
  return "";
}

std::string Driver::SetCodec(uint32_t gpu_id, bool decoder, uint16_t busy,
                             std::optional<uint16_t> total) {
  Gpu* gpu = FindGpu(gpu_id);
  if (gpu == nullptr) return "no accelerator with gpu id " + std::to_string(gpu_id);
  (decoder ? gpu->busy_decoders : gpu->busy_encoders) = busy;
  if (total) (decoder ? gpu->decoders : gpu->encoders) = *total;
  return "";
}

std::string Driver::SetPasid(uint32_t gpu_id, uint32_t vmid, uint16_t pasid) {
  Gpu* gpu = FindGpu(gpu_id);
  if (gpu == nullptr) return "no accelerator with gpu id " + std::to_string(gpu_id);
  if (vmid >= kMaxVmid) return "vmid is 0 to 15";
  gpu->pasid[vmid] = pasid;
  return "";
}

std::string Driver::InjectFault(const std::string& command, int err, uint32_t count) {
  bool known = command == "open";
  for (const auto& c : kCommands) known = known || command == c.name;
  if (!known) return "unknown command '" + command + "'";
  if (err <= 0) return "the errno must be positive";
  if (count == 0) {
    faults_.erase(command);
  } else {
    faults_[command] = Fault{err, count};
  }
  return "";
}

std::string Driver::Dump() const {
  std::ostringstream o;
  for (const auto& g : gpus_) {
    o << "gpu " << g.gpu_id << " node " << g.node << " cu " << g.cu_count << " vram "
      << g.vram_bytes << " available " << AvailableOn(g)
      << (g.available ? " (set)" : "") << "\n";
    o << "  busy " << WordsText(g.busy) << "\n";
    o << "  codec dec " << g.busy_decoders << "/" << g.decoders << " enc " << g.busy_encoders
      << "/" << g.encoders << "\n";
    for (const auto& [key, inst] : instances_) {
      if (key.first != g.gpu_id) continue;
      o << "  vgpu " << inst.vgpu_id << " group_id " << inst.group_id << " indentifier "
        << Hex(inst.indentifier) << " vram_limit " << inst.vram_limit << " vram_usage "
        << inst.vram_usage << " refcount " << inst.refcount << " cu_bits " << inst.mask_bits
        << " cu_mask " << WordsText(inst.mask) << "\n";
    }
    for (const auto& [reg, value] : g.regs) o << "  reg " << Hex(reg) << " " << Hex(value) << "\n";
    for (uint32_t v = 0; v < kMaxVmid; ++v) {
      if (g.pasid[v] != 0) o << "  pasid vmid " << v << " " << g.pasid[v] << "\n";
    }
  }
  for (const auto& [ident, grp] : groups_) {
    o << "group " << Hex(ident) << " group_id " << grp.group_id << " vram_limit "
      << grp.vram_limit << " refcount " << grp.refcount << "\n";
    for (const auto& g : gpus_) {
      if (grp.limits.count(g.gpu_id) || grp.usage.count(g.gpu_id)) {
        o << "  gpu " << g.gpu_id << " vram_limit " << grp.LimitOn(g.gpu_id) << " vram_usage "
          << grp.UsageOn(g.gpu_id) << "\n";
      }
    }
  }
  static const char* kModes[] = {"none", "group", "vgpu"};
  for (const auto& [id, c] : conns_) {
    o << "connection " << id << " pid " << c.pid << " mode " << kModes[c.mode];
    if (c.mode == kModeGroup) o << " group " << Hex(c.group);
    for (const auto& [gpu, pipes] : c.pipe_sets) o << " gpu " << gpu << " pipes " << Hex(pipes);
    o << "\n";
  }
  if (!inherited_usable_) o << "inherited ebadf\n";
  for (const auto& [name, f] : faults_) {
    o << "fault " << name << " errno " << f.err << " remaining " << f.remaining << "\n";
  }
  return o.str();
}

}  // namespace vdxsim
