// The pod map that vdx-device-plugin writes and vdxd (root) reads for its metrics labels: only
// a fresh regular file of root's that nobody else may write is believed, hostile lines are
// skipped, and what is believed reaches the labels escaped.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "tools/common/pod_map.h"
#include "tools/vdxd/metrics.h"

namespace {

using vdxtool::PodMap;

class PodMapFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/pod-map-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    path_ = dir_ + "/pods";
  }
  void TearDown() override { ASSERT_EQ(system(("rm -rf " + dir_).c_str()), 0); }
  void Write(const std::string& text) { std::ofstream(path_) << text; }
  PodMap Read(std::string* why) { return vdxtool::ReadPodMap(path_, why); }

  std::string dir_, path_;
};

TEST_F(PodMapFile, HostileLinesAreSkipped) {
  Write("vdev1\tml\ttrainer\tmain\n"
        "vdev32\tml\tp\tc\n"          // no such id
        "vdev-1\tml\tp\tc\n"
        "vdev2\tml\tp\n"              // a field short
        "vdev3\tml\tp\tc\textra\n"    // one too many
        "vdev4\t\tp\tc\n"             // empty namespace
        "gpu5\tml\tp\tc\n"
        "vdev0001\tml\tp\tc\n");
  std::string why;
  const PodMap pods = Read(&why);
  ASSERT_EQ(pods.size(), 1u) << why;
  EXPECT_EQ(pods.at(1).pod, "trainer");
}

TEST_F(PodMapFile, OnlyAFreshFileOfRootsAloneIsBelieved) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to hand the file to another owner";
  const std::string line = "vdev1\tml\ttrainer\tmain\n";
  std::string why;
  Write(line);
  ASSERT_EQ(Read(&why).size(), 1u) << why;

  ASSERT_EQ(chmod(path_.c_str(), 0664), 0);
  EXPECT_TRUE(Read(&why).empty());
  EXPECT_NE(why.find("writable by root alone"), std::string::npos) << why;
  ASSERT_EQ(chmod(path_.c_str(), 0644), 0);

  ASSERT_EQ(chown(path_.c_str(), 65534, 65534), 0);
  EXPECT_TRUE(Read(&why).empty());
  ASSERT_EQ(chown(path_.c_str(), 0, 0), 0);

  const timeval old[2] = {{time(nullptr) - 60, 0}, {time(nullptr) - 60, 0}};
  ASSERT_EQ(utimes(path_.c_str(), old), 0);
  EXPECT_TRUE(Read(&why).empty());
  EXPECT_NE(why.find("older than"), std::string::npos) << why;

  Write(std::string(70 * 1024, 'x'));
  EXPECT_TRUE(Read(&why).empty());

  ASSERT_EQ(unlink(path_.c_str()), 0);
  ASSERT_EQ(symlink("/etc/passwd", path_.c_str()), 0);
  EXPECT_TRUE(Read(&why).empty()) << "a link is not followed";
  ASSERT_EQ(unlink(path_.c_str()), 0);
  EXPECT_TRUE(Read(&why).empty());
  EXPECT_EQ(why, "") << "a missing file is no trouble: no pods";
}

TEST(PodLabels, ValuesAreEscapedInTheMetrics) {
  vdxtool::VdevView v;
  v.id = 2;
  v.started = true;
  const std::string page =
      vdxd::RenderMetrics({}, {v}, 0, "1.0.0", {{2, {"ns", "a\"b\\c", "main"}}});
  EXPECT_NE(page.find("pod=\"a\\\"b\\\\c\",container=\"main\"} 1\n"), std::string::npos) << page;
}

}  // namespace
