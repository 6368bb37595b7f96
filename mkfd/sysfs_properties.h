// The "key value" line format of the driver's sysfs properties files.
#ifndef ZOVDX_MKFD_SYSFS_PROPERTIES_H_
#define ZOVDX_MKFD_SYSFS_PROPERTIES_H_

#include <cstdint>
#include <cstdio>

// Keys in these files are short names; a longer one is cut at the buffer and ends the parse
// (what follows it is not a number), so no file can write past the buffer.
#define ZOVDX_PROPERTY_KEY_WIDTH 63
inline constexpr int kPropertyKeySize = ZOVDX_PROPERTY_KEY_WIDTH + 1;

#define ZOVDX_STR2_(x) #x
#define ZOVDX_STR_(x) ZOVDX_STR2_(x)

// Calls store(key, value) for each line from the start of text that holds a key and an
// unsigned number, and stops at the first line that does not: a value that is not a number
// ends the parse there.
template <typename Store>
void ParsePropertyLines(const char* text, Store&& store) {
  char key[kPropertyKeySize];
  unsigned long long value = 0;
  const char* cursor = text;
  for (;;) {
    int consumed = 0;
    const int fields = sscanf(cursor, "%" ZOVDX_STR_(ZOVDX_PROPERTY_KEY_WIDTH) "s %llu\n%n", key,
                              &value, &consumed);
    // consumed stays 0 only if the input ended before %n: nothing left to read.
    if (fields != 2 || consumed <= 0) break;
    store(key, static_cast<uint64_t>(value));
    cursor += consumed;
  }
}

#undef ZOVDX_STR_
#undef ZOVDX_STR2_

#endif  // ZOVDX_MKFD_SYSFS_PROPERTIES_H_
