#include "sim/machine.h"

#include <cerrno>
#include <cstdlib>
#include <set>
#include <sstream>

namespace vdxsim {
namespace {

// Kept in step with docs/simulator.md, which shows the same machine.
const char kDefaultMachine[] = R"(# vdx-sim default machine: one CPU node and two accelerators.
system_mode none
module live

node cpu
cpu_cores_count 16
simd_count 0
mem_banks_count 1
caches_count 0
io_links_count 0
cpu_core_id_base 0
simd_id_base 0
max_waves_per_simd 0
lds_size_in_kb 0
gds_size_in_kb 0
wave_front_size 0
array_count 0
simd_arrays_per_engine 0
cu_per_simd_array 0
simd_per_cu 0
vendor_id 0
device_id 0
location_id 0
domain 0
drm_render_minor 0
bank heap_type 0 size_in_bytes 68719476736 flags 0 width 64 mem_clk_max 3200

node gpu 21735
cpu_cores_count 0
simd_count 240
mem_banks_count 1
caches_count 0
io_links_count 1
cpu_core_id_base 0
simd_id_base 2147487744
max_waves_per_simd 8
lds_size_in_kb 64
gds_size_in_kb 0
num_gws 64
wave_front_size 64
array_count 4
simd_arrays_per_engine 1
cu_per_simd_array 16
simd_per_cu 4
max_slots_scratch_cu 32
vendor_id 11888
device_id 20496
subsystem_vendor 11888
subsystem_device 257
location_id 768
domain 0
drm_render_minor 128
hive_id 0
num_sdma_engines 2
num_sdma_xgmi_engines 0
max_engine_clk_fcompute 1700
local_mem_size 0
dp4x_status 1
bank heap_type 1 size_in_bytes 34359738368 flags 0 width 4096 mem_clk_max 1600
busy 0 0 0 0 0 0 0 0
codec 4 2

node gpu 47262
cpu_cores_count 0
simd_count 256
mem_banks_count 1
caches_count 0
io_links_count 1
cpu_core_id_base 0
simd_id_base 2147487808
max_waves_per_simd 8
lds_size_in_kb 64
gds_size_in_kb 0
num_gws 64
wave_front_size 64
array_count 4
simd_arrays_per_engine 1
cu_per_simd_array 16
simd_per_cu 4
max_slots_scratch_cu 32
vendor_id 11888
device_id 20512
subsystem_vendor 11888
subsystem_device 0
location_id 1024
domain 0
drm_render_minor 129
hive_id 0
num_sdma_engines 2
num_sdma_xgmi_engines 0
max_engine_clk_fcompute 1800
local_mem_size 0
dp4x_status 0
bank heap_type 1 size_in_bytes 17179869184 flags 0 width 4096 mem_clk_max 1600
busy 0 0 0 0 0 0 0 0
codec 2 1
)";

bool ParseNumber(const std::string& text, uint64_t* value) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long v = std::strtoull(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0') return false;
  *value = v;
  return true;
}

bool ValidKey(const std::string& key) {
  for (char c : key) {
    if (!(c == '_' || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))) return false;
  }
  return !key.empty();
}

}  // namespace

uint64_t Node::Prop(const std::string& key, uint64_t def) const {
  for (const auto& p : props) {
    if (p.key == key) return p.value;
  }
  return def;
}

uint32_t Node::CuCount() const {
  uint64_t per_cu = Prop("simd_per_cu");
  return per_cu == 0 ? 0 : static_cast<uint32_t>(Prop("simd_count") / per_cu);
}

uint64_t Node::VramBytes() const {
  uint64_t size = 0;
  for (const auto& bank : banks) {
    uint64_t heap = ~0ull, bytes = 0;
    for (const auto& p : bank.props) {
      if (p.key == "heap_type") heap = p.value;
      if (p.key == "size_in_bytes") bytes = p.value;
    }
    if (heap == kHeapFrameBufferPublic) size = bytes;
  }
  return size;
}

const std::string& DefaultMachineText() {
  static const std::string text(kDefaultMachine);
  return text;
}

