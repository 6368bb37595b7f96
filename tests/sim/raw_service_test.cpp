// The manager service of a sandbox, spoken to without the library: what is not a frame is
// answered as invalid and the connection closed. (Its other moods are met through the library
// in the service tests.)
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

namespace {

TEST(RawService, GarbageIsAnsweredAsInvalid) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const char name[] = "xcu_uds_abstract_socket";
  std::memcpy(address.sun_path + 1, name, sizeof name - 1);
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), 2 + 1 + sizeof name - 1), 0)
      << std::strerror(errno);
  // Twelve bytes that are no header, then a size the service would accept: only the magic
  // tells it that this is not a frame.
  const char junk[16] = "not a frame!\0\0\0";
  ASSERT_EQ(send(fd, junk, sizeof junk, 0), 16);
  // The reply's header: magic, pid, from_type, cmd_type (1: invalid), payload size.
  char header[16];
  size_t got = 0;
  while (got < sizeof header) {
    const ssize_t n = recv(fd, header + got, sizeof header - got, 0);
    ASSERT_GT(n, 0);
    got += static_cast<size_t>(n);
  }
  int32_t magic = 0, size = 0;
  int16_t cmd_type = 0;
  std::memcpy(&magic, header, 4);
  std::memcpy(&cmd_type, header + 10, 2);
  std::memcpy(&size, header + 12, 4);
  EXPECT_EQ(magic, 0x7A6F6D63);
  EXPECT_EQ(cmd_type, 1);
  char rest[64];
  for (int32_t left = size; left > 0;) {
    const ssize_t n = recv(fd, rest, sizeof rest, 0);
    ASSERT_GT(n, 0);
    left -= static_cast<int32_t>(n);
  }
  char c;
  EXPECT_EQ(recv(fd, &c, 1, 0), 0);
  close(fd);
}

}  // namespace
