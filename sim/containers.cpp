// vdx-sim --containers: the device node in an overlay over /dev, and the machine's CDI file.
// Both are made by the launcher in the sandbox's mount namespace, before the command runs.
#include "sim/containers.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace vdxsim {
namespace {

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

// The file systems mounted directly below /dev (/dev/pts, /dev/shm, ...), from mountinfo.
std::vector<std::string> DevSubmounts() {
  std::vector<std::string> found;
  std::ifstream mountinfo("/proc/self/mountinfo");
  std::string line;
  while (std::getline(mountinfo, line)) {
    std::istringstream fields(line);
    std::string id, parent, numbers, root, point;
    fields >> id >> parent >> numbers >> root >> point;
    if (point.rfind("/dev/", 0) == 0 && point.find('/', 5) == std::string::npos)
      found.push_back(point);
  }
  return found;
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

}  // namespace

std::string MakeDeviceNode(const std::string& store) {
  // The overlay shows only /dev itself: the file systems mounted below it are bound back in
  // from descriptors taken before it covers them.
  std::vector<std::pair<std::string, int>> submounts;
  for (const std::string& point : DevSubmounts()) {
    const int fd = open(point.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) submounts.push_back({point, fd});
  }
  std::string error;
  // Its own tmpfs, without nodev: a node copied up from the host's /dev must still open.
  if (mkdir(store.c_str(), 0755) != 0 ||
      mount("vdx-sim-dev", store.c_str(), "tmpfs", MS_NOSUID, "mode=0755,size=1m") != 0 ||
      mkdir((store + "/upper").c_str(), 0755) != 0 || mkdir((store + "/work").c_str(), 0700) != 0) {
    error = Errno("prepare the /dev store");
  } else if (mount("vdx-sim-dev", "/dev", "overlay", MS_NOSUID,
                   ("lowerdir=/dev,upperdir=" + store + "/upper,workdir=" + store + "/work")
                       .c_str()) != 0) {
    error = Errno("mount the overlay over /dev");
  }
  for (const auto& [point, fd] : submounts) {
    const std::string from = "/proc/self/fd/" + std::to_string(fd);
    if (error.empty() && mount(from.c_str(), point.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
      error = Errno("keep " + point);
    close(fd);
  }
  // The numbers of /dev/null: a program that opens the node without the preload library
  // reads nothing and harms nothing, and an engine's device rules already allow them.
  if (error.empty() && (mknod("/dev/mkfd", S_IFCHR | 0666, makedev(1, 3)) != 0 ||
                        chmod("/dev/mkfd", 0666) != 0))  // whatever the umask
    error = Errno("make /dev/mkfd");
  return error;
}

std::string MachineCdi(const std::string& preload) {
  std::ostringstream cdi;
  cdi << "{\n"
         "  \"cdiVersion\": \"0.3.0\",\n"
         "  \"kind\": \"vdx-sim.zovdx.dev/machine\",\n"
         "  \"devices\": [\n"
         "    {\n"
         "      \"name\": \"sim\",\n"
         "      \"containerEdits\": {\n"
         "        \"env\": [\n"
         "          \"LD_PRELOAD=" << kContainerPreload << "\",\n"
         "          \"ASAN_OPTIONS=verify_asan_link_order=0\"\n"
         "        ],\n"
         "        \"mounts\": [\n"
         "          {\"hostPath\": \"/sys/devices/virtual\", \"containerPath\": "
         "\"/sys/devices/virtual\", \"options\": [\"rbind\", \"ro\"]},\n"
         "          {\"hostPath\": \"/sys/module\", \"containerPath\": \"/sys/module\", "
         "\"options\": [\"rbind\", \"ro\"]},\n"
         "          {\"hostPath\": " << JsonString(preload) << ", \"containerPath\": \""
      << kContainerPreload << "\", \"options\": [\"bind\", \"ro\"]}\n"
         "        ]\n"
         "      }\n"
         "    }\n"
         "  ]\n"
         "}\n";
  return cdi.str();
}

std::string WriteMachineCdi(const std::string& preload) {
  if (mkdir("/etc/cdi", 0755) != 0 && errno != EEXIST) return Errno("mkdir /etc/cdi");
  std::ofstream out(kMachineCdiFile);
  out << MachineCdi(preload);
  out.close();
  if (!out) return Errno(std::string("write ") + kMachineCdiFile);
  return "";
}

}  // namespace vdxsim
