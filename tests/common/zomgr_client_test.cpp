// The service client against a peer the test controls (one end of a socketpair), and the
// two queries.
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "common/env_check.h"
#include "common/zomgr_client.h"
#include "tests/utils/test_support.h"
#include "utils/logger.h"

namespace {

using testing_support::CaptureLog;
using testing_support::LogOutput;
using testing_support::OpenDescriptorCount;

std::string Frame(int16_t cmd_type, const std::string& payload, int16_t from_type = FROM_TYPE_SERVER,
                  int32_t magic = kCommandMagic, int32_t declared = -1) {
  Command header;
  header.header = magic;
  header.from_pid = 1;
  header.from_type = from_type;
  header.cmd_type = cmd_type;
  header.data_size = declared >= 0 ? declared : static_cast<int32_t>(payload.size());
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + payload;
}

std::string Int32(int32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); }

class ClientTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_), 0);
    descriptors_ = OpenDescriptorCount();
  }
  void TearDown() override {
    if (peer_.joinable()) peer_.join();
    EXPECT_EQ(OpenDescriptorCount(), descriptors_) << "the client leaked a descriptor";
    if (fds_[0] >= 0) close(fds_[0]);
    if (fds_[1] >= 0) close(fds_[1]);
    utils::SetLogLevel("info");
  }

  int client() const { return fds_[0]; }

  // The peer writes bytes in pieces of the given size, a little apart, then optionally closes.
  void Serve(const std::string& bytes, size_t piece = 0, bool close_after = false) {
    peer_ = std::thread([this, bytes, piece, close_after] {
      const size_t step = piece == 0 ? bytes.size() : piece;
      for (size_t at = 0; at < bytes.size(); at += step) {
        if (send(fds_[1], bytes.data() + at, std::min(step, bytes.size() - at), MSG_NOSIGNAL) < 0)
          break;
        if (piece != 0) usleep(200);
      }
      if (close_after) {
        close(fds_[1]);
        fds_[1] = -1;
      }
    });
  }

  // Receives one frame quietly (or not), returning the status and what was logged.
  int Receive(Command** cmd, bool quiet, std::string* out = nullptr, std::string* err = nullptr) {
    int rc = 0;
    const LogOutput log = CaptureLog("debug", [&] {
      rc = quiet ? RecvCommandQuiet(cmd, client()) : RecvCommand(cmd, client());
    });
    if (out) *out = log.out;
    if (err) *err = log.err;
    return rc;
  }

  int fds_[2] = {-1, -1};
  int descriptors_ = 0;
  std::thread peer_;
};

TEST_F(ClientTest, RefusesForeignAndOverlongFrames) {
  struct Case {
    std::string bytes;
    const char* message;
  };
  const Case cases[] = {
      {Frame(29, Int32(0), FROM_TYPE_SERVER, 0x12345678), "The received command is illegal\n"},
      {Frame(29, Int32(0), FROM_TYPE_SMI), "The received command is illegal\n"},
      {Frame(29, Int32(0), FROM_TYPE_SERVER, kCommandMagic, 2), "The command did not read complete\n"},
      {Frame(1, ""), "Revice a invalid command\n"},
  };
  for (const Case& c : cases) {
    Serve(c.bytes);
    peer_.join();  // everything is in the socket before the first read
    Command* cmd = nullptr;
    std::string out, err;
    EXPECT_EQ(Receive(&cmd, false, &out, &err), -1) << c.message;
    EXPECT_EQ(cmd, nullptr);
    EXPECT_NE(err.find(c.message), std::string::npos) << err;
    // Drain what the client left unread before the next case.
    char sink[8192];
    while (recv(client(), sink, sizeof(sink), MSG_DONTWAIT) > 0) {
    }
  }
}

// The queries against a service the test runs in a private network namespace, where the
// abstract socket name is free and nobody else can meet it.
class QueryTest : public testing::Test {
 protected:
  // Runs body in a child in its own network namespace; 77 when that cannot be made.
  template <typename Body>
  static int InPrivateNetwork(Body body) {
    const pid_t pid = fork();
    if (pid == 0) {
      if (unshare(CLONE_NEWNET) != 0) _exit(77);
      _exit(body());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
  }

};

TEST_F(QueryTest, FailsEarlyWithoutTheDriverOrTheService) {
  SystemMode mode = SYSTEM_MODE_MIG;
  process_info info = {7, 8, 9};
  const std::string out = CaptureLog("debug", [&] {
    // In a container the driver is required; nothing is attempted without it.
    EXPECT_FALSE(CheckSystemModeViaZomgr(mode, true, false, -1));
    EXPECT_FALSE(GetProcessInfoViaZomgr(getpid(), info, true, false, -1));
    // The driver is asked for but the module is not live here.
    EXPECT_FALSE(GetProcessInfoViaZomgr(getpid(), info, false, true, -1));
  }).out;
  EXPECT_NE(out.find("] [CheckSystemModeViaZomgr] Check system mode failed, zocu driver was "
                     "required in container environment but not exist.\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("] [GetProcessInfoViaZomgr] Get process infomation failed, zocu driver was "
                     "required but not exist.\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(out.find("Connect service"), std::string::npos) << "no connection may be tried";
  EXPECT_EQ(mode, SYSTEM_MODE_MIG);
  EXPECT_EQ(info.gpu_id, 7);

  const int result = InPrivateNetwork([] {
    SystemMode m = SYSTEM_MODE_MIG;
    // No service listens in a fresh network namespace.
    return CheckSystemModeViaZomgr(m, false, false, -1) ? 1 : (m == SYSTEM_MODE_MIG ? 0 : 2);
  });
  if (result == 77) GTEST_SKIP() << "cannot make a network namespace here (not root?)";
  EXPECT_EQ(result, 0);
}

}  // namespace
