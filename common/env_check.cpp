// Container detection and the module state.
#include "common/env_check.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/process_list.h"
#include "common/zomgr_client.h"
#include "utils/file.h"
#include "utils/logger.h"

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
  bool ok = true;
  for (const Probe& probe : kProbes) {
    if (!CheckDockerContainerEnvByFS(probe.file, probe.marker, in_container, container_id)) {
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
  if (in_container) {
    LOG_DEBUG("[%s] The parameter passed in with the value ture, return true directly.\n",
              __func__);
    return true;
  }
  bool opened = ForEachLine(file, [&](const std::string& line) {
    const size_t found = line.find(marker);
    if (found == std::string::npos) return true;
    in_container = true;
    if (container_id != nullptr) container_id->clear();
    const std::string candidate = line.substr(found + marker.size(), kContainerIdLength);
    if (!AllHexDigits(candidate)) return true;  // a later line may still name the id
    LOG_DEBUG("[%s] Found docker container id %s.\n", "CheckDockerContainerEnvByFS",
              candidate.c_str());
    if (container_id != nullptr) *container_id = candidate;
    return false;
  });
  if (!opened) {
    // The message names the cgroup file whichever file was asked for; scripts match on it.
    LOG_DEBUG("[%s] Check container environment by cgroup file failed. Unable to open file %s.\n",
              __func__, "/proc/self/cgroup");
    return false;
  }
  return true;
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
              __func__, err, strerror(err));
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

// Releases what a query owns on every way out: its own connection (never the caller's)
// and the reply frame.
class QueryScope {
 public:
  explicit QueryScope(int caller_fd) : fd_(caller_fd), owned_(caller_fd == -1) {}
  ~QueryScope() {
    if (owned_ && fd_ >= 0) DisconnectServer(&fd_);
    free(reply_);
  }
  QueryScope(const QueryScope&) = delete;
  QueryScope& operator=(const QueryScope&) = delete;

  int* fd() { return &fd_; }
  bool owned() const { return owned_; }
  Command** reply() { return &reply_; }

 private:
  int fd_;
  bool owned_;
  Command* reply_ = nullptr;
};

}  // namespace

bool CheckSystemModeViaZomgr(SystemMode& mode, bool in_container, bool with_driver,
                             int socket_fd) {
  if (in_container && !with_driver) {
    LOG_DEBUG("[%s] Check system mode failed, zocu driver was required in container environment "
              "but not exist.\n",
              __func__);
    return false;
  }
  if (with_driver && !CheckDriverExist()) {
    LOG_DEBUG("[%s] Check system mode failed, zocu driver was required but not exist.\n", __func__);
    return false;
  }
  QueryScope scope(socket_fd);
  if (scope.owned()) ConnectServerQuiet(scope.fd(), in_container, with_driver);
  if (*scope.fd() < 0) {
    LOG_DEBUG("[%s] Check system mode failed, unable to connect zomgr service.\n", __func__);
    return false;
  }
  if (SendCommandQuiet(CTYPE_GET_SYSTEM_MODE, nullptr, 0, *scope.fd()) != 0) {
    LOG_DEBUG("[%s] Send command to zomgr failed.\n", __func__);
    return false;
  }
  if (RecvCommandQuiet(scope.reply(), *scope.fd()) != 0) {
    LOG_DEBUG("[%s] Recieve command from zomgr failed.\n", __func__);
    return false;
  }
  const Command* reply = *scope.reply();
  if (reply->cmd_type != CTYPE_GET_SYSTEM_MODE) {
    LOG_DEBUG("[%s] Recieved error response from zomgr.\n", __func__);
    return false;
  }
  // A reply shorter than its record leaves the missing bytes zero.
  int32_t raw = 0;
  memcpy(&raw, reply->cmd_data, std::min<size_t>(sizeof(raw), static_cast<size_t>(reply->data_size)));
  mode = static_cast<SystemMode>(raw);
  return true;
}

bool GetProcessInfoViaZomgr(int pid, process_info& proc_info, bool in_container,
                            bool with_driver, int socket_fd) {
  if (in_container && !with_driver) {
    LOG_DEBUG("[%s] Get process infomation failed, zocu driver was required in container "
              "environment but not exist.\n",
              __func__);
    return false;
  }
  if (with_driver && !CheckDriverExist()) {
    LOG_DEBUG("[%s] Get process infomation failed, zocu driver was required but not exist.\n",
              __func__);
    return false;
  }
  QueryScope scope(socket_fd);
  if (scope.owned()) ConnectServerQuiet(scope.fd(), in_container, with_driver);
  if (*scope.fd() < 0) {
    LOG_DEBUG("[%s] Get process infomation failed, unable to connect zomgr service.\n", __func__);
    return false;
  }
  int32_t request = pid;
  if (SendCommandQuiet(CTYPE_GET_PROCESS_INFO, reinterpret_cast<char*>(&request), sizeof(request),
                       *scope.fd()) != 0) {
    LOG_DEBUG("[%s] Send command to zomgr failed.\n", __func__);
    return false;
  }
  if (RecvCommandQuiet(scope.reply(), *scope.fd()) != 0) {
    LOG_DEBUG("[%s] Recieve command from zomgr failed.\n", __func__);
    return false;
  }
  const Command* reply = *scope.reply();
  if (reply->cmd_type != CTYPE_GET_PROCESS_INFO) {
    LOG_DEBUG("[%s] Recieved error response from zomgr.\n", __func__);
    return false;
  }
  process_info info = {0, 0, 0};
  memcpy(&info, reply->cmd_data, std::min<size_t>(sizeof(info), static_cast<size_t>(reply->data_size)));
  proc_info = info;
  if (proc_info.gpu_id == -1) {
    LOG_DEBUG("[%s] Got gpu_id -1, this process may not running on VGPU.\n", __func__);
  } else {
    LOG_DEBUG("[%s] Retrived process infomation: pid(%d), gpu_id(%d), gi_id(%d), ci_id(%d)\n",
              __func__, pid, proc_info.gpu_id, proc_info.gi_id, proc_info.ci_id);
  }
  return true;
}
