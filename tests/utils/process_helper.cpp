// A child with exactly the behaviour a process-runner test asks for.
//   emit N       writes N bytes ('0' to '9' repeating) to standard output, exit 0
//   stderr TEXT  writes TEXT to standard error, exit 0
//   exit CODE    exits with CODE at once
//   tick N MS    writes one line every MS milliseconds, N times, exit 0
//   sleep MS     sleeps, exit 0
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
  if (argc < 3) return 100;
  const std::string mode = argv[1];
  if (mode == "emit") {
    const long n = atol(argv[2]);
    std::string text(static_cast<size_t>(n), '0');
    for (long i = 0; i < n; ++i) text[i] = static_cast<char>('0' + i % 10);
    // Many small writes: the reader must assemble them.
    for (size_t at = 0; at < text.size(); at += 1000) {
      const size_t len = std::min<size_t>(1000, text.size() - at);
      if (write(1, text.data() + at, len) != static_cast<ssize_t>(len)) return 101;
    }
    return 0;
  }
  if (mode == "stderr") {
    fputs(argv[2], stderr);
    return 0;
  }
  if (mode == "exit") return atoi(argv[2]);
  if (mode == "tick" && argc >= 4) {
    const int n = atoi(argv[2]);
    const int ms = atoi(argv[3]);
    for (int i = 0; i < n; ++i) {
      printf("tick %d\n", i);
      fflush(stdout);
      usleep(static_cast<useconds_t>(ms) * 1000);
    }
    return 0;
  }
  if (mode == "sleep") {
    usleep(static_cast<useconds_t>(atoi(argv[2])) * 1000);
    return 0;
  }
  return 102;
}
