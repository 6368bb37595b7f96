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

TEST(MachineDescription, ParsesWhatTheFormatAllows) {
  Machine m;
  std::string error;
  ASSERT_TRUE(ParseMachine("system_mode mig\nmodule coming  # loading\n"
                           "node gpu 0x10\n simd_count 8\nsimd_per_cu 4\n"
                           "bank heap_type 1 size_in_bytes 100\nbank heap_type 1 size_in_bytes 200\n"
                           "busy 1 2\ncodec 3 4\n",
                           &m, &error))
      << error;
  EXPECT_EQ(m.system_mode, 1);
  EXPECT_EQ(m.module_state, "coming");
  EXPECT_EQ(m.nodes[0].gpu_id, 16u);
  EXPECT_EQ(m.nodes[0].CuCount(), 2u);
  EXPECT_EQ(m.nodes[0].VramBytes(), 200u);  // the last public bank, as the reader picks it
  EXPECT_EQ(m.nodes[0].busy[1], 2u);
  EXPECT_EQ(m.nodes[0].busy[2], 0u);
  EXPECT_EQ(m.nodes[0].encoders, 4u);
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

TEST_F(DriverLogic, DestroyedInstanceLeavesRunningConnectionsConsistent) {
  ASSERT_EQ(Create(0, {1, 0, 0, 0}), 0);
  mkfd_ioctl_set_process_mode_args m{};
  m.mode = KFD_PROCESS_VGPU_MODE;
  m.gpu_id = 21735;
  m.indentifier = 1;
  ASSERT_EQ(Call(MKFD_IOC_SET_PROCESS_MODE, &m), 0);
  mkfd_ioctl_destroy_vgpu_args d{21735, 0};
  ASSERT_EQ(Call(MKFD_IOC_DESTROY_VGPU, &d), 0);
  ASSERT_EQ(Create(0, {1, 0, 0, 0}), 0);
  driver_.Close(conn_);  // must not drop the new instance's own reference
  EXPECT_EQ(driver_.instances().begin()->second.refcount, 1u);
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

TEST(ControlCommands, ParseAndRefuse) {
  Driver driver(Default());
  Sysfs sysfs("/nonexistent-vdxsim-root");
  Service service(0);
  World world{&driver, &sysfs, &service, nullptr, "live"};
  std::string out;
  EXPECT_EQ(RunControl({"busy", "21735", "0x3", "4"}, &world, &out), 0);
  EXPECT_EQ(driver.gpus()[0].busy[1], 4u);
  EXPECT_EQ(RunControl({"busy", "99", "1"}, &world, &out), 1);
  EXPECT_NE(out.find("no accelerator with gpu id 99"), std::string::npos);
  EXPECT_EQ(RunControl({"busy", "21735", "1", "2", "3", "4", "5", "6", "7", "8", "9"}, &world, &out), 2);
  EXPECT_EQ(RunControl({"busy", "21735", "-1"}, &world, &out), 2);
  EXPECT_EQ(RunControl({"usage", "21735", "0", "5"}, &world, &out), 1);  // no such instance
  EXPECT_EQ(RunControl({"system-mode", "7"}, &world, &out), 0);
  EXPECT_EQ(service.system_mode(), 7);
  EXPECT_EQ(RunControl({"service", "bogus"}, &world, &out), 2);
  EXPECT_EQ(RunControl({"etc", "ro"}, &world, &out), 1);  // no store outside a sandbox
  EXPECT_EQ(RunControl({}, &world, &out), 2);
  out.clear();
  EXPECT_EQ(RunControl({"dump"}, &world, &out), 0);
  EXPECT_EQ(out.rfind("system_mode 7\nmodule live\nservice stopped normal\ngpu 21735 ", 0), 0u) << out;
  EXPECT_EQ(ParseErrno("EINTR"), EINTR);
  EXPECT_EQ(ParseErrno("5"), 5);
  EXPECT_EQ(ParseErrno("EWHATEVER"), -1);
}

}  // namespace
}  // namespace vdxsim
