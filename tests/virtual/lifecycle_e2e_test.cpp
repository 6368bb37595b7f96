// The rest of a virtual device's life through the shipped library in the simulator: start
// and stop (the driver's instances, as sysfs and `ctl dump` show them), destroy and update
// (the files, the ids and resources, the holders that refuse), the virtual device queries and
// the busy percentages. One sandbox per case.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/sim/raw_client.h"
#include "tests/virtual/e2e_support.h"
#include "zovdx/vdx.h"

namespace {

using e2e::Create;
using e2e::Ctl;
using e2e::Has;
using e2e::kMiB;
using e2e::Stdout;
using e2e::VdevFile;
using e2e::WriteVdev;

const std::string kGpu0 = std::to_string(rawsim::kGpu0);
const std::string kGpu1 = std::to_string(rawsim::kGpu1);

// The driver's live instances, as sysfs lists them ("GPU_VGPU").
std::vector<std::string> Instances() { return rawsim::ListDir(std::string(rawsim::kKfd) + "/vgpu"); }

std::string Instance(uint32_t gpu, int vgpu) {
  return std::to_string(gpu) + "_" + std::to_string(vgpu);
}

bool FileExists(int id) {
  struct stat st;
  return stat(("/etc/vdev/vdev" + std::to_string(id) + ".conf").c_str(), &st) == 0;
}

// Starts an instance for a virtual device as another process would (a container runtime).
void MakeInstance(uint32_t gpu, uint32_t vgpu, std::vector<uint32_t> mask, uint64_t limit,
                  uint64_t owner) {
  const int fd = rawsim::OpenDevice();
  ASSERT_GE(fd, 0);
  ASSERT_EQ(rawsim::CreateVgpu(fd, gpu, vgpu, mask, limit, owner), 0);
  close(fd);
}

void MakeGroup(uint64_t owner, uint64_t group_id, uint64_t limit) {
  const int fd = rawsim::OpenDevice();
  ASSERT_GE(fd, 0);
  mkfd_ioctl_create_group_args group{};
  group.indentifier = owner;
  group.vram_limit = limit;
  group.group_id = group_id;
  ASSERT_EQ(rawsim::Call(fd, MKFD_IOC_CREATE_GROUP, &group), 0);
  close(fd);
}

TEST(Start, MakesTheInstanceAsConfiguredAndBindsTheProcess) {
  setenv("VDX_CONTAINER_ID", "abc", 1);  // the owner the instance gets
  ASSERT_EQ(Create(0, {4, 8}, {1024, 2048}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxStartVDevice(1), VDX_STATUS_SUCCESS);
  EXPECT_EQ(Instances(), std::vector<std::string>{Instance(rawsim::kGpu0, 1)});
  std::string dump;
  ASSERT_EQ(vdxsim::SimControl({"dump"}, &dump), 0);
  EXPECT_TRUE(Has(dump, "vgpu 1 group_id 1 indentifier 0xabc vram_limit 2147483648 vram_usage 0 "
                        "refcount 1 cu_bits 128 cu_mask 0x00000ff0 0x00000000"))
      << dump;
  EXPECT_STREQ(getenv("VDX_VDEV_MASK"), "2");

  // Starting again keeps the instance; an unknown id changes nothing.
  EXPECT_EQ(vdxStartVDevice(1), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxStartVDevice(7), VDX_STATUS_VDEV_NOT_EXIST);
  EXPECT_EQ(Instances(), std::vector<std::string>{Instance(rawsim::kGpu0, 1)});
}

TEST(Start, AnInstanceThatExistsMustMatch) {
  ASSERT_EQ(Create(1, {4, 4, 4}, {1024, 1024, 1024}), VDX_STATUS_SUCCESS);
  MakeInstance(rawsim::kGpu1, 0, {0xf, 0, 0, 0}, 1024 * kMiB, 0);   // as configured
  MakeInstance(rawsim::kGpu1, 1, {0xf, 0, 0, 0}, 1024 * kMiB, 0);   // other units
  MakeInstance(rawsim::kGpu1, 2, {0xf00, 0, 0, 0}, 512 * kMiB, 0);  // other limit
  EXPECT_EQ(vdxStartVDevice(0), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxStartVDevice(1), VDX_STATUS_ERROR);
  EXPECT_EQ(vdxStartVDevice(2), VDX_STATUS_ERROR);
}

// The instances a process started go with it; a forked child's exit takes none of them.
TEST(Start, InstancesLiveAsLongAsTheProcessThatStartedThem) {
  fflush(stdout);
  const pid_t starter = fork();
  if (starter == 0) {
    if (Create(0, {4, 4}, {100, 100}) != VDX_STATUS_SUCCESS) _exit(1);
    if (vdxStartVDevice(0) != VDX_STATUS_SUCCESS || vdxStartVDevice(1) != VDX_STATUS_SUCCESS)
      _exit(2);
    if (Instances().size() != 2) _exit(3);
    exit(0);  // the library's teardown runs here
  }
  int status = 0;
  ASSERT_EQ(waitpid(starter, &status, 0), starter);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0);
  EXPECT_TRUE(Instances().empty());

  ASSERT_EQ(vdxStartVDevice(0), VDX_STATUS_SUCCESS);
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) exit(0);
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(Instances(), std::vector<std::string>{Instance(rawsim::kGpu0, 0)});
}

