// The host manager service as the simulator plays it: a stream socket at the abstract
// address "xcu_uds_abstract_socket" that answers framed requests (system mode, process
// information) and can be told to misbehave. Non-blocking; the daemon's poll loop drives
// it through PollFds/Handle.
#ifndef VDX_SIM_SERVICE_H_
#define VDX_SIM_SERVICE_H_

#include <poll.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vdxsim {

constexpr int32_t kFrameMagic = 0x7A6F6D63;
constexpr int16_t kFromServer = 2;
constexpr int16_t kCmdError = 0;
constexpr int16_t kCmdInvalid = 1;
constexpr int16_t kCmdGetProcessInfo = 28;
constexpr int16_t kCmdGetSystemMode = 29;
constexpr int32_t kSrvUnsupported = 24;
constexpr int32_t kSrvInvalidValue = 28;
constexpr size_t kFrameHeader = 16;
constexpr char kServiceName[] = "xcu_uds_abstract_socket";

// One frame on the wire: header fields and payload.
std::string EncodeFrame(int32_t pid, int16_t from_type, int16_t cmd_type, const std::string& payload);

enum class ServiceMode { kNormal, kError, kWrongType, kTrickle, kDisconnect };

class Service {
 public:
  explicit Service(int32_t system_mode) : system_mode_(system_mode) {}
  ~Service() { Stop(); }

  // Listening on and off ("stopped": connections are refused).
  std::string Start();
  void Stop();
  bool running() const { return listen_fd_ >= 0; }

  // A new socket connected to the service, for the driver to hand out; -1 and errno
  // when the service is stopped.
  int ConnectedSocket();

  void set_system_mode(int32_t mode) { system_mode_ = mode; }
  int32_t system_mode() const { return system_mode_; }
  void SetProcess(int32_t pid, const std::array<int32_t, 3>& info) { processes_[pid] = info; }
  void ClearProcess(int32_t pid) { processes_.erase(pid); }
  // status: the SrvStatus of error replies; type: the type of wrong-type replies (0: the
  // other of the two known requests).
  void SetMode(ServiceMode mode, int32_t status = 0, int16_t type = 0);
  std::string Describe() const;

  // Poll integration: the descriptors to watch, and their events.
  void PollFds(std::vector<pollfd>* fds) const;
  void Handle(int fd, short revents);
  bool Owns(int fd) const { return fd == listen_fd_ || clients_.count(fd) != 0; }
  // Milliseconds until the service needs to run again without an event (-1: never).
  int Timeout() const;
  void Tick();

 private:
  struct Client {
    std::string in;
    std::string out;
    bool trickle = false;
    bool close_after = false;
  };
  std::string Answer(const std::string& request, Client* c);
  void Flush(int fd, Client* c);
  void Drop(int fd);

  int listen_fd_ = -1;
  int32_t system_mode_;
  std::map<int32_t, std::array<int32_t, 3>> processes_;
  std::map<int, Client> clients_;
  ServiceMode mode_ = ServiceMode::kNormal;
  int32_t error_status_ = 0;
  int16_t wrong_type_ = 0;
};

}  // namespace vdxsim

#endif  // VDX_SIM_SERVICE_H_
