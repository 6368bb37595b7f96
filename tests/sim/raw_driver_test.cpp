// The simulated driver seen through "/dev/mkfd" from inside a sandbox, with a client
// that shares no code with the library. Each test case runs in a fresh sandbox.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

#include "raw_client.h"

namespace rawsim {
namespace {

class RawDriver : public ::testing::Test {
 protected:
  void SetUp() override {
    fd_ = OpenDevice();
    ASSERT_GE(fd_, 0) << std::strerror(errno);
  }
  void TearDown() override {
    if (fd_ >= 0) close(fd_);
  }
  int fd_ = -1;
};

TEST_F(RawDriver, InstanceLifecycle) {
  // Units 15, 16 and 17 straddle the first two shader engines.
  ASSERT_EQ(CreateVgpu(fd_, kGpu0, 1, {0x38000, 0, 0, 0}, 1ull << 30, 0xabc, 7), 0);
  EXPECT_EQ(CreateVgpu(fd_, kGpu0, 1, {1, 0, 0, 0}), EEXIST);

  mkfd_ioctl_query_vgpu_info_args q;
  std::array<uint32_t, 8> mask;
  ASSERT_EQ(QueryVgpu(fd_, kGpu0, 1, &q, &mask), 0);
  EXPECT_EQ(q.vram_limit, 1ull << 30);
  EXPECT_EQ(q.vram_usage, 0u);
  EXPECT_EQ(q.group_id, 7u);
  EXPECT_EQ(q.indentifier, 0xabcu);
  EXPECT_EQ(q.refcount, 1u);
  EXPECT_EQ(q.se_mask[0], 0x8000u);
  EXPECT_EQ(q.se_mask[1], 0x3u);
  EXPECT_EQ(q.se_mask[2], 0u);
  // 128 bits asked for: four words written, the rest of the caller's buffer untouched.
  EXPECT_EQ(mask[0], 0x38000u);
  EXPECT_EQ(mask[3], 0u);
  EXPECT_EQ(mask[4], 0xdeadbeefu);

  mkfd_ioctl_update_vgpu_args u{};
  u.type = MKFD_UPDATE_VGPU_VRAM_LIMIT;
  u.gpu_id = kGpu0;
  u.vgpu_id = 1;
  u.vram_limit = 2ull << 30;
  ASSERT_EQ(Call(fd_, MKFD_IOC_UPDATE_VGPU, &u), 0);  // no mask needed for memory
  std::vector<uint32_t> wide = {0, 0x0f000000, 0, 0};
  u.type = MKFD_UPDATE_VGPU_CU_MASK;
  u.num_cu_mask = 128;
  u.cu_mask_ptr = reinterpret_cast<uintptr_t>(wide.data());
  ASSERT_EQ(Call(fd_, MKFD_IOC_UPDATE_VGPU, &u), 0);
  ASSERT_EQ(QueryVgpu(fd_, kGpu0, 1, &q, &mask), 0);
  EXPECT_EQ(q.vram_limit, 2ull << 30);
  EXPECT_EQ(mask[0], 0u);
  EXPECT_EQ(mask[1], 0x0f000000u);
  EXPECT_EQ(q.se_mask[3], 0x0f00u);  // units 56..59

  mkfd_ioctl_query_vgpu_se_info_args se{};
  std::vector<uint32_t> probe = {0xffff0000u};
  se.gpu_id = kGpu0;
  se.vgpu_id = 1;
  se.num_cu_mask = 32;
  se.cu_mask_ptr = reinterpret_cast<uintptr_t>(probe.data());
  ASSERT_EQ(Call(fd_, MKFD_IOC_QUERY_VGPU_SE_INFO, &se), 0);
  EXPECT_EQ(se.se_mask[0], 0u);
  EXPECT_EQ(se.se_mask[1], 0xffffu);

  mkfd_ioctl_destroy_vgpu_args d{kGpu0, 1};
  ASSERT_EQ(Call(fd_, MKFD_IOC_DESTROY_VGPU, &d), 0);
  EXPECT_EQ(Call(fd_, MKFD_IOC_DESTROY_VGPU, &d), ENOENT);
  EXPECT_EQ(QueryVgpu(fd_, kGpu0, 1, &q, &mask), ENOENT);
}

TEST_F(RawDriver, WrongInputFailsAsADriverWould) {
  EXPECT_EQ(CreateVgpu(fd_, 12345, 0, {1, 0, 0, 0}), EINVAL);      // unknown gpu id
  EXPECT_EQ(CreateVgpu(fd_, kGpu0, 4, {1, 0, 0, 0}), EINVAL);      // pipes are 0..3
  EXPECT_EQ(CreateVgpu(fd_, kGpu0, 0, {}), EINVAL);                // no mask words
  EXPECT_EQ(CreateVgpu(fd_, kGpu0, 0, {0, 0x10000000}), EINVAL);   // unit 60 of 60
  mkfd_ioctl_create_vgpu_args c{};
  c.gpu_id = kGpu0;
  c.num_cu_mask = 128;  // a mask that the pointer does not deliver
  EXPECT_EQ(Call(fd_, MKFD_IOC_CREATE_VGPU, &c), EFAULT);
  EXPECT_EQ(ioctl(fd_, MKFD_IOC_CREATE_VGPU, reinterpret_cast<void*>(8)), -1);  // bad record
  EXPECT_EQ(errno, EFAULT);
  mkfd_ioctl_destroy_vgpu_args unused{kGpu0, 0};
  EXPECT_EQ(Call(fd_, _IOWR('M', 0x0A, mkfd_ioctl_destroy_vgpu_args), &unused), EINVAL);
  EXPECT_EQ(ioctl(fd_, _IOWR('M', 0x0A, mkfd_ioctl_destroy_vgpu_args), nullptr), -1);
  EXPECT_EQ(errno, EINVAL);  // an unknown request fails before its record is read
  EXPECT_EQ(Call(fd_, _IOWR('M', 0x03, mkfd_ioctl_create_vgpu_args), &c), EINVAL);  // size
  mkfd_ioctl_get_cu_busy_args b{};
  b.gpu_id = 0;  // the CPU node is no accelerator
  EXPECT_EQ(Call(fd_, MKFD_IOC_GET_CU_BUSY, &b), EINVAL);
  // A query whose mask pointer is bad surfaces as EFAULT, not as a silent success.
  ASSERT_EQ(CreateVgpu(fd_, kGpu0, 0, {1, 0, 0, 0}), 0);
  mkfd_ioctl_query_vgpu_info_args q{};
  q.gpu_id = kGpu0;
  q.num_cu_mask = 128;
  q.cu_mask_ptr = 8;
  EXPECT_EQ(Call(fd_, MKFD_IOC_QUERY_VGPU_INFO, &q), EFAULT);
}

TEST_F(RawDriver, GroupsByIdentifierAndById) {
  mkfd_ioctl_create_group_args c{0xc0ffee, ~0ull, 0x5};
  ASSERT_EQ(Call(fd_, MKFD_IOC_CREATE_GROUP, &c), 0);
  EXPECT_EQ(Call(fd_, MKFD_IOC_CREATE_GROUP, &c), EBUSY);

  mkfd_ioctl_update_group_args u{};
  u.indentifier = 0xc0ffee;
  u.gpu_id = kGpu1;
  u.vram_limit = 4ull << 30;
  ASSERT_EQ(Call(fd_, MKFD_IOC_UPDATE_GROUP, &u), 0);

  mkfd_ioctl_query_group_info_args q{};
  q.indentifier = 0xc0ffee;
  q.gpu_id = kGpu1;
  ASSERT_EQ(Call(fd_, MKFD_IOC_QUERY_GROUP_INFO, &q), 0);
  EXPECT_NE(q.result, 0);
  EXPECT_EQ(q.vram_limit, 4ull << 30);
  EXPECT_EQ(q.refcount, 1u);
  q.gpu_id = kGpu0;  // not updated there: the limit given at creation
  ASSERT_EQ(Call(fd_, MKFD_IOC_QUERY_GROUP_INFO, &q), 0);
  EXPECT_EQ(q.vram_limit, ~0ull);

  ASSERT_EQ(Ctl({"group-usage", "0xc0ffee", std::to_string(kGpu1), "4096"}), 0);
  mkfd_ioctl_query_group_info_by_id_args byid{};
  byid.group_id = 5;
  byid.gpu_id = kGpu1;
  ASSERT_EQ(Call(fd_, MKFD_IOC_QUERY_GROUP_INFO_BY_ID, &byid), 0);
  EXPECT_NE(byid.result, 0);
  EXPECT_EQ(byid.indentifier, 0xc0ffeeu);
  EXPECT_EQ(byid.vram_usage, 4096u);
  byid.group_id = 6;
  ASSERT_EQ(Call(fd_, MKFD_IOC_QUERY_GROUP_INFO_BY_ID, &byid), 0);
  EXPECT_EQ(byid.result, 0);

  mkfd_ioctl_destroy_group_args d{0xc0ffee};
  ASSERT_EQ(Call(fd_, MKFD_IOC_DESTROY_GROUP, &d), 0);
  EXPECT_EQ(Call(fd_, MKFD_IOC_DESTROY_GROUP, &d), ENOENT);
  EXPECT_EQ(Call(fd_, MKFD_IOC_UPDATE_GROUP, &u), ENOENT);
  // A missing group is an answer (result 0), not a failure.
  q.result = 7;
  ASSERT_EQ(Call(fd_, MKFD_IOC_QUERY_GROUP_INFO, &q), 0);
  EXPECT_EQ(q.result, 0);
}

TEST_F(RawDriver, RunModeHoldsReferencesWhileTheConnectionLives) {
  mkfd_ioctl_set_process_mode_args m{};
  m.mode = KFD_PROCESS_VGPU_MODE;
  m.gpu_id = kGpu0;
  m.indentifier = 0x2;  // pipe 1, which has no instance yet
  EXPECT_EQ(Call(fd_, MKFD_IOC_SET_PROCESS_MODE, &m), ENOENT);
  ASSERT_EQ(CreateVgpu(fd_, kGpu0, 1, {1, 0, 0, 0}), 0);
  mkfd_ioctl_create_group_args g{0x77, ~0ull, 1};
  ASSERT_EQ(Call(fd_, MKFD_IOC_CREATE_GROUP, &g), 0);

  int other = OpenDevice();
  ASSERT_GE(other, 0);
  ASSERT_EQ(Call(other, MKFD_IOC_SET_PROCESS_MODE, &m), 0);
  mkfd_ioctl_query_vgpu_info_args q;
  std::array<uint32_t, 8> mask;
  ASSERT_EQ(QueryVgpu(fd_, kGpu0, 1, &q, &mask), 0);
  EXPECT_EQ(q.refcount, 2u);

  m.mode = KFD_PROCESS_GROUP_MODE;  // leaves vgpu mode, joins the group
  m.indentifier = 0x77;
  ASSERT_EQ(Call(other, MKFD_IOC_SET_PROCESS_MODE, &m), 0);
  ASSERT_EQ(QueryVgpu(fd_, kGpu0, 1, &q, &mask), 0);
  EXPECT_EQ(q.refcount, 1u);
  mkfd_ioctl_query_group_info_args gq{};
  gq.indentifier = 0x77;
  gq.gpu_id = kGpu0;
  ASSERT_EQ(Call(fd_, MKFD_IOC_QUERY_GROUP_INFO, &gq), 0);
  EXPECT_EQ(gq.refcount, 2u);

  close(other);  // the connection ends with its last descriptor
  ASSERT_EQ(Call(fd_, MKFD_IOC_QUERY_GROUP_INFO, &gq), 0);
  EXPECT_EQ(gq.refcount, 1u);

  m.mode = 3;
  EXPECT_EQ(Call(fd_, MKFD_IOC_SET_PROCESS_MODE, &m), EINVAL);
  m.mode = KFD_PROCESS_GROUP_MODE;
  m.indentifier = 0x78;
  EXPECT_EQ(Call(fd_, MKFD_IOC_SET_PROCESS_MODE, &m), ENOENT);
}

TEST_F(RawDriver, ServiceSocketFromTheDriver) {
  mkfd_ioctl_create_zouds_conn_args z{};
  ASSERT_EQ(Call(fd_, MKFD_IOC_CREATE_ZOUDS_CONN, &z), 0);
  ASSERT_GT(z.fd, 2);
  EXPECT_NE(fcntl(z.fd, F_GETFD), -1);
  close(fd_);  // the socket outlives the driver connection
  fd_ = -1;
  ASSERT_TRUE(SendFrame(z.fd, 29, ""));
  Frame f;
  ASSERT_TRUE(ReadFrame(z.fd, &f));
  EXPECT_EQ(f.magic, 0x7A6F6D63);
  EXPECT_EQ(f.from_type, 2);
  EXPECT_EQ(f.cmd_type, 29);
  ASSERT_EQ(f.payload.size(), 4u);
  close(z.fd);

  fd_ = OpenDevice();
  ASSERT_EQ(Ctl({"service", "stop"}), 0);
  EXPECT_EQ(Call(fd_, MKFD_IOC_CREATE_ZOUDS_CONN, &z), ECONNREFUSED);
}

TEST_F(RawDriver, InjectedFaultsReachTheCaller) {
  ASSERT_EQ(Ctl({"fault", "create-vgpu", "EINTR", "2"}), 0);
  EXPECT_EQ(CreateVgpu(fd_, kGpu0, 0, {1, 0, 0, 0}), EINTR);
  EXPECT_EQ(CreateVgpu(fd_, kGpu0, 0, {1, 0, 0, 0}), EINTR);
  EXPECT_EQ(CreateVgpu(fd_, kGpu0, 0, {1, 0, 0, 0}), 0);  // the faults had no effect
  EXPECT_EQ(CreateVgpu(fd_, kGpu0, 1, {1, 0, 0, 0}), 0);

  ASSERT_EQ(Ctl({"fault", "query-group", "EIO"}), 0);
  mkfd_ioctl_query_group_info_args q{};
  q.gpu_id = kGpu0;
  EXPECT_EQ(Call(fd_, MKFD_IOC_QUERY_GROUP_INFO, &q), EIO);
  EXPECT_EQ(Call(fd_, MKFD_IOC_QUERY_GROUP_INFO, &q), 0);

  ASSERT_EQ(Ctl({"fault", "open", "ENODEV"}), 0);
  EXPECT_EQ(OpenDevice(), -1);
  EXPECT_EQ(errno, ENODEV);
  int again = OpenDevice();
  EXPECT_GE(again, 0);
  close(again);

  EXPECT_EQ(Ctl({"fault", "no-such-command", "EIO"}), 1);
  EXPECT_EQ(Ctl({"fault", "cu-busy", "ENOTANERRNO"}), 2);
}

TEST_F(RawDriver, ForkedChildUsesTheInheritedDescriptor) {
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Many requests, so that parent and child replies would mix if they shared a socket.
    int bad = 0;
    for (int i = 0; i < 200; ++i) {
      mkfd_ioctl_get_cu_busy_args b{};
      b.gpu_id = kGpu1;
      bad += Call(fd_, MKFD_IOC_GET_CU_BUSY, &b) != 0;
    }
    _exit(bad == 0 && CreateVgpu(fd_, kGpu1, 3, {0xf, 0, 0, 0}) == 0 ? 0 : 1);
  }
  int bad = 0;
  for (int i = 0; i < 200; ++i) {
    mkfd_ioctl_get_available_mem_size_args a{};
    a.gpu_id = kGpu0;
    bad += Call(fd_, MKFD_IOC_GET_AVAILABLE_MEM, &a) != 0 || a.available != kGpu0Vram;
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(bad, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  mkfd_ioctl_query_vgpu_info_args q;
  std::array<uint32_t, 8> mask;
  EXPECT_EQ(QueryVgpu(fd_, kGpu1, 3, &q, &mask), 0);
  // Still one driver connection: the child joined the parent's.
  std::string dump;
  ASSERT_EQ(Ctl({"dump"}, &dump), 0);
  EXPECT_EQ(dump.find("connection 2"), std::string::npos) << dump;
}

TEST_F(RawDriver, TwoProcessesShareTheDriverState) {
  ASSERT_EQ(CreateVgpu(fd_, kGpu0, 0, {0x3, 0, 0, 0}), 0);
  // What `vdx-sim ctl dump` shows a person is the state the device holds.
  std::string cmd = std::string(VDX_SIM_BIN) + " ctl dump | grep -q '^  vgpu 0 group_id 3 '";
  EXPECT_EQ(std::system(cmd.c_str()), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int own = OpenDevice();
    mkfd_ioctl_query_vgpu_info_args q;
    std::array<uint32_t, 8> mask;
    bool seen = own >= 0 && QueryVgpu(own, kGpu0, 0, &q, &mask) == 0 && mask[0] == 0x3;
    bool made = own >= 0 && CreateVgpu(own, kGpu0, 1, {0xc, 0, 0, 0}) == 0;
    _exit(seen && made ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  mkfd_ioctl_query_vgpu_info_args q;
  std::array<uint32_t, 8> mask;
  ASSERT_EQ(QueryVgpu(fd_, kGpu0, 1, &q, &mask), 0);
  EXPECT_EQ(mask[0], 0xcu);
}

// The group reader's view: the third blank-separated token of a line, base 0.
uint64_t EntryValue(const std::string& entry, const std::string& label) {
  std::istringstream lines(entry);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(label) == std::string::npos) continue;
    std::istringstream words(line);
    std::string a, b, c;
    words >> a >> b >> c;
    return std::strtoull(c.c_str(), nullptr, 0);
  }
  return ~0ull;
}

TEST_F(RawDriver, SysfsFollowsTheState) {
  const std::string vgpu = std::string(kKfd) + "/vgpu";
  const std::string group = std::string(kKfd) + "/group";
  EXPECT_TRUE(ListDir(vgpu).empty());
  ASSERT_EQ(CreateVgpu(fd_, kGpu0, 2, {1, 0, 0, 0}), 0);
  ASSERT_EQ(CreateVgpu(fd_, kGpu1, 0, {1, 0, 0, 0}), 0);
  EXPECT_EQ(ListDir(vgpu).size(), 2u);

  mkfd_ioctl_create_group_args c{0x1a2b3c4d5eull, ~0ull, 0x24};
  ASSERT_EQ(Call(fd_, MKFD_IOC_CREATE_GROUP, &c), 0);
  ASSERT_EQ(ListDir(group), std::vector<std::string>{"1a2b3c4d5e"});
  std::string entry = ReadText(group + "/1a2b3c4d5e/entry");
  EXPECT_EQ(EntryValue(entry, "Group Indentifier:"), 0x1a2b3c4d5eull) << entry;
  EXPECT_EQ(EntryValue(entry, "Group Id:"), 0x24u) << entry;

  mkfd_ioctl_destroy_vgpu_args d{kGpu0, 2};
  ASSERT_EQ(Call(fd_, MKFD_IOC_DESTROY_VGPU, &d), 0);
  EXPECT_EQ(ListDir(vgpu), std::vector<std::string>{std::to_string(kGpu1) + "_0"});
  mkfd_ioctl_destroy_group_args dg{0x1a2b3c4d5eull};
  ASSERT_EQ(Call(fd_, MKFD_IOC_DESTROY_GROUP, &dg), 0);
  EXPECT_TRUE(ListDir(group).empty());
}

}  // namespace
}  // namespace rawsim
