// The manager service of a sandbox, spoken to without the library: what is not a frame is
// answered as invalid. (Its moods are met through the library in the service tests.)
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include "raw_client.h"

namespace rawsim {
namespace {

class RawService : public ::testing::Test {
 protected:
  void SetUp() override {
    fd_ = ConnectService();
    ASSERT_GE(fd_, 0) << std::strerror(errno);
  }
  void TearDown() override {
    if (fd_ >= 0) close(fd_);
  }
  int fd_ = -1;
};

TEST_F(RawService, GarbageIsAnsweredAsInvalid) {
  const char junk[16] = "not a frame....";
  ASSERT_EQ(send(fd_, junk, sizeof junk, 0), 16);
  Frame f;
  ASSERT_TRUE(ReadFrame(fd_, &f));
  EXPECT_EQ(f.cmd_type, 1);
  char c;
  EXPECT_EQ(recv(fd_, &c, 1, 0), 0);
}

}  // namespace
}  // namespace rawsim
