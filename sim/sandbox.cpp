#include "sim/sandbox.h"

#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <poll.h>
#include <pwd.h>
#include <sched.h>
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "sim/containers.h"
#include "sim/daemon.h"

extern char** environ;

namespace vdxsim {
namespace {

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

bool WriteText(const char* path, const std::string& text) {
  int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return ok;
}

// "/etc" is an overlay whose writable layer lives on a size-limited tmpfs ("staging"),
// hidden under the private /tmp once mounted. Full: the staging tmpfs shrinks to what it
// holds plus one page, and a file outside the overlay takes that page.
class TmpfsEtc : public EtcStore {
 public:
  TmpfsEtc(int staging_fd, uint64_t size) : staging_fd_(staging_fd), size_(size) {}

  std::string Set(const std::string& mode) override {
    if (mode == "ro" || mode == "rw") {
      unsigned long flags = MS_REMOUNT | MS_BIND | (mode == "ro" ? MS_RDONLY : 0);
      if (mount(nullptr, "/etc", nullptr, flags, nullptr) != 0) return Errno("remount /etc");
      readonly_ = mode == "ro";
      return "";
    }
    if (mode == "full") return Fill();
    if (mode == "space") {
      unlinkat(staging_fd_, "filler", 0);
      std::string error = Resize(size_);
      if (error.empty()) full_ = false;
      return error;
    }
    return "etc takes rw, ro, full or space";
  }

  std::string Describe() const override {
    return std::string(readonly_ ? "ro" : "rw") + (full_ ? " full" : "");
  }

  std::string Fill() {
    struct statfs st;
    if (fstatfs(staging_fd_, &st) != 0) return Errno("statfs of the /etc store");
    uint64_t page = static_cast<uint64_t>(st.f_bsize);
    uint64_t used = (st.f_blocks - st.f_bfree) * page;
    // A tmpfs of size 0 would be unlimited: keep one page and fill it.
    std::string error = Resize(used + page);
    if (!error.empty()) return error;
    int fd = openat(staging_fd_, "filler", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return Errno("filler");
    std::string bytes(page, '\0');
    while (write(fd, bytes.data(), bytes.size()) > 0) {
    }
    close(fd);
    full_ = true;
    return "";
  }

 private:
  std::string Resize(uint64_t bytes) {
    std::string path = "/proc/self/fd/" + std::to_string(staging_fd_);
    std::string opts = "size=" + std::to_string(bytes);
    if (mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV, opts.c_str()) != 0) {
      return Errno("resize the /etc store");
    }
    return "";
  }

  int staging_fd_;
  uint64_t size_;
  bool readonly_ = false;
  bool full_ = false;
};

bool RemoveTree(const char* path) {
  auto remove = [](const char* p, const struct stat*, int, FTW*) { return ::remove(p); };
  return nftw(path, remove, 16, FTW_DEPTH | FTW_PHYS) == 0;
}

// The top-level entry under /tmp of a path ("/tmp/build" for "/tmp/build/tests/x"), or "".
std::string TmpTopLevel(const std::string& path) {
  if (path.rfind("/tmp/", 0) != 0) return "";
  const size_t end = path.find('/', 5);
  std::string top = path.substr(0, end);
  return top.size() > 5 ? top : "";
}

// A program built or unpacked under /tmp (a checkout there, say) must still be reachable
// once the sandbox has its own /tmp: the host's entries that hold the working directory
// or an absolute path of the command are opened now and bound into the private /tmp later.
class KeptTmpEntries {
 public:
  explicit KeptTmpEntries(const std::vector<std::string>& command) {
    std::vector<std::string> paths;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) != nullptr) paths.emplace_back(cwd);
    for (const std::string& arg : command) {
      char real[PATH_MAX];
      if (arg.rfind("/", 0) == 0 && realpath(arg.c_str(), real) != nullptr) paths.emplace_back(real);
    }
    for (const std::string& path : paths) {
      const std::string top = TmpTopLevel(path);
      if (top.empty() || Has(top)) continue;
      const int fd = open(top.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
      if (fd >= 0) entries_.push_back({top, fd});
    }
  }
  ~KeptTmpEntries() {
    for (const Entry& e : entries_) close(e.fd);
  }
  KeptTmpEntries(const KeptTmpEntries&) = delete;
  KeptTmpEntries& operator=(const KeptTmpEntries&) = delete;

