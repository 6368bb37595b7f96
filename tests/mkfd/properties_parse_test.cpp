// The "key value" line parser of the sysfs properties files.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "mkfd/sysfs_properties.h"

namespace {

using Pairs = std::vector<std::pair<std::string, uint64_t>>;

Pairs Parse(const std::string& text) {
  Pairs pairs;
  ParsePropertyLines(text.c_str(),
                     [&pairs](const char* key, uint64_t value) { pairs.emplace_back(key, value); });
  return pairs;
}

TEST(PropertyLines, ReadsEveryLineUpToTheFirstBadOne) {
  EXPECT_EQ(Parse("a 1\nb 18446744073709551615\nc 3"),
            (Pairs{{"a", 1}, {"b", UINT64_MAX}, {"c", 3}}));
  // A value that is not a number ends the parse: later lines are not read.
  EXPECT_EQ(Parse("a 1\nname ZO-100\nb 2\n"), (Pairs{{"a", 1}}));
  EXPECT_EQ(Parse("a 1\nlonely\nb 2\n"), (Pairs{{"a", 1}}));
  EXPECT_EQ(Parse(""), Pairs{});
  EXPECT_EQ(Parse("\n\n"), Pairs{});
  // Blank lines and extra spaces between lines are whitespace to the parser.
  EXPECT_EQ(Parse("a   7\n\n  b 8\n"), (Pairs{{"a", 7}, {"b", 8}}));
}

TEST(PropertyLines, KeyLongerThanTheBufferStopsWithoutOverflow) {
  // Run under AddressSanitizer in CI: any write past the key buffer is caught there.
  for (size_t length : {size_t{kPropertyKeySize - 1}, size_t{kPropertyKeySize},
                        size_t{kPropertyKeySize + 1}, size_t{4000}}) {
    const std::string key(length, 'k');
    const Pairs pairs = Parse("first 1\n" + key + " 5\nlast 2\n");
    ASSERT_FALSE(pairs.empty());
    EXPECT_EQ(pairs.front(), (Pairs::value_type{"first", 1}));
    if (length < kPropertyKeySize) {
      // A key that fits is an ordinary (unknown) key.
      EXPECT_EQ(pairs, (Pairs{{"first", 1}, {key, 5}, {"last", 2}})) << length;
    } else {
      EXPECT_EQ(pairs.size(), 1u) << length;
    }
  }
}

}  // namespace
