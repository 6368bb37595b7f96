// Fuzz target of the sysfs properties parser. ctest replays the corpus beside this file
// (under the sanitizers in CI); to search for new inputs, build it with libFuzzer:
//
//   clang++ -std=c++17 -g -fsanitize=fuzzer,address,undefined -I. -o properties_fuzz
//       tests/mkfd/fuzz/properties_fuzz.cpp
//   ./properties_fuzz tests/mkfd/fuzz/properties_corpus
//
// and add what it finds to the corpus.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "mkfd/sysfs_properties.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The library hands the parser at most one page, NUL-terminated.
  char text[4096];
  const size_t length = size < sizeof(text) - 1 ? size : sizeof(text) - 1;
  memcpy(text, data, length);
  text[length] = '\0';
  size_t calls = 0;
  ParsePropertyLines(text, [&calls, length](const char* key, uint64_t) {
    // Each line consumes at least a key and a value, so the count is bounded.
    if (strlen(key) >= static_cast<size_t>(kPropertyKeySize) || ++calls > length) abort();
  });
  return 0;
}

#ifdef ZOVDX_FUZZ_REPLAY
#include "tests/fuzz/replay_main.h"
#endif
