// The local control channel between vdxctl and the vdxd service: a stream socket in the
// abstract namespace (private to the network namespace, so one per machine or sandbox). One
// request line ("start 3", "stop 3", "ping"), one answer line ("STATUS TEXT"), where STATUS
// is the library's status of the request. The service serves root only, and no client can
// stall it.
#ifndef ZOVDX_TOOLS_COMMON_CONTROL_H_
#define ZOVDX_TOOLS_COMMON_CONTROL_H_

#include <poll.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace vdxtool {

inline constexpr char kControlSocketName[] = "zovdx-vdxd-control";

// Sends request, stores the answer's status and text. False when no service listens (or the
// exchange broke off); *error then says what happened.
bool AskService(const std::string& request, int* status, std::string* text, std::string* error);

// The service's side: a listening socket (-1 and errno on failure).
int ListenControl();
// Whether the connected peer runs as root.
bool PeerIsRoot(int client);

// The service's clients, served from the service's own poll loop so that no client can hold
// it: the peer is checked right after accept (anyone but root gets "19 root only" at once and
// is closed, unread), and a root client's request is read as its bytes come, within
// kRequestDeadlineMs; a client that has not sent a whole line by then is closed.
class ControlServer {
 public:
  static constexpr int kRequestDeadlineMs = 2000;
  static constexpr size_t kMaxClients = 16;
  static constexpr size_t kMaxRequest = 256;

  // The answer to a request: the library's status and a word.
  struct Answer {
    int status;
    std::string text;
  };

  explicit ControlServer(int listen_fd) : listen_fd_(listen_fd) {}
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Appends the descriptors to poll (the listener and the clients being read).
  void AddPollFds(std::vector<pollfd>* fds) const;
  // How long a poll may wait, at most, before a client's deadline (-1: none pending).
  int MillisecondsToNextDeadline() const;
  // After a poll over the descriptors AddPollFds gave (from index first on): accepts new
  // clients, reads what came, answers each whole request with handle's answer, and closes
  // clients whose deadline passed.
  void Serve(const std::vector<pollfd>& fds, size_t first,
             const std::function<Answer(const std::string&)>& handle);

 private:
  struct Client {
    int fd;
    std::string request;
    std::chrono::steady_clock::time_point deadline;
  };
  void Accept();
  void Drop(size_t index);

  int listen_fd_;
  std::vector<Client> clients_;
};

}  // namespace vdxtool

#endif  // ZOVDX_TOOLS_COMMON_CONTROL_H_
