// Physical devices, what is left of them, and creating virtual devices, through the shipped
// library in the simulator (one sandbox per case). Files are checked byte for byte.
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <ctime>
#include <string>

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

// What the library writes for a virtual device, as the tests expect it on disk.
std::string Expected(const char* pci, uint64_t mask_low, int units, int mib, int device, int id,
                     int pipe, uint64_t mask_high = 0) {
  VdevFile f;
  f.pci = pci;
  f.mask_low = mask_low;
  f.mask_high = mask_high;
  f.cu_count = units;
  f.mem = mib;
  f.device_id = device;
  f.vdev_id = id;
  f.pipe_id = pipe;
  return e2e::Text(f);
}

std::string OnDisk(int id) { return e2e::ReadAll("/etc/vdev/vdev" + std::to_string(id) + ".conf"); }

void ExpectRemaining(int device, size_t units, size_t mib) {
  size_t cus = 0, bytes = 0;
  ASSERT_EQ(vdxGetDeviceRemainingInfo(device, &cus, &bytes), VDX_STATUS_SUCCESS);
  EXPECT_EQ(cus, units);
  EXPECT_EQ(bytes, mib * kMiB);
}

// Moves the configuration directory's time forward, as another process's change a second
// later would, so that the next call reads the files again.
void TouchConfiguration() {
  struct utimbuf times;
  times.actime = times.modtime = time(nullptr) + 2;
  ASSERT_EQ(utime("/etc/vdev", &times), 0);
}

