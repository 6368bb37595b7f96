#include "utils/utils.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

std::string StrFormat(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list measure;
  va_copy(measure, args);
  const int needed = vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  char buffer[1024];
  buffer[0] = '\0';
  if (needed > 0) vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  return buffer;
}

int BitsCount(unsigned int value) {
  int count = 0;
  while (value != 0) {
    value &= value - 1;
    ++count;
  }
  return count;
}

void SplitStr(const std::string& text, const std::string& delimiter,
              std::vector<std::string>& pieces, bool trim) {
  if (text.empty() || delimiter.empty()) return;
  const std::string work = text + delimiter;
  size_t start = 0;
  for (size_t found = work.find(delimiter, start); found != std::string::npos;
       found = work.find(delimiter, start)) {
    std::string piece = work.substr(start, found - start);
    start = found + delimiter.size();
    if (trim) {
      const size_t first = piece.find_first_not_of(' ');
      if (first == std::string::npos) continue;
      piece = piece.substr(first, piece.find_last_not_of(' ') - first + 1);
    }
    if (piece.empty()) continue;
    pieces.push_back(std::move(piece));
  }
}

std::string ErrnoMessage(int err) {
  char buffer[256];
  // The GNU strerror_r returns the text, in buffer or in a static table.
  return strerror_r(err, buffer, sizeof(buffer));
}
