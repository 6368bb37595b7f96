// String and path helpers.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/utils/test_support.h"
#include "utils/file.h"
#include "utils/path.h"
#include "utils/utils.h"

namespace {

using testing_support::ScratchDir;
using utils::Path;

std::vector<std::string> Split(const std::string& text, const std::string& delimiter,
                               bool trim) {
  std::vector<std::string> pieces;
  SplitStr(text, delimiter, pieces, trim);
  return pieces;
}

using Pieces = std::vector<std::string>;

TEST(StrFormat, FormatsAndCutsAtItsBuffer) {
  EXPECT_EQ(StrFormat("[%s] %d:%05.1f", "dmkfd", -7, 2.25), "[dmkfd] -7:002.2");
  EXPECT_EQ(StrFormat("%s", ""), "");

  // Results up to 1023 characters come out whole; longer ones are cut, never overflowing.
  const std::string fits(1023, 'a');
  EXPECT_EQ(StrFormat("%s", fits.c_str()), fits);
  for (size_t length : {1024u, 1025u, 5000u}) {
    const std::string longer(length, 'b');
    const std::string out = StrFormat("x%s", longer.c_str());
    ASSERT_EQ(out.size(), 1023u) << length;
    EXPECT_EQ(out, "x" + longer.substr(0, 1022));
  }
}

TEST(ErrnoMessage, GivesTheSystemsWords) {
  EXPECT_EQ(ErrnoMessage(EACCES), "Permission denied");
  EXPECT_EQ(ErrnoMessage(EROFS), "Read-only file system");
  EXPECT_NE(ErrnoMessage(99999).find("99999"), std::string::npos);  // unknown, with its number
}

TEST(SplitStr, DropsEmptyPiecesAndTrimsOnRequest) {
  EXPECT_EQ(Split("a,,b", ",", false), (Pieces{"a", "b"}));
  EXPECT_EQ(Split(",a,", ",", false), (Pieces{"a"}));
  EXPECT_EQ(Split(" a , b ", ",", true), (Pieces{"a", "b"}));
  EXPECT_EQ(Split(" a , b ", ",", false), (Pieces{" a ", " b "}));
  EXPECT_EQ(Split("a,   ,b", ",", true), (Pieces{"a", "b"}));
  // Only blanks are trimmed, not tabs.
  EXPECT_EQ(Split("\ta\t", ",", true), (Pieces{"\ta\t"}));
  // A delimiter of several characters splits only where it stands whole.
  EXPECT_EQ(Split("a, b,c, d", ", ", false), (Pieces{"a", "b,c", "d"}));
  EXPECT_EQ(Split("abc", "abcd", false), (Pieces{"abc"}));
  EXPECT_TRUE(Split("", ",", false).empty());
  EXPECT_TRUE(Split("a,b", "", false).empty());
  EXPECT_TRUE(Split(",,,", ",", true).empty());
}

}  // namespace
