// Container detection and the module state.
#include "common/env_check.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/process_list.h"
#include "common/zomgr_client.h"
#include "utils/file.h"
#include "utils/logger.h"
#include "utils/utils.h"

namespace {

constexpr size_t kContainerIdLength = 64;
constexpr const char kKernelWorkerMarker[] = "[kworker/";

std::string GetEnv(const char* name) {
  const char* value = getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

bool AllHexDigits(const std::string& text) {
  for (unsigned char c : text)
    if (!isxdigit(c)) return false;
  return true;
}

// One file probe over the file's lines (text null: the file could not be opened). Shared by
// CheckDockerContainerEnvByFS and by CheckContainerEnv, which reads each file only once for
// all the markers it searches there.
bool ProbeText(const std::string* text, const std::string& marker, bool& in_container,
               std::string* container_id) {
  if (in_container) {
    LOG_DEBUG("[%s] The parameter passed in with the value ture, return true directly.\n",
              "CheckDockerContainerEnvByFS");
    return true;
  }
  if (text == nullptr) {
    // The message names the cgroup file whichever file was asked for; scripts match on it.
    LOG_DEBUG("[%s] Check container environment by cgroup file failed. Unable to open file %s.\n",
              "CheckDockerContainerEnvByFS", "/proc/self/cgroup");
    return false;
  }
  for (size_t start = 0; start < text->size();) {
    size_t end = text->find('\n', start);
    if (end == std::string::npos) end = text->size();
    const size_t found = text->find(marker, start);
    if (found != std::string::npos && found + marker.size() <= end) {
      in_container = true;
      if (container_id != nullptr) container_id->clear();
      const size_t from = found + marker.size();
      const std::string candidate = text->substr(from, std::min(kContainerIdLength, end - from));
      if (AllHexDigits(candidate)) {
        LOG_DEBUG("[%s] Found docker container id %s.\n", "CheckDockerContainerEnvByFS",
                  candidate.c_str());
        if (container_id != nullptr) *container_id = candidate;
        return true;
      }
      // Not an id: a later line may still name one.
    }
    start = end + 1;
  }
  return true;
}

// A /proc file read once, on first use.
class LazyFile {
 public:
  explicit LazyFile(const char* path) : path_(path) {}
  const std::string* Text() {
    if (!read_) {
      read_ = true;
      opened_ = ReadSmallFile(path_, text_);
    }
    return opened_ ? &text_ : nullptr;
  }

 private:
  const char* path_;
  bool read_ = false;
  bool opened_ = false;
  std::string text_;
};

}  // namespace

bool CheckContainerEnv(bool& in_container, std::string* container_id) {
  const std::string forced = GetEnv("VDX_RUNTIME_ENV_OVERRIDE");
  if (forced == "bare-metal") {
    LOG_DEBUG("[%s] Runtime environment set to %s by force.\n", __func__, "bare-metal");
    in_container = false;
    if (container_id != nullptr) {
      LOG_DEBUG("[%s] Container id cleared by force.\n", __func__);
      container_id->clear();
    }
    return true;
  }
  if (forced == "container") {
    LOG_DEBUG("[%s] Runtime environment set to %s by force.\n", __func__, "container");
    in_container = true;
    if (container_id != nullptr) {
      const char* id = getenv("VDX_OVERRIDE_CONTAINER_ID");
      if (id != nullptr) {
        LOG_DEBUG("[%s] Container id set to %s by force.\n", __func__, id);
        *container_id = id;
      } else {
        LOG_DEBUG("[%s] Container id cleared by force.\n", __func__);
        container_id->clear();
      }
    }
    return true;
  }

  struct Probe {
    const char* file;
    const char* marker;
  };
  static constexpr Probe kProbes[] = {
      {"/proc/self/cgroup", "/docker-"},
      {"/proc/self/cgroup", "/docker/"},
      {"/proc/self/cgroup", "/containerd/"},
      {"/proc/self/cgroup", "/kubepods/"},
      {"/proc/self/mountinfo", "/docker/containers/"},
      {"/proc/self/mountinfo", "/containerd/io.containerd"},
      {"/proc/self/mountinfo", "/containers/"},
  };
  in_container = false;
  LazyFile cgroup("/proc/self/cgroup");
  LazyFile mountinfo("/proc/self/mountinfo");
  bool ok = true;
  for (const Probe& probe : kProbes) {
    LazyFile& file = probe.file == kProbes[0].file ? cgroup : mountinfo;
    if (!ProbeText(in_container ? nullptr : file.Text(), probe.marker, in_container,
                   container_id)) {
      ok = false;
      break;
    }
  }
  // The kernel worker probe runs last so that it can overturn a marker found above.
  if (ok) ok = CheckContainerEnvByKWorker(in_container, container_id);
  if (!ok) {
    LOG_DEBUG("[%s] Check container environment failed.\n", __func__);
    return false;
  }
  return true;
}

bool CheckDockerContainerEnvByFS(const std::string& file, const std::string& marker,
                                 bool& in_container, std::string* container_id) {
  if (in_container) return ProbeText(nullptr, marker, in_container, container_id);
  std::string text;
  return ProbeText(ReadSmallFile(file, text) ? &text : nullptr, marker, in_container,
                   container_id);
}

bool CheckContainerEnvByKWorker(bool& in_container, std::string* container_id) {
  bool found = false;
  const bool listed = ForEachProcessCommand([&found](const std::string& command) {
    found = command.find(kKernelWorkerMarker) != std::string::npos;
    return !found;
  });
  if (!listed) {
    const int err = errno;
    LOG_DEBUG("[%s] Check container environment by kernel worker thread failed, errno(%d:%s)\n",
              __func__, err, ErrnoMessage(err).c_str());
    return false;
  }
  if (found) {
    // Kernel threads are visible only in the host's process space.
    in_container = false;
    LOG_DEBUG("[%s] Found kernel worker therad in system.\n", __func__);
    if (container_id != nullptr) {
      LOG_DEBUG("[%s] Container id cleared by force.\n", __func__);
      container_id->clear();
    }
  }
  return true;
}

bool CheckDriverExist() {
  bool live = false;
  ForEachLine("/sys/module/zocu/initstate", [&live](const std::string& line) {
    live = line.find("live") != std::string::npos;
    return !live;
  });
  return live;
}

namespace {

// Releases what an exchange owns on every way out: its own connection (never the caller's).
class OwnedConnection {
 public:
  explicit OwnedConnection(int caller_fd) : fd_(caller_fd), owned_(caller_fd == -1) {}
  ~OwnedConnection() {
    if (owned_ && fd_ >= 0) DisconnectServer(&fd_);
  }
  OwnedConnection(const OwnedConnection&) = delete;
  OwnedConnection& operator=(const OwnedConnection&) = delete;

