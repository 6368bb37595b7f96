// The two device-free exported functions, called through the shipped shared library.
#include <cstring>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "zovdx/vdx.h"

namespace {

// Spot checks where a slip is likely: the ends of the table, the long texts and the odd
// grammar that is kept word for word.
TEST(StatusStrings, ListedCodesHaveTheirExactText) {
  const std::pair<int, const char*> expected[] = {
      {0, "The function has been executed successfully."},
      {11, "Failed to allocate the necessary resources. The required resources exceed the upper "
           "limit of physical devices."},
      {14, "The current device does not support. There may be more than 64 CUs, or in a multi "
           "device environment, each device needs to be the same CU and mem size."},
      {15, "The virtual device is not exist."},
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
  // Every code from 0 to 35 has a text of its own.
  std::set<std::string> texts;
  for (int code = 0; code <= 35; ++code) {
    const char* got = nullptr;
    ASSERT_EQ(vdxGetStatusString(static_cast<vdxStatus>(code), &got), VDX_STATUS_SUCCESS) << code;
    texts.insert(got);
  }
  EXPECT_EQ(texts.size(), 36u);
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
