// Opening the device when the machine lacks it or its topology, on trees shaped by each test
// in a private mount namespace. The device here is a plain file: it opens like the real one.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "mkfd/include/dmkfd.h"
#include "mkfd/mkfd_interface.h"
#include "tests/mkfd/private_machine.h"

namespace {

using mkfd_test::AcceleratorProperties;
using mkfd_test::CountOpenDescriptors;
using mkfd_test::Node;
using mkfd_test::RunInPrivateMachine;

void WriteTwoAccelerators() {
  mkfd_test::WriteTopology({Node{0u, "cpu_cores_count 8\n", {}, true},
                            Node{101u, AcceleratorProperties(0x2E70, 0x5010, 0, 240), {}, true},
                            Node{202u, AcceleratorProperties(0x2E70, 0x5020, 0, 256), {}, true}});
}

TEST(Connection, DescriptorIsCloseOnExec) {
  RunInPrivateMachine([] {
    mkfd_test::CreateFakeDevice();
    WriteTwoAccelerators();
    ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
    ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
    int checked = 0;
    for (int fd = 0; fd < 1024; ++fd) {
      char link[64], target[256] = {};
      snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
      if (readlink(link, target, sizeof(target) - 1) <= 0) continue;
      if (strcmp(target, "/dev/mkfd") != 0) continue;
      EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
      ++checked;
    }
    EXPECT_EQ(checked, 1);
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  });
}

// Several threads closing one open connection at once: exactly one close is real, the count
// never goes below zero, and the next open is a first open again.
TEST(Connection, ConcurrentSurplusClosesCountOnce) {
  RunInPrivateMachine([] {
    mkfd_test::CreateFakeDevice();
    WriteTwoAccelerators();
    const int descriptors = CountOpenDescriptors();
    ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
    constexpr int kThreads = 4;
    for (int round = 0; round < 300; ++round) {
      ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS) << "round " << round;
      std::atomic<int> waiting{kThreads};
      std::atomic<int> closed{0};
      std::vector<std::thread> closers;
      for (int t = 0; t < kThreads; ++t) {
        closers.emplace_back([&] {
          --waiting;
          while (waiting > 0) {
          }
          if (dmkfdCloseMkfd() == VDX_STATUS_SUCCESS) ++closed;
        });
      }
      for (std::thread& closer : closers) closer.join();
      ASSERT_EQ(closed, 1) << "round " << round;
      ASSERT_EQ(MkfdInterface::mkfd_singleton_->OpenCount(), 0) << "round " << round;
    }
    EXPECT_EQ(CountOpenDescriptors(), descriptors);
    EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  });
}

// A command on another thread while the device is being opened sees it either closed or
// open with its whole node map, never open with the map half built.
TEST(Connection, CommandsDuringTheOpenSeeTheWholeMap) {
  RunInPrivateMachine([] {
    mkfd_test::CreateFakeDevice();
    WriteTwoAccelerators();
    ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
    for (int round = 0; round < 200; ++round) {
      std::atomic<bool> started{false};
      std::atomic<bool> stop{false};
      std::atomic<int> wrong{0};
      std::thread reader([&] {
        started = true;
        while (!stop) {
          uint32_t gpu = 0;
          const vdxStatus status = dmkfdGetNodeGpuId(1, &gpu);
          if (status == VDX_STATUS_MKFD_NOT_OPENED) continue;
          if (status != VDX_STATUS_SUCCESS || gpu != 202u) ++wrong;
          break;
        }
      });
      while (!started) {
      }
      const vdxStatus opened = dmkfdOpenMkfd();
      stop = true;
      reader.join();
      ASSERT_EQ(opened, VDX_STATUS_SUCCESS);
      ASSERT_EQ(wrong, 0) << "round " << round;
      ASSERT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
    }
    EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
  });
}

}  // namespace