bool ParseMachine(const std::string& text, Machine* out, std::string* error) {
  Machine m;
  std::set<uint32_t> gpu_ids;
  std::istringstream in(text);
  std::string line;
  int lineno = 0;
  auto fail = [&](const std::string& why) {
    *error = "line " + std::to_string(lineno) + ": " + why;
    return false;
  };
  while (std::getline(in, line)) {
    ++lineno;
    auto hash = line.find('#');
    if (hash != std::string::npos) line.erase(hash);
    std::istringstream words(line);
    std::vector<std::string> w;
    for (std::string s; words >> s;) w.push_back(s);
    if (w.empty()) continue;
    const std::string& key = w[0];
    Node* node = m.nodes.empty() ? nullptr : &m.nodes.back();
    if (key == "system_mode") {
      if (w.size() != 2) return fail("system_mode takes one value");
      uint64_t v = 0;
      if (w[1] == "none") {
        m.system_mode = 0;
      } else if (w[1] == "mig") {
        m.system_mode = 1;
      } else if (ParseNumber(w[1], &v) && v <= 0x7fffffff) {
        m.system_mode = static_cast<int32_t>(v);
      } else {
        return fail("system_mode is none, mig or a number");
      }
    } else if (key == "module") {
      if (w.size() != 2) return fail("module takes one word");
      m.module_state = w[1];
    } else if (key == "node") {
      Node n;
      if (w.size() == 2 && w[1] == "cpu") {
        n.gpu_id = 0;
      } else if (w.size() == 3 && w[1] == "gpu") {
        uint64_t id = 0;
        if (!ParseNumber(w[2], &id) || id == 0 || id > 0xffffffffu) {
          return fail("a gpu id is a non-zero 32-bit number");
        }
        if (!gpu_ids.insert(static_cast<uint32_t>(id)).second) return fail("duplicate gpu id");
        n.gpu_id = static_cast<uint32_t>(id);
      } else {
        return fail("expected 'node cpu' or 'node gpu ID'");
      }
      m.nodes.push_back(n);
    } else if (node == nullptr) {
      return fail("'" + key + "' before the first node");
    } else if (key == "bank") {
      if (w.size() < 3 || w.size() % 2 != 1) return fail("bank takes key value pairs");
      MemBank bank;
      for (size_t i = 1; i < w.size(); i += 2) {
        Property p{w[i], 0};
        if (!ValidKey(p.key)) return fail("bad key '" + p.key + "'");
        if (!ParseNumber(w[i + 1], &p.value)) return fail("bad number '" + w[i + 1] + "'");
        bank.props.push_back(p);
      }
      node->banks.push_back(bank);
    } else if (key == "busy") {
      if (!node->IsGpu()) return fail("busy belongs to an accelerator node");
      if (w.size() < 2 || w.size() > 9) return fail("busy takes one to eight words");
      node->busy.fill(0);
      for (size_t i = 1; i < w.size(); ++i) {
        uint64_t v = 0;
        if (!ParseNumber(w[i], &v) || v > 0xffffffffu) return fail("bad busy word");
        node->busy[i - 1] = static_cast<uint32_t>(v);
      }
    } else if (key == "codec") {
      uint64_t dec = 0, enc = 0;
      if (!node->IsGpu()) return fail("codec belongs to an accelerator node");
      if (w.size() != 3 || !ParseNumber(w[1], &dec) || !ParseNumber(w[2], &enc) ||
          dec > 0xffff || enc > 0xffff) {
        return fail("codec takes the decoder and encoder counts");
      }
      node->decoders = static_cast<uint32_t>(dec);
      node->encoders = static_cast<uint32_t>(enc);
    } else {
      if (w.size() != 2) return fail("a property line is 'key value'");
      if (!ValidKey(key)) return fail("bad key '" + key + "'");
      Property p{key, 0};
      if (!ParseNumber(w[1], &p.value)) return fail("bad number '" + w[1] + "'");
      node->props.push_back(p);
    }
  }
  if (m.nodes.empty()) {
    *error = "the description has no nodes";
    return false;
  }
  *out = std::move(m);
  return true;
}

}  // namespace vdxsim