  // After the private /tmp is mounted.
  std::string Bind() const {
    for (const Entry& e : entries_) {
      const std::string from = "/proc/self/fd/" + std::to_string(e.fd);
      if (mkdir(e.path.c_str(), 0755) != 0 && errno != EEXIST) return Errno("mkdir " + e.path);
      if (mount(from.c_str(), e.path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        return Errno("keep " + e.path + " visible");
      }
    }
    return "";
  }

 private:
  struct Entry {
    std::string path;
    int fd;
  };
  bool Has(const std::string& path) const {
    for (const Entry& e : entries_)
      if (e.path == path) return true;
    return false;
  }
  std::vector<Entry> entries_;
};

std::string SetupMounts(const SandboxOptions& o, bool userns, int* staging_fd) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return Errno("make the mount tree private");
  }
  const KeptTmpEntries kept(o.command);
  const unsigned long kFlags = MS_NOSUID | MS_NODEV;
  std::string size = "size=" + std::to_string(o.etc_size) + ",mode=0700";
  if (mount("vdx-sim-etc", "/tmp", "tmpfs", kFlags, size.c_str()) != 0) {
    return Errno("mount the /etc store");
  }
  if (mkdir("/tmp/upper", 0755) != 0 || mkdir("/tmp/work", 0700) != 0) {
    return Errno("prepare the /etc store");
  }
  std::string overlay = "lowerdir=/etc,upperdir=/tmp/upper,workdir=/tmp/work";
  if (userns) overlay += ",userxattr";
  if (mount("vdx-sim-etc", "/etc", "overlay", 0, overlay.c_str()) != 0) {
    return Errno("mount the overlay over /etc");
  }
  // The simulated host starts without a configuration of its own; the real host's, if
  // any, is hidden (whiteouts in the writable layer, the host's files untouched).
  if (access("/etc/vdev", F_OK) == 0 && !RemoveTree("/etc/vdev")) {
    return Errno("hide the host's /etc/vdev");
  }
  if (o.private_home) {
    // The library keeps a per-user flag file in the home directory of the user it runs
    // as, root inside the sandbox.
    const passwd* root = getpwuid(0);
    std::string home = root != nullptr && root->pw_dir[0] == '/' ? root->pw_dir : "/root";
    if (mkdir("/tmp/home-upper", 0755) != 0 || mkdir("/tmp/home-work", 0700) != 0) {
      return Errno("prepare the home store");
    }
    std::string opts = "lowerdir=" + home + ",upperdir=/tmp/home-upper,workdir=/tmp/home-work";
    if (userns) opts += ",userxattr";
    if (mount("vdx-sim-home", home.c_str(), "overlay", 0, opts.c_str()) != 0) {
      return Errno("mount the overlay over " + home);
    }
  }
  if (o.containers) {
    // A device node cannot be made in a user namespace.
    if (userns) return "--containers needs root: the device node cannot be made otherwise";
    const std::string error = MakeDeviceNode("/tmp/dev-store");
    if (!error.empty()) return error;
  }
  *staging_fd = open("/tmp", O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (*staging_fd < 0) return Errno("open the /etc store");
  struct {
    const char* target;
    const char* opts;
  } const kPrivate[] = {
      {"/tmp", "mode=1777"},
      // The library keeps its lock and the host's shared records under /run: each sandbox
      // has its own, and the host's are never touched.
      {"/run", "mode=0755"},
      {"/sys/devices/virtual", "mode=0755"},
      {"/sys/module", "mode=0755"},
  };
  for (const auto& m : kPrivate) {
    if (mount("vdx-sim", m.target, "tmpfs", kFlags, m.opts) != 0) {
      return Errno(std::string("mount a tmpfs on ") + m.target);
    }
  }
  return kept.Bind();
}

std::string ExeDir() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return ".";
  std::string path(buf, static_cast<size_t>(n));
  return path.substr(0, path.rfind('/'));
}

