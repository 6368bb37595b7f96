// Plain log streams: stdout and stderr swapped for stdio streams that drop terminal control
// sequences on their way to the same descriptors. The library writes through the process's
// stdout and stderr, so its lines pass through them with the tool's own; the C library
// flushes them at exit like any stream.
#include "tools/common/plain_log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace vdxtool {

namespace {

struct PlainCookie {
  int fd;
  int state;
};

ssize_t WritePlain(void* cookie, const char* buffer, size_t size) {
  auto* plain = static_cast<PlainCookie*>(cookie);
  const std::string text = StripControlSequences(buffer, size, &plain->state);
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = write(plain->fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return -1;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(size);  // every byte of the caller's was taken
}

// One per stream, for the life of the process (the streams are never closed).
PlainCookie g_cookies[2];

FILE* PlainStream(int fd, int buffering) {
  PlainCookie* cookie = &g_cookies[fd == STDERR_FILENO ? 1 : 0];
  *cookie = {fd, 0};
  cookie_io_functions_t io = {nullptr, WritePlain, nullptr, nullptr};
  FILE* stream = fopencookie(cookie, "w", io);
  if (stream != nullptr) setvbuf(stream, nullptr, buffering, BUFSIZ);
  return stream;
}

}  // namespace

bool WantsColour(int fd) {
  const char* no_colour = getenv("NO_COLOR");
  if (no_colour != nullptr && no_colour[0] != '\0') return false;
  return isatty(fd) == 1;
}

bool PlainLogStreams() {
  bool ok = true;
  // The C library lets a program set these variables; every user of stdio in the process,
  // the library included, then writes through the new streams.
  if (!WantsColour(STDOUT_FILENO)) {
    fflush(stdout);
    FILE* plain = PlainStream(STDOUT_FILENO, _IOLBF);
    if (plain != nullptr) stdout = plain;
    ok = ok && plain != nullptr;
  }
  if (!WantsColour(STDERR_FILENO)) {
    fflush(stderr);
    FILE* plain = PlainStream(STDERR_FILENO, _IONBF);
    if (plain != nullptr) stderr = plain;
    ok = ok && plain != nullptr;
  }
  return ok;
}

std::string StripControlSequences(const char* text, size_t size, int* state) {
  // state: 0 in text, 1 after ESC, 2 inside "ESC [" up to its final byte (0x40 to 0x7e).
  std::string plain;
  plain.reserve(size);
  for (size_t i = 0; i < size; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (*state == 0) {
      if (c == 0x1b)
        *state = 1;
      else
        plain += static_cast<char>(c);
    } else if (*state == 1) {
      *state = c == '[' ? 2 : 0;  // other escapes are two bytes long
    } else if (c >= 0x40 && c <= 0x7e) {
      *state = 0;
    }
  }
  return plain;
}

}  // namespace vdxtool
