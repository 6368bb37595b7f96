// String helpers: printf-style formatting, splitting at a delimiter, counting bits, and the
// words for an errno value.
#ifndef ZOVDX_UTILS_UTILS_H_
#define ZOVDX_UTILS_UTILS_H_

#include <string>
#include <vector>

// Formats into a 1024-byte buffer: a longer result is cut to its first 1023 characters.
std::string StrFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Number of bits set in value.
int BitsCount(unsigned int value);

// Appends the non-empty pieces of text between occurrences of delimiter to pieces (which is
// not cleared). With trim, spaces around each piece go and all-space pieces are skipped.
// An empty text or delimiter appends nothing.
void SplitStr(const std::string& text, const std::string& delimiter,
              std::vector<std::string>& pieces, bool trim);

// The system's words for an errno value ("Permission denied"): the one way the library turns
// errno into text. Unlike strerror it may be called from several threads at once.
std::string ErrnoMessage(int err);

#endif  // ZOVDX_UTILS_UTILS_H_
