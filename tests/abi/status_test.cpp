// The two device-free exported functions, called through the shipped shared library.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "zovdx/vdx.h"

namespace {

TEST(StatusStrings, EveryListedCodeHasItsExactText) {
  const std::pair<int, const char*> expected[] = {
      {0, "The function has been executed successfully."},
      {1, "A generic error has occurred."},
      {2, "No memory available (when allocating memory)."},
      {3, "Open /dev/mkfd failed."},
      {4, "The /dev/mkfd has been already opened."},
      {5, "Node does not exist."},
      {6, "VDX function is not supported on this node."},
      {7, "Before operating kfd, kfd is not opened."},
      {8, "Failed to create virtual device."},
      {9, "Failed to destroy virtual device."},
      {10, "Invalid arguments."},
      {11, "Failed to allocate the necessary resources. The required resources exceed the upper "
           "limit of physical devices."},
      {12, "Failed to query virtual device information."},
      {13, "The device management runtime does not initialize."},
      {14, "The current device does not support. There may be more than 64 CUs, or in a multi "
           "device environment, each device needs to be the same CU and mem size."},
      {15, "The virtual device is not exist."},
      {16, "Init device failed, may be set process run mode failed."},
      {17, "The device is exist and may be in use."},
      {18, "File read or write error."},
      {19, "Permission denied."},
      {20, "An internal exception was caught."},
      {21, "The provided input is out of allowable or safe range."},
      {22, "An error occurred when smi initializing internal data structures."},
      {23, "An item was searched for but not found."},
      {24, "Not enough resources were available for the operation."},
      {25, "An interrupt occurred during execution of function."},
      {26, "An unexpected amount of data was read."},
      {27, "No data was found for a given input."},
      {28, "The data read or provided to function is not what was expected."},
      {29, "A resource or mutex could not be acquired because it is already being used."},
      {30, "An internal reference counter exceeded INT32_MAX."},
      {31, "The requested function has not yet been implemented in the current system for the "
           "current devices."},
      {32, "An error occurred when connecting to zomgr."},
      {33, "An error occurred when sending command to zomgr."},
      {34, "An error occurred when receiving data from zomgr."},
      {35, "The device need to reset."},
      {999, "An unknown error occurred."},
  };
  for (const auto& [code, text] : expected) {
    const char* got = nullptr;
    ASSERT_EQ(vdxGetStatusString(static_cast<vdxStatus>(code), &got), VDX_STATUS_SUCCESS) << code;
    EXPECT_STREQ(got, text) << code;
    // The text is static: asking again gives the same storage.
    const char* again = nullptr;
    vdxGetStatusString(static_cast<vdxStatus>(code), &again);
    EXPECT_EQ(got, again);
  }
}

// Negative and very large codes are exercised from C (header_c99.c), where any int may be
// passed as a vdxStatus; C++ allows only values inside the enumeration's range.
TEST(StatusStrings, UnknownCodesAreRefusedAndWriteNothing) {
  for (int code : {36, 37, 100, 998, 1000, 1001, 1023}) {
    const char* sentinel = "untouched";
    const char* out = sentinel;
    EXPECT_EQ(vdxGetStatusString(static_cast<vdxStatus>(code), &out), VDX_STATUS_ERROR) << code;
    EXPECT_EQ(out, sentinel) << code;
  }
}

TEST(InitDevice, ZeroesTheRecordAndAcceptsNull) {
  vdxDeviceInfo info;
  std::memset(&info, 0x5A, sizeof(info));
  EXPECT_EQ(vdxInitDevice(&info), VDX_STATUS_SUCCESS);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&info);
  for (size_t i = 0; i < sizeof(info); ++i) ASSERT_EQ(bytes[i], 0) << "byte " << i;
  EXPECT_EQ(vdxInitDevice(nullptr), VDX_STATUS_SUCCESS);
}

}  // namespace
