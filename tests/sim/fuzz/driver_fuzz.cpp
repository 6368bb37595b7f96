// Fuzz target of the simulated driver's request handling: any sequence of request codes,
// records and mask words, as a misbehaving caller could send them, must leave the driver
// consistent. The input is a series of requests: one byte choosing the request code, one
// byte of mask words (up to 8), then the record and the mask words. ctest replays the
// corpus beside this file; build with libFuzzer as machine_fuzz.cpp says, adding
// sim/driver.cpp and sim/machine.cpp.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "mkfd/include/mkfd_ioctl.h"
#include "sim/driver.h"
#include "sim/machine.h"

namespace {

const uint32_t kCodes[] = {
    MKFD_IOC_SET_PROCESS_MODE, MKFD_IOC_CREATE_VGPU,      MKFD_IOC_DESTROY_VGPU,
    MKFD_IOC_UPDATE_VGPU,      MKFD_IOC_CREATE_GROUP,     MKFD_IOC_DESTROY_GROUP,
    MKFD_IOC_QUERY_GROUP_INFO, MKFD_IOC_QUERY_VGPU_INFO,  MKFD_IOC_QUERY_GROUP_INFO_BY_ID,
    MKFD_IOC_UPDATE_GROUP,     MKFD_IOC_GET_WAVE_INFO,    MKFD_IOC_GET_CU_BUSY,
    MKFD_IOC_GET_AVAILABLE_MEM, MKFD_IOC_CREATE_ZOUDS_CONN, MKFD_IOC_VMID_PASID_MAPPING,
    MKFD_IOC_REGS_OP,          MKFD_IOC_QUERY_VGPU_SE_INFO, MKFD_IOC_GET_CODEC_BUSY,
    0xC0084D0Au,  // an unused number
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vdxsim::Machine machine;
  std::string error;
  if (!vdxsim::ParseMachine(vdxsim::DefaultMachineText(), &machine, &error)) abort();
  vdxsim::Driver driver(machine);
  int err = 0;
  uint64_t conns[2] = {driver.Open(1, &err), driver.Open(2, &err)};
  size_t at = 0;
  for (unsigned n = 0; at + 2 <= size; ++n) {
    uint32_t code = kCodes[data[at] % (sizeof kCodes / sizeof kCodes[0])];
    size_t words = data[at + 1] % 9;
    at += 2;
    std::vector<uint8_t> record(_IOC_SIZE(code), 0);
    size_t take = record.size() < size - at ? record.size() : size - at;
    if (take > 0) std::memcpy(record.data(), data + at, take);
    at += take;
    std::vector<uint32_t> mask(words, 0);
    size_t mask_bytes = words * 4 < size - at ? words * 4 : size - at;
    if (mask_bytes > 0) std::memcpy(mask.data(), data + at, mask_bytes);
    at += mask_bytes;
    vdxsim::IoctlInput in;
    in.mask = mask.data();
    in.mask_words = mask.size();
    in.data_limit = 4096;
    vdxsim::IoctlOutput out;
    int result = driver.Ioctl(conns[n % 2], code, &record, in, &out);
    if (record.size() != _IOC_SIZE(code) || out.data.size() > in.data_limit) abort();
    if (result != 0 && (!out.mask.empty() || !out.data.empty())) abort();
  }
  // Closing every connection gives back every reference a run mode held.
  driver.Close(conns[0]);
  driver.Close(conns[1]);
  for (const auto& [key, inst] : driver.instances()) {
    if (inst.mask_bits == 0 || inst.mask_bits > vdxsim::kMaxMaskBits) abort();
  }
  return 0;
}

#ifdef ZOVDX_FUZZ_REPLAY
#include "tests/fuzz/replay_main.h"
#endif