TEST(DeviceInfo, OnTheHost) {
  int count = 0;
  ASSERT_EQ(vdxGetDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 2);
  Ctl({"available", std::to_string(rawsim::kGpu0), std::to_string((32768 - 5000) * kMiB)});
  vdxDeviceInfo info;
  ASSERT_EQ(vdxGetDeviceInfo(0, &info), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(info.name, "ZO XC-100 32G");
  EXPECT_EQ(info.compute_unit_count, 60);
  EXPECT_EQ(info.global_mem_size, 32768 * kMiB);
  EXPECT_EQ(info.usage_mem_size, 5000 * kMiB);
  EXPECT_EQ(info.device_id, 0);
  EXPECT_EQ(info.container_id, 0u);
  ASSERT_EQ(vdxGetDeviceInfo(1, &info), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(info.name, "ZO XC-200");
  EXPECT_EQ(info.compute_unit_count, 64);
  EXPECT_EQ(info.global_mem_size, 16384 * kMiB);
  EXPECT_EQ(info.usage_mem_size, 0u);
  EXPECT_EQ(info.device_id, 1);

  EXPECT_EQ(vdxGetDeviceInfo(2, &info), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(vdxGetDeviceInfo(-1, &info), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(vdxGetDeviceInfo(0, nullptr), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(vdxGetDeviceCount(nullptr), VDX_STATUS_INVALID_ARGUMENTS);
}

// In a container on virtual devices, its virtual devices are its devices; the usage and the
// owner come from the driver's instance where there is one.
TEST(DeviceInfo, InAContainerInVdevMode) {
  setenv("VDX_CONTAINER_ID", "c0ffee", 1);
  VdevFile mine;
  mine.vdev_id = 1;
  mine.pipe_id = 2;
  mine.mem = 4096;
  WriteVdev(1, mine, true);
  VdevFile other;
  other.pci = e2e::kPci1;
  other.device_id = 1;
  other.vdev_id = 4;
  other.cu_count = 16;
  other.mask_low = 0xffff;
  other.mem = 2048;
  WriteVdev(4, other, true);
  const int fd = rawsim::OpenDevice();
  ASSERT_GE(fd, 0);
  ASSERT_EQ(rawsim::CreateVgpu(fd, rawsim::kGpu0, 2, {0xff, 0, 0, 0}, 4096 * kMiB, 0x777), 0);
  Ctl({"usage", std::to_string(rawsim::kGpu0), "2", "12345"});

  int count = 0;
  ASSERT_EQ(vdxGetDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 2);
  vdxDeviceInfo info;
  ASSERT_EQ(vdxGetDeviceInfo(0, &info), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(info.name, "ZO XC-100 32G");
  EXPECT_EQ(info.compute_unit_count, 8);
  EXPECT_EQ(info.global_mem_size, 4096 * kMiB);
  EXPECT_EQ(info.usage_mem_size, 12345u);
  EXPECT_EQ(info.container_id, 0x777u) << "the instance's owner, as the driver reports it";
  EXPECT_EQ(info.device_id, 0);
  ASSERT_EQ(vdxGetDeviceInfo(1, &info), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(info.name, "ZO XC-200");
  EXPECT_EQ(info.compute_unit_count, 16);
  EXPECT_EQ(info.usage_mem_size, 0u) << "no instance yet";
  EXPECT_EQ(info.container_id, 0xc0ffeeu);
  EXPECT_EQ(info.device_id, 1);
  EXPECT_EQ(vdxGetDeviceInfo(2, &info), VDX_STATUS_INVALID_ARGUMENTS);
  close(fd);
}

TEST(DeviceInfo, InAContainerInGroupMode) {
  setenv("VDX_CONTAINER_ID", "abc", 1);
  const struct {
    int id, device, pipe, mib;
  } shared[] = {{2, 0, 0, 1024}, {3, 0, 1, 512}, {6, 1, 0, 2048}};
  for (const auto& s : shared) {
    VdevFile f;
    f.pci = s.device == 0 ? e2e::kPci0 : e2e::kPci1;
    f.device_id = s.device;
    f.vdev_id = s.id;
    f.pipe_id = s.pipe;
    f.cu_count = 0;
    f.mask_low = 0;
    f.mem = s.mib;
    WriteVdev(s.id, f, true);
  }
  const int fd = rawsim::OpenDevice();
  ASSERT_GE(fd, 0);
  mkfd_ioctl_create_group_args group{};
  group.indentifier = 0xabc;
  group.vram_limit = UINT64_MAX;
  group.group_id = 0x4c;
  ASSERT_EQ(rawsim::Call(fd, MKFD_IOC_CREATE_GROUP, &group), 0);
  Ctl({"group-usage", "0xabc", std::to_string(rawsim::kGpu0), "777"});

  int count = 0;
  ASSERT_EQ(vdxGetDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 2) << "one entry per physical device";
  vdxDeviceInfo info;
  ASSERT_EQ(vdxGetDeviceInfo(0, &info), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(info.name, "ZO XC-100 32G");
  EXPECT_EQ(info.compute_unit_count, 0);
  EXPECT_EQ(info.global_mem_size, 1536 * kMiB);
  EXPECT_EQ(info.usage_mem_size, 777u);
  EXPECT_EQ(info.container_id, 0xabcu);
  ASSERT_EQ(vdxGetDeviceInfo(1, &info), VDX_STATUS_SUCCESS);
  EXPECT_EQ(info.device_id, 1);
  EXPECT_EQ(info.global_mem_size, 2048 * kMiB);
  close(fd);
}

TEST(DeviceInfo, UnderMigModeTheDriverIsNotAsked) {
  setenv("VDX_CONTAINER_ID", "c0ffee", 1);
  Ctl({"system-mode", "mig"});
  VdevFile mine;
  mine.pipe_id = 2;
  WriteVdev(0, mine, true);
  const int fd = rawsim::OpenDevice();
  ASSERT_GE(fd, 0);
  ASSERT_EQ(rawsim::CreateVgpu(fd, rawsim::kGpu0, 2, {0xff, 0, 0, 0}, 4096 * kMiB, 0x777), 0);
  Ctl({"usage", std::to_string(rawsim::kGpu0), "2", "12345"});
  vdxDeviceInfo info;
  ASSERT_EQ(vdxGetDeviceInfo(0, &info), VDX_STATUS_SUCCESS);
  EXPECT_EQ(info.usage_mem_size, 0u);
  EXPECT_EQ(info.container_id, 0xc0ffeeu);
  close(fd);
}

TEST(Create, EvenSplitWithTheRemaindersOnTheLast) {
  e2e::ShowDebugLines();
  ExpectRemaining(0, 60, 32768);
  ASSERT_EQ(Create(0, {}, {}, 4), VDX_STATUS_SUCCESS);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(OnDisk(i), Expected(e2e::kPci0, 0x7fffull << (15 * i), 15, 8192, 0, i, i)) << i;
  }
  ExpectRemaining(0, 0, 0);

  const std::string out = Stdout([] { ASSERT_EQ(Create(1, {}, {}, 3), VDX_STATUS_SUCCESS); });
  EXPECT_TRUE(Has(out, "Remain cus(1), memories(1 MiB).")) << out;
  EXPECT_EQ(OnDisk(4), Expected(e2e::kPci1, 0x1fffff, 21, 5461, 1, 4, 0));
  EXPECT_EQ(OnDisk(5), Expected(e2e::kPci1, 0x1fffffull << 21, 21, 5461, 1, 5, 1));
  // The last takes units 42 to 63: 22 units, across no word boundary of the file.
  EXPECT_EQ(OnDisk(6), Expected(e2e::kPci1, 0x3fffffull << 42, 22, 5462, 1, 6, 2));
  ExpectRemaining(1, 0, 0);
}

TEST(Create, ExplicitUnitsAndMemoryLowestUnitsFirst) {
  ASSERT_EQ(Create(1, {8, 8}, {1000, 2000}), VDX_STATUS_SUCCESS);
  EXPECT_EQ(OnDisk(0), Expected(e2e::kPci1, 0xff, 8, 1000, 1, 0, 0));
  EXPECT_EQ(OnDisk(1), Expected(e2e::kPci1, 0xff00, 8, 2000, 1, 1, 1));
  ExpectRemaining(1, 48, 16384 - 3000);
  ASSERT_EQ(Create(1, {50}, {100}), VDX_STATUS_OUT_OF_RESOURCES);
  ASSERT_EQ(Create(1, {48}, {13385}), VDX_STATUS_OUT_OF_RESOURCES);
  ASSERT_EQ(Create(1, {48}, {13384}), VDX_STATUS_SUCCESS);
  EXPECT_EQ(OnDisk(2), Expected(e2e::kPci1, 0xffffffffffff0000ull, 48, 13384, 1, 2, 2));
  ExpectRemaining(1, 0, 0);
}

TEST(Create, TheSharingRuleBothWays) {
  e2e::ShowDebugLines();
  std::string out = Stdout([] { EXPECT_EQ(Create(0, {8, 0}, {}), VDX_STATUS_NOT_SUPPORTED); });
  EXPECT_TRUE(Has(out, "cu sharing requires that the cu of each virtual device be 0!")) << out;
  EXPECT_EQ(Create(0, {0, 8, 0}, {}), VDX_STATUS_NOT_SUPPORTED);
  ASSERT_EQ(Create(0, {0, 8}, {}), VDX_STATUS_SUCCESS);
  EXPECT_EQ(OnDisk(0), Expected(e2e::kPci0, 0, 0, 16384, 0, 0, 0));
  EXPECT_EQ(OnDisk(1), Expected(e2e::kPci0, 0xff, 8, 16384, 0, 1, 1));
  ASSERT_EQ(Create(1, {0, 0}, {100, 200}), VDX_STATUS_SUCCESS);
  EXPECT_EQ(OnDisk(2), Expected(e2e::kPci1, 0, 0, 100, 1, 2, 0));
  EXPECT_EQ(OnDisk(3), Expected(e2e::kPci1, 0, 0, 200, 1, 3, 1));
  ExpectRemaining(1, 64, 16384 - 300);  // sharing devices hold no units

  out = Stdout([] { EXPECT_EQ(Create(1, {}, {100, 0}), VDX_STATUS_ERROR); });
  EXPECT_TRUE(Has(out, "invalid cu_config[1](32) or mem_config[1](0).")) << out;
}

TEST(Create, PipesAndIdsLowestFirst) {
  e2e::ShowDebugLines();
  for (int pipe : {0, 2}) {
    VdevFile f;
    f.vdev_id = pipe;
    f.pipe_id = pipe;
    f.mask_low = 1ull << pipe;
    f.cu_count = 1;
    f.mem = 100;
    WriteVdev(pipe, f);
  }
  const std::string out = Stdout([] { EXPECT_EQ(Create(0, {}, {}, 3), VDX_STATUS_OUT_OF_RESOURCES); });
  EXPECT_TRUE(Has(out, "only 2 virtual devices can be created on device 0.")) << out;
  ASSERT_EQ(Create(0, {2, 2}, {100, 100}), VDX_STATUS_SUCCESS);
  // Ids 1 and 3 were free; pipes 1 and 3 too; units 1, 3, 4 and 5 (0 and 2 are taken).
  EXPECT_EQ(OnDisk(1), Expected(e2e::kPci0, 0xa, 2, 100, 0, 1, 1));
  EXPECT_EQ(OnDisk(3), Expected(e2e::kPci0, 0x30, 2, 100, 0, 3, 3));

  // An id freed in the middle is the next one given.
  ASSERT_EQ(Create(1, {1, 1}, {100, 100}), VDX_STATUS_SUCCESS);  // ids 4 and 5
  ASSERT_EQ(unlink("/etc/vdev/vdev2.conf"), 0);
  TouchConfiguration();
  ASSERT_EQ(Create(1, {1}, {100}), VDX_STATUS_SUCCESS);
  EXPECT_EQ(OnDisk(2), Expected(e2e::kPci1, 0x4, 1, 100, 1, 2, 2));
}

TEST(Create, ShortagesOfUnitsMemoryAndPipes) {
  e2e::ShowDebugLines();
  ASSERT_EQ(Create(0, {60}, {100}), VDX_STATUS_SUCCESS);
  std::string out = Stdout([] { EXPECT_EQ(Create(0, {}, {}, 1), VDX_STATUS_OUT_OF_RESOURCES); });
  EXPECT_TRUE(Has(out, "the remaining resources are not enough.")) << out;
  EXPECT_EQ(Create(0, {0}, {100}), VDX_STATUS_OUT_OF_RESOURCES) << "no unit left at all";

  ASSERT_EQ(Create(1, {1}, {16384}), VDX_STATUS_SUCCESS);
  EXPECT_EQ(Create(1, {1}, {1}), VDX_STATUS_OUT_OF_RESOURCES) << "no memory left";
  ExpectRemaining(1, 63, 0);
  out = Stdout([] { EXPECT_EQ(Create(1, {1}, {1}), VDX_STATUS_OUT_OF_RESOURCES); });
  EXPECT_TRUE(Has(out, "the remaining resources are not enough.")) << out;
}

TEST(Create, ShortageOfPipes) {
  ASSERT_EQ(Create(1, {1, 1, 1, 1}, {10, 10, 10, 10}), VDX_STATUS_SUCCESS);
  EXPECT_EQ(Create(1, {1}, {10}), VDX_STATUS_OUT_OF_RESOURCES);
  ExpectRemaining(1, 60, 16344);
}

// Configuration files that promise more than the device has block every creation on it.
void ExpectOvercommitted(const VdevFile& file) {
  WriteVdev(file.vdev_id, file);
  EXPECT_EQ(Create(0, {1}, {10}), VDX_STATUS_OUT_OF_RESOURCES);
  size_t cus = 0, bytes = 0;
  EXPECT_EQ(vdxGetDeviceRemainingInfo(0, &cus, &bytes), VDX_STATUS_OUT_OF_RESOURCES);
  EXPECT_EQ(Create(1, {1}, {10}), VDX_STATUS_SUCCESS) << "the other device is unaffected";
}

TEST(Overcommitted, UnitsBeyondTheDevice) {
  VdevFile f;
  f.mask_low = 1ull << 62;  // the device has 60 units
  f.cu_count = 1;
  ExpectOvercommitted(f);
}

TEST(Overcommitted, MoreUnitsCountedThanTheDeviceHas) {
  VdevFile f;
  f.cu_count = 61;
  ExpectOvercommitted(f);
}

TEST(Overcommitted, APipeAboveThree) {
  VdevFile f;
  f.pipe_id = 5;
  ExpectOvercommitted(f);
}

TEST(Overcommitted, MemoryBeyondTheDevice) {
  VdevFile f;
  f.mem = 32769;
  ExpectOvercommitted(f);
}

// The order of the checks: privilege, then the container, then the arguments; each change
// says which in its own words.
TEST(CreateChecks, NotRootComesFirst) {
  e2e::ShowDebugLines();
  ASSERT_EQ(vdxGetDeviceCount(nullptr), VDX_STATUS_INVALID_ARGUMENTS);  // started as root
  ASSERT_EQ(seteuid(65534), 0);
  vdxStatus statuses[4];
  const std::string out = Stdout([&statuses] {
    statuses[0] = Create(7, {}, {}, 0);
    statuses[1] = vdxDestroyVDevices(0);
    statuses[2] = vdxDestroySingleVDevice(0);
    statuses[3] = vdxUpdateSingleVDevice(0, 1, 1);
  });
  ASSERT_EQ(seteuid(0), 0);
  for (vdxStatus status : statuses) EXPECT_EQ(status, VDX_STATUS_PERMISSION);
  for (const char* line :
       {"[CreateVirtualDevices] \033[31mError\033[0m: create virtual devices failed, root "
        "privilege required.\n",
        "[DestroyVirtualDevices] \033[31mError\033[0m: destroy virtual devices failed, root "
        "privilege required.\n",
        "[DestroyVirtualDevice] \033[31mError\033[0m: destroy virtual device failed, root "
        "privilege required.\n",
        "[UpdateVirtualDevice] \033[31mError\033[0m: update virtual device failed, root "
        "privilege required.\n"})
    EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
}

TEST(CreateChecks, AContainerComesBeforeTheArguments) {
  WriteVdev(1, VdevFile{}, true);
  e2e::ShowDebugLines();
  const std::string out = Stdout([] {
    EXPECT_EQ(Create(7, {}, {}, 0), VDX_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(vdxDestroyVDevices(0), VDX_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(vdxDestroySingleVDevice(0), VDX_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(vdxUpdateSingleVDevice(0, 1, 1), VDX_STATUS_NOT_SUPPORTED);
  });
  for (const char* line :
       {"[CreateVirtualDevices] \033[31mError\033[0m: current is docker env, not support.\n",
        "[DestroyVirtualDevices] \033[31mError\033[0m: current process is running in docker "
        "virtual env, not support.\n",
        "[DestroyVirtualDevice] \033[31mError\033[0m: current process is running in docker "
        "virtual env, not support.\n",
        "[UpdateVirtualDevice] \033[31mError\033[0m: current is docker virtual env, not "
        "support.\n"})
    EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
  size_t cus = 0, bytes = 0;
  EXPECT_EQ(vdxGetDeviceRemainingInfo(-1, &cus, &bytes), VDX_STATUS_NOT_SUPPORTED);
}

TEST(WriteFailure, AFullConfigurationStore) {
  e2e::ShowDebugLines();
  ASSERT_EQ(Create(0, {1}, {10}), VDX_STATUS_SUCCESS);
  Ctl({"etc", "full"});
  const std::string out = Stdout([] { EXPECT_EQ(Create(0, {2}, {20}), VDX_STATUS_ERROR); });
  EXPECT_TRUE(Has(out, "write text file /etc/vdev/vdev1.conf failed.")) << out;
  // What the disk says: one virtual device (the cut file is no virtual device).
  ExpectRemaining(0, 59, 32758);
  Ctl({"etc", "space"});
  TouchConfiguration();
  ASSERT_EQ(Create(0, {2}, {20}), VDX_STATUS_SUCCESS);
  ExpectRemaining(0, 57, 32738);
}

// Whatever is planted under the files' names costs only its own ids: no crash, no hang, the
// good file beside it loads and can be changed, and a new virtual device can still be made.
TEST(HostileFiles, JunkCostsOnlyItsOwnIds) {
  e2e::ShowDebugLines();
  WriteVdev(0, VdevFile{});
  ASSERT_EQ(mkdir("/etc/vdev/vdev1.conf", 0755), 0);
  std::string binary;
  for (int i = 0; i < 2560; ++i) binary += static_cast<char>(i % 256);
  e2e::WriteText("/etc/vdev", "vdev2.conf", binary);
  std::string huge;
  while (huge.size() < (1u << 20)) huge += "mem: 5 MiB\n";
  e2e::WriteText("/etc/vdev", "vdev3.conf", huge);
  ASSERT_EQ(symlink("/dev/zero", "/etc/vdev/vdev4.conf"), 0);
  ASSERT_EQ(mkfifo("/etc/vdev/vdev5.conf", 0644), 0);
  VdevFile big_id;
  big_id.vdev_id = 40;
  big_id.pipe_id = 1;
  big_id.mask_low = 0xff00;
  WriteVdev(6, big_id);
  e2e::WriteText("/etc/vdev", "vdev7.conf",
                 "PciBusId: 0000:03:00.0\ncu_count: 1\nmem: -5 MiB\nvdev_id: 7\nenable: 1\n");
  ASSERT_EQ(symlink("/etc/vdev/vdev0.conf", "/etc/vdev/vdev8.conf"), 0);

  int count = -1;
  const std::string out = Stdout([&] { EXPECT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS); });
  EXPECT_EQ(count, 1);
  for (const char* expected : {
           "vdev1.conf' has been damaged, due to not a regular file.",
           "vdev2.conf' has been damaged, due to",
           "vdev3.conf' has been damaged, due to a size of ",
           "failed to open file '/etc/vdev/vdev4.conf' - Too many levels of symbolic links.",
           "vdev5.conf' has been damaged, due to not a regular file.",
           "vdev6.conf' has been damaged, due to vdev_id 40 out of range.",
           "vdev7.conf' has been damaged, due to a negative value for mem:.",
           "failed to open file '/etc/vdev/vdev8.conf' - Too many levels of symbolic links."}) {
    EXPECT_TRUE(Has(out, expected)) << expected << "\n" << out;
  }

  EXPECT_EQ(vdxUpdateSingleVDevice(0, -1, 2048), VDX_STATUS_SUCCESS);
  // Id 1 is a directory that no file can replace: the new virtual device takes id 2.
  ASSERT_EQ(Create(0, {4}, {100}), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(Has(OnDisk(2), "vdev_id: 2\n")) << OnDisk(2);
  struct stat st;
  ASSERT_EQ(stat("/etc/vdev/vdev1.conf", &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  ASSERT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 2);
}

}  // namespace
