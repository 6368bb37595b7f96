// The started manager inside the simulator, looked at from inside: the driver's groups read
// from sysfs, the run modes made real in the driver, the instances torn down at exit, start
// and stop of lists, and many threads at once. One sandbox per test case.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <set>
#include <thread>
#include <string>

#include <gtest/gtest.h>

#include "mkfd/include/dmkfd.h"
#include "mkfd/mkfd_interface.h"
#include "sim/ctl_client.h"
#include "tests/virtual/dmvirtual_peer.h"
#include "tests/virtual/e2e_support.h"
#include "zovdx/vdx.h"

namespace {

using e2e::Has;
using e2e::VdevFile;
using e2e::WriteVdev;

std::string Dump() {
  std::string out;
  EXPECT_EQ(vdxsim::SimControl({"dump"}, &out), 0);
  return out;
}

// Starts the manager (the first gated call) and returns it.
Dmvirtual& Started() {
  EXPECT_EQ(vdxGetMaxVDeviceCount(nullptr), VDX_STATUS_INVALID_ARGUMENTS);
  return Dmvirtual::Instance();
}

// A group made in the driver before the start-up (by another process, as a container
// runtime would) is read from sysfs.
TEST(StartedManager, ReadsTheDriversGroups) {
  ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdCreateGroup(0x24, 0x1a2b3c4d5e, UINT64_MAX), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  // A directory whose name is not hexadecimal is not a group.
  ASSERT_EQ(system("mkdir -p /sys/devices/virtual/kfd/kfd/group/zz"), 0);

  DmvirtualPeer peer(Started());
  ASSERT_EQ(peer.groups().size(), 1u);
  EXPECT_EQ(peer.groups()[0].container_id, 0x1a2b3c4d5eu);
  EXPECT_EQ(peer.groups()[0].group_id, 0x24u);

  // A refresh keeps the known group (copied, not read again) and nothing else, however
  // often a long-running process asks.
  for (int round = 0; round < 5000; ++round) ASSERT_EQ(peer.InitSysGroup(), VDX_STATUS_SUCCESS);
  ASSERT_EQ(peer.groups().size(), 1u);
  EXPECT_EQ(peer.groups()[0].group_id, 0x24u);
  EXPECT_LE(peer.groups().capacity(), 4u);
}

// A container's own virtual devices are made real in the driver as instances with the
// configured units and limit, owned by the container, and the process runs on their pipes.
TEST(RunModes, VdevModeCreatesTheBoundInstances) {
  setenv("VDX_CONTAINER_ID", "c0ffee", 1);
  VdevFile a;
  a.vdev_id = 1;
  a.pipe_id = 2;
  a.mask_low = 0xf0;
  a.cu_count = 4;
  a.mem = 1024;
  WriteVdev(1, a, true);
  DmvirtualPeer peer(Started());
  ASSERT_EQ(peer.mode(), DM_PROCESS_VDEV_MODE);
  ASSERT_EQ(peer.RunVdevMode(), VDX_STATUS_SUCCESS);

  dmkfdVdevInfo instance{};
  ASSERT_EQ(dmkfdQueryVdevInfo(0, 2, &instance), VDX_STATUS_SUCCESS);
  EXPECT_EQ(instance.vram_limit, 1024ull << 20);
  EXPECT_EQ(instance.cu_mask[0], 0xf0u);
  EXPECT_EQ(instance.indentifier, 0xc0ffeeu);
  const std::string dump = Dump();
  EXPECT_TRUE(Has(dump, "pid " + std::to_string(getpid()) + " mode vgpu")) << dump;

  // Run again after the configuration changed under the same owner: updated in place.
  peer.bound()[0].memLimit = 2048;
  peer.bound()[0].cuMask = cu_mask_t(0xf00);
  ASSERT_EQ(peer.RunVdevMode(), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdQueryVdevInfo(0, 2, &instance), VDX_STATUS_SUCCESS);
  EXPECT_EQ(instance.vram_limit, 2048ull << 20);
  EXPECT_EQ(instance.cu_mask[0], 0xf00u);

  // Another container's instance on that pipe is not taken over; one the host made (no
  // owner) is.
  peer.docker_id() = 0xbad;
  EXPECT_EQ(peer.RunVdevMode(), VDX_STATUS_ERROR);
  ASSERT_EQ(dmkfdDestroyVdev(0, 2), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdCreateVdev(0, 1, 2, 0, 2048ull << 20, 128, instance.cu_mask), VDX_STATUS_SUCCESS);
  EXPECT_EQ(peer.RunVdevMode(), VDX_STATUS_SUCCESS);
}

TEST(RunModes, GroupModeCreatesTheContainersGroup) {
  setenv("VDX_CONTAINER_ID", "abc", 1);
  for (int id : {2, 6}) {
    VdevFile shared;
    shared.vdev_id = id;
    shared.cu_count = 0;
    shared.mask_low = 0;
    shared.pipe_id = id / 2;
    shared.mem = 512 * id;
    if (id == 6) {
      shared.pci = e2e::kPci1;
      shared.device_id = 1;
    }
    WriteVdev(id, shared, true);
  }
  Dmvirtual& dm = Started();
  DmvirtualPeer peer(dm);
  ASSERT_EQ(peer.mode(), DM_PROCESS_GROUP_MODE);
  ASSERT_EQ(peer.RunGroupMode(), VDX_STATUS_SUCCESS);
  const std::string dump = Dump();
  EXPECT_TRUE(Has(dump, "pid " + std::to_string(getpid()) + " mode group")) << dump;
  ASSERT_EQ(peer.InitSysGroup(), VDX_STATUS_SUCCESS);
  ASSERT_FALSE(peer.groups().empty());
  EXPECT_EQ(peer.groups().back().container_id, 0xabcu);
  EXPECT_EQ(peer.groups().back().group_id, 0x44u);
  dmkfdVdevInfo group{};
  ASSERT_EQ(dmkfdQueryGroupInfo(1, 0xabc, &group), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(group.isExist);
  EXPECT_EQ(group.vram_limit, 3072ull << 20);

  // The group exists now: running again only switches the mode.
  ASSERT_EQ(peer.RunGroupMode(), VDX_STATUS_SUCCESS);
  EXPECT_EQ(dm.DestroyProcessGroup(), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdQueryGroupInfo(1, 0xabc, &group), VDX_STATUS_SUCCESS);
  EXPECT_FALSE(group.isExist);
}

TEST(RunModes, AGroupIsRefusedBesideInstancesOrBeyondTheDevicesMemory) {
  setenv("VDX_CONTAINER_ID", "abc", 1);
  VdevFile shared;
  shared.vdev_id = 2;
  shared.cu_count = 0;
  shared.mem = 40000;  // more than the 32768 MiB of device 0
  WriteVdev(2, shared, true);
  Dmvirtual& dm = Started();
  DmvirtualPeer peer(dm);
  std::vector<virtual_device_info> bound = peer.bound();
  EXPECT_EQ(dm.CreateProcessGroup(bound.data(), 0), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(dm.CreateProcessGroup(bound.data(), 1), VDX_STATUS_OUT_OF_RESOURCES);
  dmkfdVdevInfo group{};
  ASSERT_EQ(dmkfdQueryGroupInfo(0, 0xabc, &group), VDX_STATUS_SUCCESS);
  EXPECT_FALSE(group.isExist) << "the group is destroyed again";
  bound[0].memLimit = 32768;  // all of the device's memory is still within it
  EXPECT_EQ(dm.CreateProcessGroup(bound.data(), 1), VDX_STATUS_SUCCESS);
  EXPECT_EQ(dm.DestroyProcessGroup(), VDX_STATUS_SUCCESS);

  uint32_t mask[4] = {0xff, 0, 0, 0};
  ASSERT_EQ(dmkfdCreateVdev(1, 9, 3, 0, 1ull << 30, 128, mask), VDX_STATUS_SUCCESS);
  bound[0].memLimit = 1024;
  EXPECT_EQ(dm.CreateProcessGroup(bound.data(), 1), VDX_STATUS_NOT_SUPPORTED);

  peer.docker_env() = false;
  EXPECT_EQ(dm.CreateProcessGroup(bound.data(), 1), VDX_STATUS_NOT_SUPPORTED);
  EXPECT_EQ(dm.DestroyProcessGroup(), VDX_STATUS_NOT_SUPPORTED);
}

// Start and stop take lists: ids in ascending order whatever the order asked, duplicates once,
// nothing at all when an id is unknown, and the process bound to what it started.
TEST(StartStop, ListsOfIds) {
  int units[3] = {4, 4, 4};
  int mib[3] = {100, 100, 100};
  ASSERT_EQ(vdxCreateVDevices(0, 3, units, mib), VDX_STATUS_SUCCESS);  // ids 0-2, pipes 0-2
  Dmvirtual& dm = Dmvirtual::Instance();
  DmvirtualPeer peer(dm);

  int unknown[] = {2, 9};
  EXPECT_EQ(dm.StartVirtualDevice(unknown, 2), VDX_STATUS_VDEV_NOT_EXIST);
  dmkfdVdevInfo info{};
  EXPECT_EQ(dmkfdQueryVdevInfo(0, 2, &info), VDX_STATUS_QUERY_VDEV_INFO_FAILED)
      << "an unknown id stops the request before anything is made";
  int too_many[] = {0, 1, 2, 0};
  EXPECT_EQ(dm.StartVirtualDevice(too_many, 4), VDX_STATUS_INVALID_ARGUMENTS);
  EXPECT_EQ(dm.StartVirtualDevice(nullptr, 1), VDX_STATUS_INVALID_ARGUMENTS);

  // Another process already made an instance on id 2's pipe with other units: in ascending
  // order id 0 is made before id 2 fails.
  uint32_t other[4] = {0xf00000, 0, 0, 0};
  ASSERT_EQ(dmkfdCreateVdev(0, 2, 2, 0, 100ull << 20, 128, other), VDX_STATUS_SUCCESS);
  int reversed[] = {2, 0};
  EXPECT_EQ(dm.StartVirtualDevice(reversed, 2), VDX_STATUS_ERROR);
  EXPECT_EQ(dmkfdQueryVdevInfo(0, 0, &info), VDX_STATUS_SUCCESS);
  ASSERT_EQ(dmkfdDestroyVdev(0, 2), VDX_STATUS_SUCCESS);

  int twice[] = {1, 1, 0};
  ASSERT_EQ(dm.StartVirtualDevice(twice, 3), VDX_STATUS_SUCCESS);
  EXPECT_STREQ(getenv("VDX_VDEV_MASK"), "3");
  ASSERT_EQ(peer.bound().size(), 2u);
  EXPECT_EQ(peer.bound()[0].vdev_id, 0);
  EXPECT_EQ(peer.bound()[1].vdev_id, 1);
  EXPECT_EQ(peer.created().size(), 2u) << "each instance counted once";

  ASSERT_EQ(dm.StopVirtualDevice(twice, 3), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(peer.bound().empty());
  EXPECT_TRUE(peer.created().empty());
  EXPECT_EQ(dmkfdQueryVdevInfo(0, 1, &info), VDX_STATUS_QUERY_VDEV_INFO_FAILED);
}

// A destroyed or updated instance leaves this process's list of instances to tear down: by
// its exit the pipe may hold another process's instance.
TEST(StartStop, ADestroyedInstanceIsNotTornDownAgainAtExit) {
  int units[2] = {4, 4};
  int mib[2] = {100, 100};
  ASSERT_EQ(vdxCreateVDevices(0, 2, units, mib), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxStartVDevice(0), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxStartVDevice(1), VDX_STATUS_SUCCESS);
  DmvirtualPeer peer(Dmvirtual::Instance());
  ASSERT_EQ(peer.created().size(), 2u);
  ASSERT_EQ(vdxDestroySingleVDevice(0), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxUpdateSingleVDevice(1, -1, 50), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(peer.created().empty());
}

// Threads of one process calling the library at once: the gate serialises them, and what they
// leave is consistent (the ThreadSanitizer build runs this too).
TEST(Threads, ManyThreadsCallTheLibraryAtOnce) {
  std::atomic<int> created{0}, destroyed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t, &created, &destroyed] {
      for (int i = 0; i < 40; ++i) {
        int units = 1;
        int mib = 1 + t * 100 + i;
        if (vdxCreateVDevices(t % 2, 1, &units, &mib) == VDX_STATUS_SUCCESS) ++created;
        int count = 0;
        vdxGetVDeviceCount(&count);
        vdxDeviceInfo info;
        vdxGetVDeviceInfo((t + i) % 32, &info);
        size_t cus = 0, bytes = 0;
        vdxGetDeviceRemainingInfo(t % 2, &cus, &bytes);
        if (vdxDestroySingleVDevice((t * 7 + i) % 32) == VDX_STATUS_SUCCESS) ++destroyed;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  int count = -1;
  ASSERT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, created - destroyed);
  EXPECT_GT(created.load(), 0);
  DmvirtualPeer peer(Dmvirtual::Instance());
  std::set<int> ids;
  for (const virtual_device_info& vdev : peer.vdevs()) EXPECT_TRUE(ids.insert(vdev.vdev_id).second);
}

}  // namespace
