// Fuzz targets of the two readers of files that anyone with write access can shape: the
// parser of a virtual device's configuration text (given the text directly) and the reader of
// a driver group's entry file. ctest replays the
// corpora beside this file (under the sanitizers in CI). To search for new inputs, build it
// with libFuzzer and -DZOVDX_FUZZ_GROUP for the group reader:
//
//   clang++ -std=c++17 -g -fsanitize=fuzzer,address,undefined -I. -Ivirtual/include
//       tests/virtual/fuzz/config_fuzz.cpp build/libzovdx_internal.a -o config_fuzz
//
// A reader may refuse anything; it must never crash, hang or accept a record that breaks
// what the rest of the manager relies on.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "tests/virtual/dmvirtual_peer.h"
#include "virtual/vdev_file.h"

namespace {

#ifdef ZOVDX_FUZZ_GROUP
const std::string& Scratch() {
  static const std::string dir = [] {
    char pattern[] = "/tmp/zovdx-config-fuzz-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  return dir;
}

void WriteInput(const std::string& path, const uint8_t* data, size_t size) {
  FILE* file = fopen(path.c_str(), "wbe");
  if (file == nullptr) abort();
  if (size > 0 && fwrite(data, 1, size, file) != size) abort();
  fclose(file);
}
#endif

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
#ifdef ZOVDX_FUZZ_GROUP
  static Dmvirtual dm;
  static DmvirtualPeer* peer = new DmvirtualPeer(dm);
  const std::string path = Scratch() + "/input";
  WriteInput(path, data, size);
  sys_group_info group{7, 7};
  try {
    if (peer->GroupInfo(path, &group) != VDX_STATUS_SUCCESS) abort();  // the file is there
  } catch (const std::out_of_range&) {
    // A matching line without its value: reported to the caller, as the reader promises.
  }
#else
  // The file's text goes to the parser directly: no file, no manager state.
  VdevFileFields fields;
  const std::string error =
      ParseVdevFile(std::string(reinterpret_cast<const char*>(data), size), &fields);
  const virtual_device_info& info = fields.record;
  // What the manager relies on in every record it accepts.
  if (error.empty() && (info.vdev_id < 0 || info.vdev_id > 31 || info.cuCount < 0 ||
                        info.memLimit < 0 || info.pipe_id < 0 || info.device_id < 0))
    abort();
#endif
  return 0;
}

#ifdef ZOVDX_FUZZ_REPLAY
#include "tests/fuzz/replay_main.h"
#endif