TEST(Stop, RemovesTheInstance) {
  ASSERT_EQ(Create(0, {4, 4}, {100, 100}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxStartVDevice(0), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxStartVDevice(1), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxStopVDevice(0), VDX_STATUS_SUCCESS);
  EXPECT_EQ(Instances(), std::vector<std::string>{Instance(rawsim::kGpu0, 1)});
  EXPECT_EQ(vdxStopVDevice(0), VDX_STATUS_SUCCESS) << "stopped already";
  EXPECT_EQ(vdxStopVDevice(9), VDX_STATUS_VDEV_NOT_EXIST);
  EXPECT_TRUE(FileExists(0)) << "stopping keeps the configuration";
}

TEST(Destroy, OneVirtualDeviceFreesItsFileIdAndResources) {
  ASSERT_EQ(Create(0, {4, 8}, {1024, 2048}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxStartVDevice(0), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxDestroySingleVDevice(0), VDX_STATUS_SUCCESS);
  EXPECT_FALSE(FileExists(0));
  EXPECT_TRUE(Instances().empty()) << "its instance goes with it";
  size_t units = 0, bytes = 0;
  ASSERT_EQ(vdxGetDeviceRemainingInfo(0, &units, &bytes), VDX_STATUS_SUCCESS);
  EXPECT_EQ(units, 52u);
  EXPECT_EQ(bytes, (32768 - 2048) * kMiB);
  ASSERT_EQ(Create(0, {2}, {10}), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(Has(e2e::ReadAll("/etc/vdev/vdev0.conf"), "cu_mask: 0x0000000000000003\n"))
      << "the freed id and units are given again";
  EXPECT_EQ(vdxDestroySingleVDevice(31), VDX_STATUS_VDEV_NOT_EXIST);
}

TEST(Destroy, AllOfADevice) {
  ASSERT_EQ(Create(0, {4, 4, 4}, {10, 10, 10}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(Create(1, {4}, {10}), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxDestroyVDevices(0), VDX_STATUS_SUCCESS);
  for (int id : {0, 1, 2}) EXPECT_FALSE(FileExists(id)) << id;
  EXPECT_TRUE(FileExists(3));
  int count = 0;
  ASSERT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(vdxDestroyVDevices(7), VDX_STATUS_SUCCESS) << "no such device: nothing to do";
}

TEST(Destroy, FiveHandMadeFilesOnOneDeviceDestroyNone) {
  e2e::ShowDebugLines();
  for (int id = 0; id < 5; ++id) {
    VdevFile f;
    f.vdev_id = id;
    f.pipe_id = id % 4;
    f.mask_low = 1ull << id;
    f.cu_count = 1;
    f.mem = 10;
    WriteVdev(id, f);
  }
  const std::string out = Stdout([] { EXPECT_EQ(vdxDestroyVDevices(0), VDX_STATUS_ERROR); });
  EXPECT_TRUE(Has(out, "The number of virtual devices contained in the current physical device "
                       "exceeds the upper limit.")) << out;
  for (int id = 0; id < 5; ++id) EXPECT_TRUE(FileExists(id)) << id;
}

// A virtual device that a container still uses is busy: nothing is destroyed.
TEST(Destroy, AnInstanceInUseIsBusy) {
  ASSERT_EQ(Create(0, {4, 4}, {100, 100}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxStartVDevice(0), VDX_STATUS_SUCCESS);
  Ctl({"refcount", kGpu0, "0", "2"});
  EXPECT_EQ(vdxDestroySingleVDevice(0), VDX_STATUS_DEVICE_BUSY);
  EXPECT_TRUE(FileExists(0));
  Ctl({"refcount", kGpu0, "0", "1"});
  EXPECT_EQ(vdxDestroySingleVDevice(0), VDX_STATUS_SUCCESS);

  MakeInstance(rawsim::kGpu0, 1, {0xf0, 0, 0, 0}, 100 * kMiB, 0x5eed);  // owned by a container
  EXPECT_EQ(vdxDestroySingleVDevice(1), VDX_STATUS_DEVICE_BUSY);
  EXPECT_TRUE(FileExists(1));
  EXPECT_EQ(vdxUpdateSingleVDevice(1, 2, -1), VDX_STATUS_DEVICE_BUSY);
}

TEST(Destroy, AContainersGroupGoesUnlessItIsShared) {
  ASSERT_EQ(Create(0, {0, 0}, {100, 100}), VDX_STATUS_SUCCESS);
  MakeGroup(0x55, 0x3, UINT64_MAX);  // holds ids 0 and 1
  Ctl({"group-refcount", "0x55", "2"});
  EXPECT_EQ(vdxDestroySingleVDevice(0), VDX_STATUS_DEVICE_BUSY);
  EXPECT_TRUE(FileExists(0));
  Ctl({"group-refcount", "0x55", "1"});
  EXPECT_EQ(vdxDestroySingleVDevice(0), VDX_STATUS_SUCCESS);
  EXPECT_FALSE(FileExists(0));
  EXPECT_TRUE(rawsim::ListDir(std::string(rawsim::kKfd) + "/group").empty());
}

TEST(Destroy, ChecksInOrder) {
  e2e::ShowDebugLines();
  ASSERT_EQ(vdxGetDeviceCount(nullptr), VDX_STATUS_INVALID_ARGUMENTS);
  const std::string out = Stdout([] { EXPECT_EQ(vdxDestroySingleVDevice(32), VDX_STATUS_ERROR); });
  EXPECT_TRUE(Has(out, "The virtual device id exceeds the upper limit.")) << out;
  ASSERT_EQ(seteuid(65534), 0);
  const vdxStatus single = vdxDestroySingleVDevice(32);
  const vdxStatus all = vdxDestroyVDevices(0);
  const vdxStatus update = vdxUpdateSingleVDevice(32, 0, 0);
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(single, VDX_STATUS_PERMISSION);
  EXPECT_EQ(all, VDX_STATUS_PERMISSION);
  EXPECT_EQ(update, VDX_STATUS_PERMISSION);
}

std::string FileOf(int id) { return e2e::ReadAll("/etc/vdev/vdev" + std::to_string(id) + ".conf"); }

TEST(Update, MinusOneKeepsAValue) {
  ASSERT_EQ(Create(1, {8}, {1024}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxUpdateSingleVDevice(0, -1, 2048), VDX_STATUS_SUCCESS);
  VdevFile f;
  f.pci = e2e::kPci1;
  f.device_id = 1;
  f.mem = 2048;
  EXPECT_EQ(FileOf(0), e2e::Text(f));
  ASSERT_EQ(vdxUpdateSingleVDevice(0, 4, -1), VDX_STATUS_SUCCESS);
  f.mask_low = 0xf;  // shrinking keeps the lowest units
  f.cu_count = 4;
  EXPECT_EQ(FileOf(0), e2e::Text(f));
  ASSERT_EQ(vdxUpdateSingleVDevice(0, 12, -1), VDX_STATUS_SUCCESS);
  f.mask_low = 0xfff;  // growing takes free ones
  f.cu_count = 12;
  EXPECT_EQ(FileOf(0), e2e::Text(f));
  EXPECT_EQ(vdxUpdateSingleVDevice(0, -1, -1), VDX_STATUS_SUCCESS);
  EXPECT_EQ(FileOf(0), e2e::Text(f));
}

TEST(Update, TheUnitRule) {
  e2e::ShowDebugLines();
  ASSERT_EQ(Create(1, {1, 8}, {10, 10}), VDX_STATUS_SUCCESS);  // units 0, then 1 to 8
  ASSERT_EQ(Create(1, {4}, {10}), VDX_STATUS_SUCCESS);          // units 9 to 12
  // Growing past another's units takes the next free ones.
  ASSERT_EQ(vdxUpdateSingleVDevice(1, 10, -1), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(Has(FileOf(1), "cu_mask: 0x00000000000061fe\n")) << FileOf(1);
  // To no units: unit 0 is another's, so nothing is taken.
  ASSERT_EQ(vdxUpdateSingleVDevice(1, 0, -1), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(Has(FileOf(1), "cu_mask: 0x0000000000000000\ncu_mask: 0x0000000000000000\n"
                             "cu_count: 0\n")) << FileOf(1);
  // Unit 0 free: the take comes before the test for enough, so 0 units cannot be had.
  ASSERT_EQ(vdxDestroySingleVDevice(0), VDX_STATUS_SUCCESS);
  const std::string out =
      Stdout([] { EXPECT_EQ(vdxUpdateSingleVDevice(2, 0, -1), VDX_STATUS_OUT_OF_RESOURCES); });
  EXPECT_TRUE(Has(out, "cu mask to be updated exceed available bound, cu(0)")) << out;
}

TEST(Update, TheBoundCheck) {
  e2e::ShowDebugLines();
  ASSERT_EQ(Create(1, {32, 16}, {8192, 4096}), VDX_STATUS_SUCCESS);
  const std::string out =
      Stdout([] { EXPECT_EQ(vdxUpdateSingleVDevice(1, 33, -1), VDX_STATUS_OUT_OF_RESOURCES); });
  EXPECT_TRUE(Has(out, "compute units and memory size to be updated exceed available bound, "
                       "cu(33), mem(-1Mib).")) << out;
  EXPECT_EQ(vdxUpdateSingleVDevice(1, -1, 8193), VDX_STATUS_OUT_OF_RESOURCES);
  EXPECT_EQ(vdxUpdateSingleVDevice(1, 32, 8192), VDX_STATUS_SUCCESS);
}

// An update never changes a live instance: it is destroyed, and the directory's time moves so
// that every other process reads the new configuration.
TEST(Update, DestroysTheInstanceAndMovesTheDirectorysTime) {
  ASSERT_EQ(Create(0, {4}, {100}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxStartVDevice(0), VDX_STATUS_SUCCESS);
  struct utimbuf old_times = {1000, 1000};
  ASSERT_EQ(utime("/etc/vdev", &old_times), 0);
  ASSERT_EQ(vdxUpdateSingleVDevice(0, -1, 200), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(Instances().empty());
  struct stat st;
  ASSERT_EQ(stat("/etc/vdev", &st), 0);
  EXPECT_GT(st.st_mtime, time(nullptr) - 60);
  ASSERT_EQ(vdxStartVDevice(0), VDX_STATUS_SUCCESS);
  std::string dump;
  ASSERT_EQ(vdxsim::SimControl({"dump"}, &dump), 0);
  EXPECT_TRUE(Has(dump, "vgpu 0 group_id 0 indentifier 0x0 vram_limit 209715200")) << dump;
}

TEST(Update, ArgumentChecks) {
  ASSERT_EQ(Create(0, {4}, {100}), VDX_STATUS_SUCCESS);
  const std::string before = FileOf(0);
  EXPECT_EQ(vdxUpdateSingleVDevice(32, 4, 100), VDX_STATUS_ERROR);
  EXPECT_EQ(vdxUpdateSingleVDevice(0, 4, 0), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(vdxUpdateSingleVDevice(0, 4, -2), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(vdxUpdateSingleVDevice(0, -2, 100), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(vdxUpdateSingleVDevice(9, -1, -1), VDX_STATUS_SUCCESS) << "nothing to change";
  EXPECT_EQ(vdxUpdateSingleVDevice(9, 1, -1), VDX_STATUS_VDEV_NOT_EXIST);
  EXPECT_EQ(FileOf(0), before);
}

TEST(Queries, CountAndInformationWithoutGroups) {
  e2e::ShowDebugLines();
  int count = -1;
  ASSERT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 0);
  ASSERT_EQ(Create(0, {4, 8}, {1024, 2048}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(Create(1, {16}, {4096}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 3);

  ASSERT_EQ(vdxStartVDevice(1), VDX_STATUS_SUCCESS);
  Ctl({"usage", kGpu0, "1", "4242"});
  vdxDeviceInfo info;
  ASSERT_EQ(vdxGetVDeviceInfo(1, &info), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(info.name, "ZO XC-100 32G");
  EXPECT_EQ(info.compute_unit_count, 8);
  EXPECT_EQ(info.global_mem_size, 2048 * kMiB);
  EXPECT_EQ(info.usage_mem_size, 4242u);
  EXPECT_EQ(info.container_id, 0u);
  EXPECT_EQ(info.device_id, 0);
  ASSERT_EQ(vdxGetVDeviceInfo(2, &info), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(info.name, "ZO XC-200");
  EXPECT_EQ(info.usage_mem_size, 0u) << "not started";
  EXPECT_EQ(info.device_id, 1);

  EXPECT_EQ(vdxGetVDeviceInfo(32, &info), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(vdxGetVDeviceInfo(0, nullptr), VDX_STATUS_INVALID_ARGUMENTS);
  const std::string out =
      Stdout([&] { EXPECT_EQ(vdxGetVDeviceInfo(5, &info), VDX_STATUS_VDEV_NOT_EXIST); });
  EXPECT_TRUE(Has(out, "] [GetVirtualDeviceInfo] Virtual device(5) not exist.")) << out;
}

// With groups, a virtual device is part of its container's group: the whole device's units,
// and the group's usage in the proportion of the device's memory to the group's limit.
TEST(Queries, InformationWithGroups) {
  ASSERT_EQ(Create(0, {0, 0}, {4096, 1024}), VDX_STATUS_SUCCESS);
  MakeGroup(0x55, 0x1, 8192 * kMiB);
  Ctl({"group-usage", "0x55", kGpu0, "1000"});
  vdxDeviceInfo info;
  ASSERT_EQ(vdxGetVDeviceInfo(0, &info), VDX_STATUS_SUCCESS);
  EXPECT_EQ(info.container_id, 0x55u);
  EXPECT_EQ(info.compute_unit_count, 60);
  EXPECT_EQ(info.usage_mem_size, 500u);
  ASSERT_EQ(vdxGetVDeviceInfo(1, &info), VDX_STATUS_SUCCESS);
  EXPECT_EQ(info.container_id, 0u) << "in no group";
}

TEST(Queries, RefusedInAContainer) {
  WriteVdev(1, VdevFile{}, true);
  int count = -1;
  EXPECT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 0);
  vdxDeviceInfo info;
  EXPECT_EQ(vdxGetVDeviceInfo(1, &info), VDX_STATUS_NOT_SUPPORTED);
  int percent = 0;
  EXPECT_EQ(vdxGetVDevBusyPercent(1, &percent), VDX_STATUS_NOT_SUPPORTED);
  EXPECT_EQ(vdxStartVDevice(1), VDX_STATUS_NOT_SUPPORTED);
  EXPECT_EQ(vdxDestroySingleVDevice(1), VDX_STATUS_NOT_SUPPORTED);
}

int DevicePercent(int device) {
  int percent = -1;
  EXPECT_EQ(vdxGetDevBusyPercent(device, &percent), VDX_STATUS_SUCCESS);
  return percent;
}

TEST(Busy, OfDevicesAndStartedVirtualDevices) {
  Ctl({"busy", kGpu0, "0x7f"});
  EXPECT_EQ(DevicePercent(0), 11) << "7 of 60, truncated";
  Ctl({"busy", kGpu1, "0xffff", "0xffff", "0x1"});
  EXPECT_EQ(DevicePercent(1), 51) << "33 of 64";
  int percent = 0;
  EXPECT_EQ(vdxGetDevBusyPercent(2, &percent), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(vdxGetDevBusyPercent(0, nullptr), VDX_STATUS_INVALID_ARGUMENTS);

  ASSERT_EQ(Create(0, {0, 8}, {100, 100}), VDX_STATUS_SUCCESS);  // 1 holds units 0 to 7
  percent = -7;
  EXPECT_EQ(vdxGetVDevBusyPercent(1, &percent), VDX_STATUS_QUERY_VDEV_INFO_FAILED)
      << "not started";
  EXPECT_EQ(percent, -7);
  ASSERT_EQ(vdxStartVDevice(1), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxGetVDevBusyPercent(1, &percent), VDX_STATUS_SUCCESS);
  EXPECT_EQ(percent, 87) << "7 of its 8 units";
  // A sharing device has no units of its own: the quotient has no value.
  ASSERT_EQ(vdxStartVDevice(0), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxGetVDevBusyPercent(0, &percent), VDX_STATUS_SUCCESS);
  EXPECT_EQ(percent, INT_MIN);
  EXPECT_EQ(vdxGetVDevBusyPercent(9, &percent), VDX_STATUS_VDEV_NOT_EXIST);
}

TEST(Busy, InAContainerInVdevMode) {
  VdevFile mine;
  mine.pipe_id = 3;
  mine.mask_low = 0xff00;  // units 8 to 15
  WriteVdev(0, mine, true);
  MakeInstance(rawsim::kGpu0, 3, {0xff00, 0, 0, 0}, 4096 * kMiB, 0);
  Ctl({"busy", kGpu0, "0x0f0f"});
  EXPECT_EQ(DevicePercent(0), 50) << "4 of the slice's 8 units";
}

TEST(Busy, InAContainerInGroupMode) {
  VdevFile shared;
  shared.cu_count = 0;
  shared.mask_low = 0;
  WriteVdev(0, shared, true);
  Ctl({"busy", kGpu0, "0x7f"});
  EXPECT_EQ(DevicePercent(0), 11) << "the whole device";
}

}  // namespace
