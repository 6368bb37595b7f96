// main() of a fuzz target's replay build: runs the target on each file named on the
// command line, so that ctest replays the corpus on every run.
#ifndef ZOVDX_TESTS_FUZZ_REPLAY_MAIN_H_
#define ZOVDX_TESTS_FUZZ_REPLAY_MAIN_H_

#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::ifstream in(argv[i], std::ios::binary);
    if (!in) {
      std::perror(argv[i]);
      return 1;
    }
    std::vector<char> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
  }
  std::printf("replayed %d inputs\n", argc - 1);
  return 0;
}

#endif  // ZOVDX_TESTS_FUZZ_REPLAY_MAIN_H_
