// The per-user encryption flag through the shipped library, in sandboxes whose root home is
// private: absent, written, read back, hand-written values, an unreadable file, and the flag
// working while the manager's start-up has failed.
#include <linux/capability.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/virtual/e2e_support.h"
#include "zovdx/vdx.h"

namespace {

std::string FlagDir() { return std::string(getpwuid(getuid())->pw_dir) + "/.zocu"; }
std::string FlagFile() { return FlagDir() + "/encryp.conf"; }

void WriteFlag(const std::string& text) {
  mkdir(FlagDir().c_str(), 0700);
  e2e::WriteText(FlagDir(), "encryp.conf", text);
}

// Reads the flag starting from `start`, so that "left alone" can be told from "false".
bool Read(bool start, vdxStatus expected = VDX_STATUS_SUCCESS) {
  bool value = start;
  EXPECT_EQ(vdxGetEncryptionVMStatus(&value), expected);
  return value;
}

TEST(EncryptionFlag, WrittenAsOneLineAndReadBack) {
  EXPECT_EQ(vdxSetEncryptionVMStatus(true), VDX_STATUS_SUCCESS);
  EXPECT_EQ(e2e::ReadAll(FlagFile()), "encryption: 1\n");
  EXPECT_TRUE(Read(false));
  EXPECT_EQ(vdxSetEncryptionVMStatus(false), VDX_STATUS_SUCCESS);
  EXPECT_EQ(e2e::ReadAll(FlagFile()), "encryption: 0\n");
  EXPECT_FALSE(Read(true));
}

TEST(EncryptionFlag, HandWrittenValues) {
  WriteFlag("encryption: 7\n");
  EXPECT_TRUE(Read(false));
  WriteFlag("encryption: 0\n");
  EXPECT_FALSE(Read(true));
  WriteFlag("# the last line wins\nencryption: 0x1\nencryption: 0\n");
  EXPECT_FALSE(Read(true));
  // Without the key the caller's value stays.
  WriteFlag("unrelated: 1\n");
  EXPECT_TRUE(Read(true));
  EXPECT_FALSE(Read(false));
}

// Root reads any file; without the two capabilities that let it, a mode 000 file is
// unreadable as it would be for any user.
void DropFileReadOverride() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2];
  ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
  data[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
  ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
}

TEST(EncryptionFlag, AnUnreadableFileMeansNotEncrypted) {
  WriteFlag("encryption: 1\n");
  ASSERT_EQ(chmod(FlagFile().c_str(), 0), 0);
  DropFileReadOverride();
  EXPECT_FALSE(Read(true));
}

TEST(EncryptionFlag, WorksWhileTheManagerCannotStart) {
  e2e::Ctl({"service", "stop"});
  EXPECT_EQ(vdxGetMaxVDeviceCount(nullptr), VDX_STATUS_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(vdxSetEncryptionVMStatus(true), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(Read(false));
}

}  // namespace