// The preload library sits beside the launcher in the build tree, and in the library
// directory once installed.
std::string FindPreload() {
  std::string dir = ExeDir();
  for (const std::string& candidate :
       {dir + "/libvdxsim_preload.so", dir + "/" VDXSIM_PRELOAD_RELPATH}) {
    if (access(candidate.c_str(), R_OK) == 0) return candidate;
  }
  return "";
}

std::vector<std::string> CommandEnvironment(const std::string& preload, const std::string& dir) {
  std::vector<std::string> env;
  std::string old_preload, asan, path = "/usr/local/bin:/usr/bin:/bin";
  for (char** e = environ; *e != nullptr; ++e) {
    std::string var(*e);
    if (var.rfind("PATH=", 0) == 0) {
      path = var.substr(5);
    } else if (var.rfind("LD_PRELOAD=", 0) == 0) {
      old_preload = var.substr(11);
    } else if (var.rfind("ASAN_OPTIONS=", 0) == 0) {
      asan = var.substr(13);
    } else {
      env.push_back(var);
    }
  }
  // `vdx-sim ctl` works inside without a path; the command's own PATH still comes first.
  if ((":" + path + ":").find(":" + dir + ":") == std::string::npos) path += ":" + dir;
  env.push_back("PATH=" + path);
  env.push_back("LD_PRELOAD=" + preload + (old_preload.empty() ? "" : ":" + old_preload));
  // A sanitized program would refuse to start with our library loaded ahead of its
  // runtime; the library intercepts nothing that the runtime needs first.
  env.push_back("ASAN_OPTIONS=" + (asan.empty() ? "" : asan + ":") + "verify_asan_link_order=0");
  return env;
}

pid_t g_init = -1;

void Forward(int sig) {
  if (g_init > 0) kill(g_init, sig);
}

// Whether the sandbox covers a path with a file system of its own.
bool Covered(const std::string& path) {
  for (const char* top : {"/tmp", "/etc"}) {
    std::string t = top;
    if (path == t || path.rfind(t + "/", 0) == 0) return true;
  }
  return false;
}

bool CopyFile(int from, const std::string& to_path) {
  int to = open(to_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
  if (to < 0) return false;
  char buf[65536];
  ssize_t n;
  bool ok = true;
  while (ok && (n = read(from, buf, sizeof buf)) > 0) ok = write(to, buf, static_cast<size_t>(n)) == n;
  close(to);
  return ok && n == 0;
}

// Where the command finds vdx-sim and the preload library. When the launcher lives where
// the sandbox covers (an install under /tmp), both are copied into the sandbox's own tree,
// from descriptors opened before the covering.
class Tools {
 public:
  bool Open() {
    char real[PATH_MAX];
    std::string found = FindPreload();
    if (found.empty() || realpath(found.c_str(), real) == nullptr) return false;
    preload_ = real;
    bin_dir_ = ExeDir();
    if (!Covered(preload_) && !Covered(bin_dir_)) return true;
    preload_fd_ = open(preload_.c_str(), O_RDONLY | O_CLOEXEC);
    exe_fd_ = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    return preload_fd_ >= 0 && exe_fd_ >= 0;
  }
  // After the mounts.
  bool Place() {
    if (preload_fd_ < 0) return true;
    const std::string dir = "/sys/devices/virtual/.vdx-sim";
    bool ok = (mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST) &&
              CopyFile(preload_fd_, dir + "/libvdxsim_preload.so") && CopyFile(exe_fd_, dir + "/vdx-sim");
    close(preload_fd_);
    close(exe_fd_);
    preload_ = dir + "/libvdxsim_preload.so";
    bin_dir_ = dir;
    return ok;
  }
  const std::string& preload() const { return preload_; }
  const std::string& bin_dir() const { return bin_dir_; }

 private:
  std::string preload_, bin_dir_;
  int preload_fd_ = -1, exe_fd_ = -1;
};

}  // namespace