  int* fd() { return &fd_; }
  bool owned() const { return owned_; }

 private:
  int fd_;
  bool owned_;
};

struct FreeCommand {
  void operator()(Command* cmd) const { free(cmd); }
};
using Reply = std::unique_ptr<Command, FreeCommand>;

// One request and its reply, shared by the two queries. function names the caller in the
// messages and what says what failed ("Check system mode", "Get process infomation"). On
// success the reply has the request's type; its payload is copied into out (up to size
// bytes; what a short reply lacks reads as zero).
bool ExchangeWithZomgr(const char* function, const char* what, CommandType type, char* request,
                       int request_size, bool in_container, bool with_driver, int socket_fd,
                       void* out, size_t size) {
  if (in_container && !with_driver) {
    LOG_DEBUG("[%s] %s failed, zocu driver was required in container environment but not "
              "exist.\n",
              function, what);
    return false;
  }
  if (with_driver && !CheckDriverExist()) {
    LOG_DEBUG("[%s] %s failed, zocu driver was required but not exist.\n", function, what);
    return false;
  }
  OwnedConnection connection(socket_fd);
  // Through the driver's socket first whenever the driver is expected.
  if (connection.owned()) ConnectServerQuiet(connection.fd(), in_container, with_driver);
  if (*connection.fd() < 0) {
    LOG_DEBUG("[%s] %s failed, unable to connect zomgr service.\n", function, what);
    return false;
  }
  if (SendCommandQuiet(type, request, request_size, *connection.fd()) != 0) {
    LOG_DEBUG("[%s] Send command to zomgr failed.\n", function);
    return false;
  }
  Command* received = nullptr;
  if (RecvCommandQuiet(&received, *connection.fd()) != 0) {
    LOG_DEBUG("[%s] Recieve command from zomgr failed.\n", function);
    return false;
  }
  const Reply reply(received);
  if (reply->cmd_type != type) {
    LOG_DEBUG("[%s] Recieved error response from zomgr.\n", function);
    return false;
  }
  memset(out, 0, size);
  memcpy(out, reply->cmd_data, std::min(size, static_cast<size_t>(reply->data_size)));
  return true;
}

}  // namespace

bool CheckSystemModeViaZomgr(SystemMode& mode, bool in_container, bool with_driver,
                             int socket_fd) {
  int32_t raw = 0;
  if (!ExchangeWithZomgr(__func__, "Check system mode", CTYPE_GET_SYSTEM_MODE, nullptr, 0,
                         in_container, with_driver, socket_fd, &raw, sizeof(raw)))
    return false;
  mode = static_cast<SystemMode>(raw);
  return true;
}

bool GetProcessInfoViaZomgr(int pid, process_info& proc_info, bool in_container,
                            bool with_driver, int socket_fd) {
  int32_t request = pid;
  process_info info;
  if (!ExchangeWithZomgr(__func__, "Get process infomation", CTYPE_GET_PROCESS_INFO,
                         reinterpret_cast<char*>(&request), sizeof(request), in_container,
                         with_driver, socket_fd, &info, sizeof(info)))
    return false;
  proc_info = info;
  if (proc_info.gpu_id == -1) {
    LOG_DEBUG("[%s] Got gpu_id -1, this process may not running on VGPU.\n", __func__);
  } else {
    LOG_DEBUG("[%s] Retrived process infomation: pid(%d), gpu_id(%d), gi_id(%d), ci_id(%d)\n",
              __func__, pid, proc_info.gpu_id, proc_info.gi_id, proc_info.ci_id);
  }
  return true;
}
