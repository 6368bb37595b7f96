// The manager service of a sandbox, spoken to frame by frame, in each of its moods.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include "raw_client.h"

namespace rawsim {
namespace {

int32_t Int(const std::string& payload, size_t at) {
  int32_t v = 0;
  std::memcpy(&v, payload.data() + at, 4);
  return v;
}

std::string PidPayload(int32_t pid) { return std::string(reinterpret_cast<char*>(&pid), 4); }

class RawService : public ::testing::Test {
 protected:
  void SetUp() override {
    fd_ = ConnectService();
    ASSERT_GE(fd_, 0) << std::strerror(errno);
  }
  void TearDown() override {
    if (fd_ >= 0) close(fd_);
  }
  Frame Ask(int16_t type, const std::string& payload) {
    Frame f;
    EXPECT_TRUE(SendFrame(fd_, type, payload));
    EXPECT_TRUE(ReadFrame(fd_, &f));
    return f;
  }
  int fd_ = -1;
};

TEST_F(RawService, AnswersSystemModeAndProcessInformation) {
  Frame f = Ask(29, "");
  EXPECT_EQ(f.magic, 0x7A6F6D63);
  EXPECT_EQ(f.from_type, 2);
  EXPECT_EQ(f.cmd_type, 29);
  ASSERT_EQ(f.payload.size(), 4u);
  EXPECT_EQ(Int(f.payload, 0), 0);

  ASSERT_EQ(Ctl({"system-mode", "mig"}), 0);
  EXPECT_EQ(Int(Ask(29, "").payload, 0), 1);  // same connection, next request

  f = Ask(28, PidPayload(4242));
  EXPECT_EQ(f.cmd_type, 28);
  ASSERT_EQ(f.payload.size(), 12u);
  EXPECT_EQ(Int(f.payload, 0), -1);  // a process on no partition
  ASSERT_EQ(Ctl({"process", "4242", "2", "1", "0"}), 0);
  f = Ask(28, PidPayload(4242));
  EXPECT_EQ(Int(f.payload, 0), 2);
  EXPECT_EQ(Int(f.payload, 4), 1);
  EXPECT_EQ(Int(f.payload, 8), 0);

  f = Ask(2, "");  // a request the service does not serve
  EXPECT_EQ(f.cmd_type, 0);
  EXPECT_EQ(Int(f.payload, 0), 24);
  f = Ask(28, "");  // process information without a pid
  EXPECT_EQ(f.cmd_type, 0);
  EXPECT_EQ(Int(f.payload, 0), 28);
}

TEST_F(RawService, ErrorAndWrongTypeReplies) {
  ASSERT_EQ(Ctl({"service", "error", "36"}), 0);
  Frame f = Ask(29, "");
  EXPECT_EQ(f.cmd_type, 0);
  EXPECT_EQ(f.from_type, 2);
  EXPECT_EQ(Int(f.payload, 0), 36);

  ASSERT_EQ(Ctl({"service", "wrong-type"}), 0);
  EXPECT_EQ(Ask(29, "").cmd_type, 28);
  EXPECT_EQ(Ask(28, PidPayload(1)).cmd_type, 29);
  ASSERT_EQ(Ctl({"service", "wrong-type", "1"}), 0);
  EXPECT_EQ(Ask(29, "").cmd_type, 1);

  ASSERT_EQ(Ctl({"service", "normal"}), 0);
  EXPECT_EQ(Ask(29, "").cmd_type, 29);
}

TEST_F(RawService, TrickleDeliversOneBytePerWrite) {
  ASSERT_EQ(Ctl({"service", "trickle"}), 0);
  ASSERT_TRUE(SendFrame(fd_, 28, PidPayload(7)));
  // Read as it arrives, without asking for the whole frame at once.
  std::string got;
  int reads = 0;
  while (got.size() < 28) {
    char c[64];
    ssize_t n = recv(fd_, c, sizeof c, 0);
    ASSERT_GT(n, 0);
    got.append(c, static_cast<size_t>(n));
    ++reads;
  }
  EXPECT_EQ(got.size(), 28u);
  EXPECT_EQ(reads, 28);
  EXPECT_EQ(Int(got, 0), 0x7A6F6D63);
  EXPECT_EQ(Int(got, 16), -1);
}

TEST_F(RawService, DisconnectMidFrame) {
  ASSERT_EQ(Ctl({"service", "disconnect"}), 0);
  ASSERT_TRUE(SendFrame(fd_, 29, ""));
  Frame f;
  int reads = 0;
  EXPECT_FALSE(ReadFrame(fd_, &f, &reads));
  EXPECT_GE(reads, 2);  // the header came, then the end before the payload
}

TEST_F(RawService, StoppedRefusesAndStartsAgain) {
  ASSERT_EQ(Ctl({"service", "stop"}), 0);
  char c;
  EXPECT_EQ(recv(fd_, &c, 1, 0), 0);  // existing clients are hung up on
  EXPECT_EQ(ConnectService(), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  ASSERT_EQ(Ctl({"service", "start"}), 0);
  close(fd_);
  fd_ = ConnectService();
  ASSERT_GE(fd_, 0);
  EXPECT_EQ(Ask(29, "").cmd_type, 29);
}

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
