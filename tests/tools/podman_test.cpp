// Containers through a real engine: Podman, in vdx-sim --containers, consumes the CDI file
// that `vdxctl cdi generate` writes, and the built vdxctl inside the container shows what
// the library there finds. Each case has its own sandbox; the container's root file system
// is made from the build tree by scripts/container-rootfs. Skipped, and says why, where
// Podman, runc or a static busybox is not installed (scripts/setup installs them).
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "sim/ctl_client.h"
#include "tests/tools/tool_harness.h"

namespace {

using nlohmann::json;
using namespace vdxtest;

// Podman as this machine needs it:
// - --root, --runroot, --tmpdir: its storage under the sandbox's private /tmp, so nothing of
//   it reaches the host and every case starts empty;
// - --storage-driver vfs: no image layers to stack (the root file system is a directory);
// - --events-backend none: no journal to write events to;
// - --runtime runc: crun refuses this machine's mixed cgroup v1/v2 layout;
// - --network host: the simulated driver is reached over the sandbox's network namespace;
// - --ulimit: the default limits exceed this machine's hard limits;
// - --rootfs DIR:O: a directory as the root file system, since no image can be pulled, with
//   an overlay so that the container's writes stay its own;
// - the CDI device vdx-sim.zovdx.dev/machine=sim: the simulator's driver tree, module state
//   and preload library (vdx-sim --containers writes it); on real hardware it is not needed.
const char kPodman[] =
    "podman --root /tmp/podman/root --runroot /tmp/podman/run --tmpdir /tmp/podman/tmp "
    "--storage-driver vfs --events-backend none --runtime runc run --rm --network host "
    "--ulimit nofile=20000:20000 --ulimit nproc=1000:1000 "
    "--device vdx-sim.zovdx.dev/machine=sim ";

class Podman : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* tool : {"podman", "runc", "busybox"}) {
      if (Shell(std::string("command -v ") + tool).exit != 0)
        GTEST_SKIP() << tool << " is not installed (scripts/setup installs podman, runc, "
                     << "busybox-static)";
    }
    const Result rootfs = Shell(std::string(ROOTFS_SCRIPT) + " /tmp/rootfs " + BUILD_DIR);
    ASSERT_EQ(rootfs.exit, 0) << rootfs.err;
  }

  // Runs `command` in a container given the CDI devices `devices` (names after the kind).
  static Result Run(const std::vector<std::string>& devices, const std::string& command) {
    std::string line = kPodman;
    for (const std::string& device : devices) line += "--device zovdx.dev/vdev=" + device + " ";
    return Shell(line + "--rootfs /tmp/rootfs:O " + command);
  }

  // vdxctl --format json devices in a container given `devices`.
  static json DevicesSeenBy(const std::vector<std::string>& devices) {
    const Result r = Run(devices, "vdxctl --format json devices");
    EXPECT_EQ(r.exit, 0) << r.err;
    return r.exit == 0 ? json::parse(r.out)["devices"] : json::array();
  }

  // Virtual devices 0 (8 units, 1 GiB) and 1 (4 units, 2 GiB) on device 0, started by vdxd,
  // and the CDI file for them.
  static void TwoVirtualDevices() {
    ASSERT_EQ(Vdxctl("create 0 --units 8,4 --memory 1024,2048").exit, 0);
    ASSERT_EQ(Vdxctl("cdi generate --output /etc/cdi/zovdx.json").exit, 0);
  }
};

constexpr double kGiB = 1024.0 * 1024 * 1024;

// The container sees exactly its virtual device: its units, its memory limit, and a busy
// percentage that only the driver knows (virtual device 1's units are 8 to 11).
TEST_F(Podman, AContainerSeesExactlyItsVirtualDevice) {
  TwoVirtualDevices();
  Daemon daemon;
  ASSERT_TRUE(Within([] { return Instances().size() == 2; }));
  std::string ignored;
  ASSERT_EQ(vdxsim::SimControl({"busy", "21735", "0xf00"}, &ignored), 0);

  json seen = DevicesSeenBy({"1"});
  ASSERT_EQ(seen.size(), 1u) << seen;
  EXPECT_EQ(seen[0]["compute_units"], 4);
  EXPECT_EQ(seen[0]["memory_bytes"], 2 * kGiB);
  EXPECT_EQ(seen[0]["busy_percent"], 100);
  seen = DevicesSeenBy({"0"});
  ASSERT_EQ(seen.size(), 1u) << seen;
  EXPECT_EQ(seen[0]["compute_units"], 8);
  EXPECT_EQ(seen[0]["busy_percent"], 0);
  // Its configuration file is there read-only; the host's others are not there at all.
  const Result files = Run({"1"}, "sh -c 'ls /etc/vdev/docker; echo x >> /etc/vdev/docker/vdev1.conf'");
  EXPECT_EQ(files.out, "vdev1.conf\n");
  EXPECT_NE(files.exit, 0);
}

