// The simulator's parts without a sandbox: the machine description, the driver state
// machine, the sysfs mirror and the control commands.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "mkfd/include/mkfd_ioctl.h"
#include "sim/control.h"
#include "sim/driver.h"
#include "sim/machine.h"
#include "sim/sysfs.h"

namespace vdxsim {
namespace {

Machine Default() {
  Machine m;
  std::string error;
  EXPECT_TRUE(ParseMachine(DefaultMachineText(), &m, &error)) << error;
  return m;
}

std::string ParseError(const std::string& text) {
  Machine m;
  std::string error;
  return ParseMachine(text, &m, &error) ? "" : error;
}

TEST(MachineDescription, RejectsWithTheLine) {
  EXPECT_EQ(ParseError(""), "the description has no nodes");
  EXPECT_EQ(ParseError("simd_count 4\n"), "line 1: 'simd_count' before the first node");
  EXPECT_EQ(ParseError("node cpu\n\nsimd_count four\n"), "line 3: bad number 'four'");
  EXPECT_EQ(ParseError("node gpu 0\n"), "line 1: a gpu id is a non-zero 32-bit number");
  EXPECT_EQ(ParseError("node gpu 5\nnode gpu 5\n"), "line 2: duplicate gpu id");
  EXPECT_EQ(ParseError("node cpu\nbusy 1\n"), "line 2: busy belongs to an accelerator node");
  EXPECT_EQ(ParseError("node cpu\nbank heap_type\n"), "line 2: bank takes key value pairs");
  EXPECT_EQ(ParseError("node cpu\nSimd 1\n"), "line 2: bad key 'Simd'");
  EXPECT_EQ(ParseError("node cpu\nsystem_mode maybe\n"),
            "line 2: system_mode is none, mig or a number");
}

// Drives the driver as the daemon does, with caller memory already fetched.
class DriverLogic : public ::testing::Test {
 protected:
  DriverLogic() : driver_(Default()) {
    int err = 0;
    conn_ = driver_.Open(1, &err);
  }
  template <class T>
  int Call(uint32_t code, T* args, const std::vector<uint32_t>& mask = {}, IoctlOutput* out = nullptr) {
    std::vector<uint8_t> rec(sizeof(T));
    std::memcpy(rec.data(), args, sizeof(T));
    IoctlInput in;
    in.mask = mask.data();
    in.mask_words = mask.size();
    in.data_limit = 1 << 16;
    IoctlOutput local;
    int err = driver_.Ioctl(conn_, code, &rec, in, out != nullptr ? out : &local);
    std::memcpy(args, rec.data(), sizeof(T));
    return err;
  }
  int Create(uint32_t vgpu, const std::vector<uint32_t>& mask, uint32_t bits = 128) {
    mkfd_ioctl_create_vgpu_args a{};
    a.gpu_id = 21735;
    a.vgpu_id = vgpu;
    a.num_cu_mask = bits;
    a.vram_limit = 1 << 20;
    return Call(MKFD_IOC_CREATE_VGPU, &a, mask);
  }
  Driver driver_;
  uint64_t conn_ = 0;
};

TEST_F(DriverLogic, MaskBitsBeyondTheCountAreIgnored) {
  // 40 bits: the high bits of the second word are not part of the mask.
  ASSERT_EQ(Create(0, {0x1, 0xffffff00}, 40), 0);
  const Instance& inst = driver_.instances().begin()->second;
  EXPECT_EQ(inst.mask[1], 0u);
  EXPECT_EQ(inst.mask_bits, 40u);
  EXPECT_EQ(Create(1, {0x1}, 300), EINVAL);
  EXPECT_EQ(Create(1, {0x1}, 64), EFAULT);  // fewer words than the bits say
}

class SysfsMirror : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vdxsim-sysfs-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = tmpl;
  }
  void TearDown() override { std::system(("rm -rf " + root_).c_str()); }
  std::string Read(const std::string& rel) {
    std::ifstream in(root_ + rel);
    std::ostringstream s;
    s << in.rdbuf();
    return in ? s.str() : "<missing>";
  }
  std::string root_;
};

TEST_F(SysfsMirror, PublishesTopologyAndFollowsGroups) {
  Machine m = Default();
  Sysfs sysfs(root_);
  ASSERT_EQ(sysfs.Publish(m), "");
  const std::string nodes = "/sys/devices/virtual/kfd/kfd/topology/nodes";
  EXPECT_EQ(Read(nodes + "/1/gpu_id"), "21735\n");
  std::string props = Read(nodes + "/1/properties");
  EXPECT_EQ(props.rfind("cpu_cores_count 0\nsimd_count 240\n", 0), 0u);
  EXPECT_LT(props.size(), 4096u);  // the reader takes at most 4095 bytes
  EXPECT_EQ(Read("/sys/module/zocu/initstate"), "live\n");

  Driver driver(m);
  int err = 0;
  uint64_t c = driver.Open(1, &err);
  mkfd_ioctl_create_group_args g{0xabc, 1, 9};
  std::vector<uint8_t> rec(sizeof g);
  std::memcpy(rec.data(), &g, sizeof g);
  IoctlOutput out;
  ASSERT_EQ(driver.Ioctl(c, MKFD_IOC_CREATE_GROUP, &rec, IoctlInput{}, &out), 0);
  sysfs.Sync(driver);
  EXPECT_EQ(Read("/sys/devices/virtual/kfd/kfd/group/abc/entry"),
            "Group Indentifier: 0xabc\nGroup Id: 9\nReference Count: 1\nVram Limit: 1\n");
  ASSERT_EQ(driver.SetGroupRefcount(0xabc, 3), "");
  sysfs.Sync(driver);
  EXPECT_NE(Read("/sys/devices/virtual/kfd/kfd/group/abc/entry").find("Reference Count: 3\n"),
            std::string::npos);
  rec.resize(sizeof(mkfd_ioctl_destroy_group_args));
  ASSERT_EQ(driver.Ioctl(c, MKFD_IOC_DESTROY_GROUP, &rec, IoctlInput{}, &out), 0);
  sysfs.Sync(driver);
  struct stat st;
  EXPECT_NE(stat((root_ + "/sys/devices/virtual/kfd/kfd/group/abc").c_str(), &st), 0);
  ASSERT_EQ(sysfs.SetModuleState("going"), "");
  EXPECT_EQ(Read("/sys/module/zocu/initstate"), "going\n");
}

}  // namespace
}  // namespace vdxsim
