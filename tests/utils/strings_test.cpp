// String and path helpers.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <random>
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

TEST(Path, TakesPathsApart) {
  struct Case {
    std::string path;
    bool ext_ok;
    std::string ext;
    bool last_ok;
    std::string last;
    bool parent_ok;
    std::string parent;
  };
  const Case cases[] = {
      {"", false, "", false, "", false, ""},
      {"/", true, "", true, "", true, "/"},
      {"file", true, "", true, "file", false, ""},
      {"archive.tar.gz", true, "gz", true, "archive.tar.gz", false, ""},
      {"dir.d/file", true, "", true, "file", true, "dir.d"},
      {"/etc/vdev/vdev3.conf", true, "conf", true, "vdev3.conf", true, "/etc/vdev"},
      {"/etc/vdev/", true, "", true, "", true, "/etc"},
      {"/etc", true, "", true, "etc", true, ""},
      {"a/.hidden", true, "hidden", true, ".hidden", true, "a"},
      {"trailing.", true, "", true, "trailing.", false, ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Path::GetExtension(c.path), BoolStrSet(c.ext_ok, c.ext)) << c.path;
    EXPECT_EQ(Path::GetLastName(c.path), BoolStrSet(c.last_ok, c.last)) << c.path;
    EXPECT_EQ(Path::GetParentPath(c.path), BoolStrSet(c.parent_ok, c.parent)) << c.path;
  }
}

TEST(Path, AsksTheFileSystem) {
  ScratchDir dir;
  const std::string file = dir / "plain";
  const std::string link = dir / "link";
  const std::string missing = dir / "missing";
  ASSERT_TRUE(WriteTextFile(dir.path(), "plain", "x", false));
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);

  EXPECT_TRUE(Path::IsPathExists(file));
  EXPECT_FALSE(Path::IsPathExists(missing));
  EXPECT_FALSE(Path::IsPathExists(""));
  EXPECT_TRUE(Path::IsDirectory(dir.path()));
  EXPECT_FALSE(Path::IsDirectory(file));
  EXPECT_TRUE(Path::IsNormalFile(file));
  EXPECT_TRUE(Path::IsNormalFile(link));  // links are followed
  EXPECT_FALSE(Path::IsNormalFile(dir.path()));
  EXPECT_FALSE(Path::IsNormalFile(missing));

  char real_dir[4096];
  ASSERT_NE(realpath(dir.path().c_str(), real_dir), nullptr);
  EXPECT_EQ(Path::GetAbsolutePath(link), BoolStrSet(true, std::string(real_dir) + "/plain"));
  EXPECT_EQ(Path::GetAbsolutePath(missing), BoolStrSet(false, ""));
  EXPECT_EQ(Path::GetAbsolutePath(""), BoolStrSet(false, ""));

  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
  EXPECT_EQ(Path::GetCurrentPath(), cwd);
}

}  // namespace