// Inside, every change is refused with the library's status (6, exit 106), and the host's
// configuration is as it was.
TEST_F(Podman, ChangesAreRefusedInside) {
  TwoVirtualDevices();
  const std::string before = Slurp("/etc/vdev/vdev1.conf");
  for (const char* change : {"create 0 --count 1", "update 1 --units 2", "destroy 1",
                             "destroy --device 0"}) {
    const Result r = Run({"1"}, std::string("vdxctl ") + change);
    EXPECT_EQ(r.exit, 106) << change << ": " << r.err;
    EXPECT_TRUE(Has(r.err, "(status 6)")) << change << ": " << r.err;
  }
  EXPECT_EQ(Slurp("/etc/vdev/vdev1.conf"), before);
  EXPECT_EQ(JsonOf("vdevs")["virtual_devices"].size(), 2u);
}

// A virtual device that shares its device's units runs its containers as a group: two
// containers use it at the same time, and each sees the device's busy units. When they are
// gone, nothing of them is left in the driver or on the host.
TEST_F(Podman, ASharingVirtualDeviceServesTwoContainersAtOnce) {
  ASSERT_EQ(Vdxctl("create 0 --units 0,0 --memory 1024,1024").exit, 0);
  ASSERT_EQ(Vdxctl("cdi generate --output /etc/cdi/zovdx.json").exit, 0);
  Daemon daemon;
  ASSERT_TRUE(Within([] { return Instances().size() == 2; }));
  std::string ignored;
  ASSERT_EQ(vdxsim::SimControl({"busy", "21735", "0x3"}, &ignored), 0);  // 2 of 60 units
  const std::string started = Dump();

  Result both[2];
  const double seconds = SecondsOf([&both] {
    std::thread second([&both] { both[1] = Run({"0"}, "vdxctl --format csv busy --watch 1 --rounds 2"); });
    both[0] = Run({"0"}, "vdxctl --format csv busy --watch 1 --rounds 2");
    second.join();
  });
  for (const Result& r : both) {
    EXPECT_EQ(r.exit, 0) << r.err;
    EXPECT_EQ(Count(r.out, ",device,0,3\n"), 2u) << r.out;
  }
  EXPECT_LT(seconds, 3.5) << "the two ran side by side";
  EXPECT_EQ(Dump(), started) << "the driver holds what vdxd started, and nothing else";
  EXPECT_NE(access("/etc/vdev/docker", F_OK), 0);
}

// An update replaces the configuration file; a container holds the file it started with
// until it is restarted, and vdxctl says so when a CDI file hands that virtual device out.
TEST_F(Podman, AnUpdateReachesContainersStartedAfterIt) {
  TwoVirtualDevices();
  Daemon daemon;
  ASSERT_TRUE(Within([] { return Instances().size() == 2; }));
  Result running;
  std::thread old([&running] {
    running = Run({"1"}, "sh -c 'sleep 2; grep cu_count /etc/vdev/docker/vdev1.conf; "
                         "vdxctl --format csv devices'");
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  const Result update = Vdxctl("update 1 --units 6 --memory 4096");
  old.join();
  EXPECT_EQ(update.exit, 0) << update.err;
  EXPECT_TRUE(Has(update.err, "warning: /etc/cdi/zovdx.json hands virtual device 1 to containers"))
      << update.err;
  EXPECT_TRUE(Has(running.out, "cu_count: 4\n")) << running.out;
  EXPECT_TRUE(Has(running.out, "\n0,ZO XC-100 32G,4,2147483648,")) << running.out;
  const json fresh = DevicesSeenBy({"1"});
  ASSERT_EQ(fresh.size(), 1u);
  EXPECT_EQ(fresh[0]["compute_units"], 6);
  EXPECT_EQ(fresh[0]["memory_bytes"], 4 * kGiB);
  // A virtual device that no CDI file hands out is changed without a word.
  ASSERT_EQ(Vdxctl("create 1 --units 4 --memory 512").exit, 0);
  const Result quiet = Vdxctl("update 2 --memory 1024");
  EXPECT_EQ(quiet.exit, 0);
  EXPECT_FALSE(Has(quiet.err, "warning")) << quiet.err;
}

}  // namespace
