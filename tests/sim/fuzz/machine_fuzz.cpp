// Fuzz target of the machine description parser. ctest replays the corpus beside this
// file; to search for new inputs, build it with libFuzzer:
//
//   clang++ -std=c++17 -g -fsanitize=fuzzer,address,undefined -I. -o machine_fuzz
//       tests/sim/fuzz/machine_fuzz.cpp sim/machine.cpp sim/driver.cpp
//   ./machine_fuzz tests/sim/fuzz/machine_corpus
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "sim/driver.h"
#include "sim/machine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vdxsim::Machine machine;
  std::string error;
  std::string text(reinterpret_cast<const char*>(data), size);
  if (!vdxsim::ParseMachine(text, &machine, &error)) {
    if (error.empty()) abort();  // a refusal always says why
    return 0;
  }
  std::set<uint32_t> ids;
  for (const auto& node : machine.nodes) {
    if (node.IsGpu() && !ids.insert(node.gpu_id).second) abort();
    node.CuCount();
    node.VramBytes();
  }
  // Whatever parses must give a driver that can describe itself.
  vdxsim::Driver driver(machine);
  if (driver.gpus().size() != ids.size() || driver.Dump().empty() != ids.empty()) abort();
  return 0;
}

#ifdef ZOVDX_FUZZ_REPLAY
#include "tests/fuzz/replay_main.h"
#endif
