// Paths where an allocation fails part-way: every allocation of an operation is failed in
// turn, the first, then the second and so on, until the operation runs through; after each
// failure no descriptor and no driver connection may be left behind (the sanitizer build
// adds leaked memory to that). This executable replaces the global operator new for it.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/process_list.h"
#include "common/zomgr_client.h"
#include "mkfd/include/dmkfd.h"
#include "mkfd/mkfd_interface.h"
#include "tests/mkfd/private_machine.h"

namespace {

// How many allocations may still succeed; negative: no limit.
std::atomic<long> g_allocations_left{-1};

void* Allocate(size_t size) {
  long left = g_allocations_left.load();
  while (left >= 0) {
    if (left == 0) throw std::bad_alloc();
    if (g_allocations_left.compare_exchange_weak(left, left - 1)) break;
  }
  if (void* block = malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}

}  // namespace

// Every form is replaced, so that each allocation and its release meet in malloc and free
// (a sanitizer's own forms would otherwise pair with these).
void* operator new(size_t size) { return Allocate(size); }
void* operator new[](size_t size) { return Allocate(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return Allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* block) noexcept { free(block); }
void operator delete[](void* block) noexcept { free(block); }
void operator delete(void* block, size_t) noexcept { free(block); }
void operator delete[](void* block, size_t) noexcept { free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { free(block); }

namespace {

// Runs operation with its n-th allocation failing, for n = 0, 1, ... until it makes no
// more allocations than allowed; check() runs after every round. Returns the rounds run.
template <typename Operation, typename Check>
int FailEachAllocationInTurn(Operation operation, Check check) {
  for (long n = 0; n < 10000; ++n) {
    g_allocations_left = n;
    bool threw = false;
    try {
      operation();
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    const long left = g_allocations_left.exchange(-1);
    check(n);
    if (!threw && left > 0) return static_cast<int>(n) + 1;
  }
  ADD_FAILURE() << "the operation never ran through";
  return 0;
}

TEST(AllocationFailure, DriverBrokeredSocketLeavesTheDeviceClosed) {
  mkfd_test::RunInPrivateMachine([] {
    // The device opens (a plain file) and the scan allocates the node map; the socket
    // request itself fails, as every ioctl on a plain file does.
    mkfd_test::CreateFakeDevice();
    std::vector<mkfd_test::Node> nodes;
    for (uint32_t gpu = 1; gpu <= 8; ++gpu)
      nodes.push_back({gpu, mkfd_test::AcceleratorProperties(0x2E70, 0x5010, 0, 240), {}, true});
    mkfd_test::WriteTopology(nodes);
    const int descriptors = mkfd_test::CountOpenDescriptors();
    const int rounds = FailEachAllocationInTurn(
        [] {
          int socket = -1;
          try {
            EXPECT_FALSE(GetSocketByDriver(&socket));
          } catch (const std::bad_alloc&) {
            ADD_FAILURE() << "out of memory escaped as an exception";
          }
          EXPECT_EQ(socket, -1);
        },
        [descriptors](long n) {
          EXPECT_EQ(mkfd_test::CountOpenDescriptors(), descriptors) << "failing allocation " << n;
          EXPECT_FALSE(MkfdInterface::IsAcquire()) << "failing allocation " << n;
        });
    // The connection object and the node map are allocations: both were failed.
    EXPECT_GE(rounds, 3);

    // Reading a node's properties under the same failures: a status, never an exception.
    ASSERT_EQ(dmkfdInit(), VDX_STATUS_SUCCESS);
    ASSERT_EQ(dmkfdOpenMkfd(), VDX_STATUS_SUCCESS);
    FailEachAllocationInTurn(
        [] {
          dmkfdNodeProperties props{};
          vdxStatus status = VDX_STATUS_ERROR;
          try {
            status = dmkfdGetNodeProperties(7, &props);
          } catch (const std::bad_alloc&) {
            ADD_FAILURE() << "out of memory escaped as an exception";
          }
          EXPECT_TRUE(status == VDX_STATUS_SUCCESS || status == VDX_STATUS_NO_MEMORY) << status;
        },
        [](long) {});
    EXPECT_EQ(dmkfdCloseMkfd(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(dmkfdShutDown(), VDX_STATUS_SUCCESS);
    EXPECT_EQ(mkfd_test::CountOpenDescriptors(), descriptors);
  });
}

}  // namespace