// A machine has its loopback interface up; in a fresh network namespace it starts down. A
// service in the sandbox (a metrics page) listens there, private to the sandbox.
bool BringUpLoopback() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  ifreq request;
  std::memset(&request, 0, sizeof(request));
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  bool up = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  up = up && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  close(fd);
  return up;
}

int RunSandbox(const SandboxOptions& o) {
  Tools tools;
  if (!tools.Open()) {
    std::fprintf(stderr, "vdx-sim: cannot find libvdxsim_preload.so beside %s\n", ExeDir().c_str());
    return 125;
  }
  uid_t uid = geteuid();
  gid_t gid = getegid();
  bool userns = uid != 0;
  int flags = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | (userns ? CLONE_NEWUSER : 0);
  if (unshare(flags) != 0) {
    std::fprintf(stderr, "vdx-sim: cannot create the namespaces: %s\n", std::strerror(errno));
    return 125;
  }
  if (userns && !(WriteText("/proc/self/setgroups", "deny") &&
                  WriteText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") &&
                  WriteText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))) {
    std::fprintf(stderr, "vdx-sim: cannot map the user to root: %s\n", std::strerror(errno));
    return 125;
  }
  if (!BringUpLoopback()) {
    std::fprintf(stderr, "vdx-sim: cannot bring up the loopback interface: %s\n",
                 std::strerror(errno));
    return 125;
  }
  int staging_fd = -1;
  std::string error = SetupMounts(o, userns, &staging_fd);
  if (!error.empty()) {
    std::fprintf(stderr, "vdx-sim: %s\n", error.c_str());
    return 125;
  }
  if (!tools.Place()) {
    std::fprintf(stderr, "vdx-sim: cannot copy vdx-sim into the sandbox: %s\n", std::strerror(errno));
    return 125;
  }
  if (o.containers) {
    error = WriteMachineCdi(tools.preload());
    if (!error.empty()) {
      std::fprintf(stderr, "vdx-sim: %s\n", error.c_str());
      return 125;
    }
  }
  TmpfsEtc etc(staging_fd, o.etc_size);
  if (o.etc_full) error = etc.Fill();
  if (error.empty() && o.etc_readonly) error = etc.Set("ro");
  if (!error.empty()) {
    std::fprintf(stderr, "vdx-sim: %s\n", error.c_str());
    return 125;
  }
  int watch[2];
  if (pipe2(watch, O_CLOEXEC) != 0) return 125;
  pid_t init = fork();
  if (init < 0) {
    std::perror("vdx-sim: fork");
    return 125;
  }
  if (init == 0) {
    close(watch[1]);
    // Killing the launcher, even with SIGKILL, must take the sandbox down: the kernel
    // kills a PID namespace whose init dies.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd gone{watch[0], POLLIN, 0};
    if (poll(&gone, 1, 0) != 0) _exit(125);  // the launcher died before the line above
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
      std::fprintf(stderr, "vdx-sim: mount /proc: %s\n", std::strerror(errno));
      _exit(125);
    }
    DaemonConfig config;
    config.machine = o.machine;
    config.argv = o.command;
    config.env = CommandEnvironment(tools.preload(), tools.bin_dir());
    config.parent_fd = watch[0];
    config.etc = &etc;
    _exit(RunDaemon(config));
  }
  close(watch[0]);
  close(staging_fd);
  g_init = init;
  struct sigaction sa {};
  sa.sa_handler = Forward;
  for (int s : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) sigaction(s, &sa, nullptr);
  int status = 0;
  while (waitpid(init, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace vdxsim
