// Where this process runs: on the bare host or inside a container (and under which container
// id), whether the accelerator module is live, and the two questions the library asks the
// host manager service. Stateless free functions; safe from any thread.
#ifndef ZOVDX_COMMON_ENV_CHECK_H_
#define ZOVDX_COMMON_ENV_CHECK_H_

#include <cstdint>
#include <string>

// Decides whether the process runs in a container. VDX_RUNTIME_ENV_OVERRIDE ("bare-metal" or
// "container", with VDX_OVERRIDE_CONTAINER_ID) forces the answer; otherwise the cgroup and
// mount files are searched for container markers and the process list for kernel worker
// threads (whose presence means the host's process space, so not a container). The id is
// the text after the first marker found (at most 64 hexadecimal digits). Returns false when
// a probe could not be carried out; the outputs then hold what the probes left.
bool CheckContainerEnv(bool& in_container, std::string* container_id);

// Searches file for marker. Does nothing when in_container is already true. Returns false
// only when the file cannot be opened.
bool CheckDockerContainerEnvByFS(const std::string& file, const std::string& marker,
                                 bool& in_container, std::string* container_id);

// Clears in_container (and the id) when the process list shows a kernel worker thread.
// Returns false only when the process list cannot be read.
bool CheckContainerEnvByKWorker(bool& in_container, std::string* container_id);

// True when "/sys/module/zocu/initstate" says the module is live.
bool CheckDriverExist();

enum SystemMode : int32_t {
  SYSTEM_MODE_NONE = 0,
  SYSTEM_MODE_MIG = 1,
};

// Which partition a process runs on; gpu_id -1 when it runs on none. 12 bytes on the wire.
struct process_info {
  int32_t gpu_id;
  int32_t gi_id;
  int32_t ci_id;
};
static_assert(sizeof(process_info) == 12, "process_info is a wire record");

// Ask the manager service. socket_fd is a connected socket of the caller's (left open), or
// -1 for a connection of the function's own. True when the output was filled from a reply
// of the right type; on false it is untouched. Messages are debug-level only.
bool CheckSystemModeViaZomgr(SystemMode& mode, bool in_container, bool with_driver,
                             int socket_fd);
bool GetProcessInfoViaZomgr(int pid, process_info& proc_info, bool in_container,
                            bool with_driver, int socket_fd);

#endif  // ZOVDX_COMMON_ENV_CHECK_H_
