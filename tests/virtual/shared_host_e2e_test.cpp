// A host shared with others, through the shipped library in the simulator: an unprivileged
// user who holds every lock it can and plants files cannot stall or break root; every
// process answers from the files as the last completed change left them; numbers outside
// 0..31 stand for no other id; a destroy that could not remove its file fails; a process's
// exit destroys only its own instances; a file holding another id than its name's stays one
// record; only a root listener is the manager service; and modes do not follow the umask.
// One sandbox per case; processes of their own stand for other tools and tenants.
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/sim/raw_client.h"
#include "tests/virtual/e2e_support.h"
#include "zovdx/vdx.h"

namespace {

using e2e::Create;
using e2e::Ctl;
using e2e::kMiB;
using e2e::VdevFile;
using e2e::WriteVdev;

constexpr uid_t kNobody = 65534;

bool DropTo(uid_t uid) {
  return setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 &&
         setresuid(uid, uid, uid) == 0;
}

// Whether this sandbox has a user to drop to (not so under a user namespace that maps only
// the caller).
bool CanDropPrivileges() {
  const pid_t child = fork();
  if (child == 0) _exit(DropTo(kNobody) ? 0 : 1);
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Another process that loads the library: another tool or tenant. Forked before this
// process makes its first call, so that it starts a manager of its own on its first request.
// Requests are lines; each answer is a number (a status as its negative where noted).
class Peer {
 public:
  explicit Peer(uid_t uid = 0) {
    int to[2], from[2];
    EXPECT_EQ(pipe2(to, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(from, O_CLOEXEC), 0);
    fflush(stdout);
    pid_ = fork();
    if (pid_ == 0) {
      close(to[1]);
      close(from[0]);
      if (uid != 0 && !DropTo(uid)) _exit(3);
      Serve(fdopen(to[0], "r"), fdopen(from[1], "w"));
    }
    close(to[0]);
    close(from[1]);
    out_ = fdopen(to[1], "w");
    in_ = fdopen(from[0], "r");
  }
  ~Peer() {
    if (pid_ > 0) Exit();
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  long Call(const std::string& request) {
    fprintf(out_, "%s\n", request.c_str());
    fflush(out_);
    char line[64];
    if (fgets(line, sizeof(line), in_) == nullptr) {
      ADD_FAILURE() << "the peer is gone after: " << request;
      return -1000;
    }
    return strtol(line, nullptr, 10);
  }
  // Ends the process the ordinary way, so that the library's teardown runs.
  void Exit() {
    Call("exit");
    fclose(out_);
    fclose(in_);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
  }

 private:
  [[noreturn]] static void Serve(FILE* in, FILE* out) {
    char line[128];
    while (fgets(line, sizeof(line), in) != nullptr) {
      char verb[32] = "";
      long a = 0, b = 0;
      sscanf(line, "%31s %ld %ld", verb, &a, &b);
      const std::string v = verb;
      const int id = static_cast<int>(a);
      long answer = 0;
      if (v == "count") {
        int count = 0;
        const vdxStatus status = vdxGetVDeviceCount(&count);
        answer = status == VDX_STATUS_SUCCESS ? count : -status;
      } else if (v == "info") {
        vdxDeviceInfo info;
        const vdxStatus status = vdxGetVDeviceInfo(id, &info);
        answer = status == VDX_STATUS_SUCCESS ? static_cast<long>(info.global_mem_size / kMiB)
                                              : -status;
      } else if (v == "create") {
        answer = Create(id, {4}, {static_cast<int>(b)});
      } else if (v == "remaining") {
        size_t units = 0, memory = 0;
        const vdxStatus status = vdxGetDeviceRemainingInfo(id, &units, &memory);
        answer = status == VDX_STATUS_SUCCESS ? static_cast<long>(units) : -status;
      } else if (v == "update") {
        answer = vdxUpdateSingleVDevice(id, -1, static_cast<int>(b));
      } else if (v == "destroy") {
        answer = vdxDestroySingleVDevice(id);
      } else if (v == "start") {
        answer = vdxStartVDevice(id);
      } else if (v == "stop") {
        answer = vdxStopVDevice(id);
      } else if (v == "maxrss") {
        struct rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        answer = usage.ru_maxrss;  // KiB
      } else if (v == "exit") {
        fprintf(out, "0\n");
        fflush(out);
        exit(0);
      }
      fprintf(out, "%ld\n", answer);
      fflush(out);
    }
    exit(0);
  }

  pid_t pid_ = -1;
  FILE* out_ = nullptr;
  FILE* in_ = nullptr;
};

// id -> memory (MiB) of every configuration file now on disk.
std::map<int, long> FilesOnDisk() {
  std::map<int, long> files;
  for (int id = 0; id < 32; ++id) {
    std::ifstream in("/etc/vdev/vdev" + std::to_string(id) + ".conf");
    std::string line;
    while (in && std::getline(in, line)) {
      if (line.rfind("mem: ", 0) == 0) files[id] = strtol(line.c_str() + 5, nullptr, 0);
    }
  }
  return files;
}

std::vector<std::string> Instances() {
  return rawsim::ListDir(std::string(rawsim::kKfd) + "/vgpu");
}

// Changes made by one process, answers asked of another right after each completed change:
// the answers must always be those of the files.
void ExpectNoStaleAnswer(uid_t querier_uid, int rounds) {
  Peer changer;
  Peer querier(querier_uid);
  std::mt19937 random(20261123);
  int stale = 0;
  for (int round = 0; round < rounds; ++round) {
    std::map<int, long> files = FilesOnDisk();
    const int tag = 200 + round;
    std::vector<int> ids;
    for (const auto& entry : files) ids.push_back(entry.first);
    const int pick = ids.empty() ? 0 : ids[random() % ids.size()];
    const unsigned what = random() % 3;
    long status;
    if (ids.empty() || (what == 0 && ids.size() < 4))
      status = changer.Call("create 0 " + std::to_string(tag));
    else if (what == 1)
      status = changer.Call("update " + std::to_string(pick) + " " + std::to_string(tag));
    else
      status = changer.Call("destroy " + std::to_string(pick));
    ASSERT_EQ(status, 0) << "round " << round;

    files = FilesOnDisk();
    bool fresh = querier.Call("count") == static_cast<long>(files.size());
    for (int id = 0; id < 32; ++id) {
      const auto file = files.find(id);
      const long expected = file == files.end() ? -VDX_STATUS_VDEV_NOT_EXIST : file->second;
      fresh = fresh && querier.Call("info " + std::to_string(id)) == expected;
    }
    if (!fresh) ++stale;
  }
  EXPECT_EQ(stale, 0) << "of " << rounds << " rounds";
}

TEST(Freshness, OnCoarseTimeStamps) {
  // ramfs stamps changes with the coarse clock: many changes share one stamp.
  ASSERT_EQ(mkdir("/etc/vdev", 0755), 0);
  ASSERT_EQ(mount("vdx-test", "/etc/vdev", "ramfs", 0, "mode=0755"), 0) << strerror(errno);
  ExpectNoStaleAnswer(0, 300);
}

TEST(Freshness, OnTheSandboxesEtcForAnUnprivilegedReader) {
  // A reader that may not take the lock still gets every completed change.
  ExpectNoStaleAnswer(CanDropPrivileges() ? kNobody : 0, 300);
}

TEST(Freshness, TheGenerationShowsWhatTheDirectorysStampHides) {
  // A change that leaves the directory's time stamp where it was (a clock set back, a restore)
  // is still seen: the generation moved.
  Peer changer;
  Peer querier(0);
  const struct timespec long_ago[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(changer.Call("create 0 100"), 0);
  ASSERT_EQ(utimensat(AT_FDCWD, "/etc/vdev", long_ago, 0), 0);
  ASSERT_EQ(querier.Call("count"), 1);
  ASSERT_EQ(changer.Call("create 0 101"), 0);
  ASSERT_EQ(utimensat(AT_FDCWD, "/etc/vdev", long_ago, 0), 0);
  EXPECT_EQ(querier.Call("count"), 2);
}

// Walks dir, opening every file it can and holding the strongest flock it gets on each.
void LockEverything(const std::string& dir, std::vector<int>* held) {
  std::vector<std::string> names = rawsim::ListDir(dir);
  for (const std::string& name : names) {
    const std::string path = dir + "/" + name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      LockEverything(path, held);
      continue;
    }
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) continue;
    if (flock(fd, LOCK_EX | LOCK_NB) == 0 || flock(fd, LOCK_SH | LOCK_NB) == 0)
      held->push_back(fd);
    else
      close(fd);
  }
}

TEST(HostileUser, HoldingEveryLockItCanAndPlantingFilesStallsNobody) {
  if (!CanDropPrivileges()) GTEST_SKIP() << "no unprivileged user in this sandbox";
  ASSERT_EQ(Create(0, {4, 4}, {100, 100}), VDX_STATUS_SUCCESS);

  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  fflush(stdout);
  const pid_t hostile = fork();
  if (hostile == 0) {
    close(ready[0]);
    if (!DropTo(kNobody)) _exit(3);
    // Under the old lock name: a FIFO, and links and directories beside it; under the new
    // one nothing can be planted at all.
    mkfifo("/tmp/.vdx_virtual.lock", 0666);
    symlink("/etc/vdev/vdev0.conf", "/tmp/.vdx_virtual.lock.link");
    mkdir("/tmp/.vdx_virtual.lock.d", 0777);
    int planted_in_run = 0;
    planted_in_run += mkdir("/run/zovdx/x", 0777) == 0;
    planted_in_run += symlink("/tmp", "/run/zovdx/vdx_virtual.lock.new") == 0;
    planted_in_run += mkfifo("/run/zovdx/generation.new", 0666) == 0;
    planted_in_run += open("/run/zovdx/vdx_virtual.lock", O_RDONLY) >= 0;
    std::vector<int> held;
    LockEverything("/tmp", &held);
    LockEverything("/run", &held);
    const int report[2] = {planted_in_run, static_cast<int>(held.size())};
    if (write(ready[1], report, sizeof(report)) != sizeof(report)) _exit(4);
    pause();
    _exit(0);
  }
  close(ready[1]);
  int report[2] = {-1, -1};
  ASSERT_EQ(read(ready[0], report, sizeof(report)), static_cast<ssize_t>(sizeof(report)));
  close(ready[0]);
  EXPECT_EQ(report[0], 0) << "the user planted something under /run/zovdx";
  EXPECT_GE(report[1], 1) << "the user holds the generation file at least";

  // Everything completes as if nobody were there; a hang ends the test here.
  alarm(60);
  ASSERT_EQ(Create(0, {4}, {300}), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxUpdateSingleVDevice(2, 6, 400), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxStartVDevice(2), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxStopVDevice(2), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxDestroySingleVDevice(1), VDX_STATUS_SUCCESS);
  int count = 0;
  EXPECT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 2);
  vdxDeviceInfo info;
  ASSERT_EQ(vdxGetVDeviceInfo(2, &info), VDX_STATUS_SUCCESS);
  EXPECT_EQ(info.compute_unit_count, 6);
  EXPECT_EQ(info.global_mem_size, 400 * kMiB);
  size_t units = 0, memory = 0;
  EXPECT_EQ(vdxGetDeviceRemainingInfo(0, &units, &memory), VDX_STATUS_SUCCESS);
  EXPECT_EQ(units, 60u - 4 - 6);
  int percent = -1;
  EXPECT_EQ(vdxGetDevBusyPercent(0, &percent), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxDestroyVDevices(0), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 0);
  alarm(0);
  kill(hostile, SIGKILL);
  waitpid(hostile, nullptr, 0);
}

// Whatever is found under the lock's names that is not root's own is refused with status 1,
// and nothing is created through it.
TEST(LockPlace, AnythingButRootsOwnIsRefused) {
  const bool can_drop = CanDropPrivileges();
  struct Case {
    const char* what;
    std::function<void()> plant;
  };
  const std::vector<Case> cases = {
      {"a link for the directory", [] { mkdir("/tmp/elsewhere", 0755);
                                        symlink("/tmp/elsewhere", "/run/zovdx"); }},
      {"a file for the directory", [] { close(creat("/run/zovdx", 0644)); }},
      {"a directory others may write", [] { mkdir("/run/zovdx", 0777); chmod("/run/zovdx", 0777); }},
      {"a link for the lock file", [] { mkdir("/run/zovdx", 0755);
                                        close(creat("/tmp/target", 0600));
                                        symlink("/tmp/target", "/run/zovdx/vdx_virtual.lock"); }},
      {"a FIFO for the lock file", [] { mkdir("/run/zovdx", 0755);
                                        mkfifo("/run/zovdx/vdx_virtual.lock", 0600); }},
      {"a lock file others may open", [] { mkdir("/run/zovdx", 0755);
                                           close(creat("/run/zovdx/vdx_virtual.lock", 0644)); }},
      {"another user's directory", [] { mkdir("/run/zovdx", 0755);
                                        EXPECT_EQ(chown("/run/zovdx", kNobody, kNobody), 0); }},
      {"another user's lock file", [] { mkdir("/run/zovdx", 0755);
                                        close(creat("/run/zovdx/vdx_virtual.lock", 0600));
                                        EXPECT_EQ(chown("/run/zovdx/vdx_virtual.lock", kNobody,
                                                        kNobody), 0); }},
  };
  for (const Case& c : cases) {
    if (!can_drop && strstr(c.what, "another user") != nullptr) continue;
    ASSERT_EQ(system("rm -rf /run/zovdx /tmp/elsewhere /tmp/target"), 0);
    c.plant();
    Peer root;
    EXPECT_EQ(root.Call("count"), -VDX_STATUS_ERROR) << c.what;
    root.Exit();
    EXPECT_EQ(access("/tmp/elsewhere/vdx_virtual.lock", F_OK), -1) << c.what;
    const std::string target = rawsim::ReadText("/tmp/target");
    EXPECT_TRUE(target.empty() || target == "<missing>") << c.what << ": " << target;
  }
  // Once the place is root's own again, all is well.
  ASSERT_EQ(system("rm -rf /run/zovdx"), 0);
  Peer root;
  EXPECT_EQ(root.Call("count"), 0);
}

TEST(Ids, OutsideZeroTo31StandForNoOtherId) {
  ASSERT_EQ(Create(0, {4, 4}, {100, 100}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxStartVDevice(0), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxStartVDevice(1), VDX_STATUS_SUCCESS);
  for (int id : {32, 33, 64, -1, -32}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(vdxStopVDevice(id), VDX_STATUS_VDEV_NOT_EXIST);
    EXPECT_EQ(vdxStartVDevice(id), VDX_STATUS_VDEV_NOT_EXIST);
    EXPECT_EQ(Instances().size(), 2u) << "an instance was destroyed or made";
    vdxDeviceInfo info;
    EXPECT_EQ(vdxGetVDeviceInfo(id, &info), VDX_STATUS_INVALID_ARGUMENTS);
    int percent = 0;
    EXPECT_EQ(vdxGetVDevBusyPercent(id, &percent),
              id < 0 ? VDX_STATUS_INVALID_ARGUMENTS : VDX_STATUS_VDEV_NOT_EXIST);
    const vdxStatus refused = id < 0 ? VDX_STATUS_VDEV_NOT_EXIST : VDX_STATUS_ERROR;
    EXPECT_EQ(vdxUpdateSingleVDevice(id, 8, 200), refused);
    EXPECT_EQ(vdxDestroySingleVDevice(id), refused);
    EXPECT_EQ(FilesOnDisk(), (std::map<int, long>{{0, 100}, {1, 100}}));
  }
  EXPECT_EQ(Instances().size(), 2u);
}

TEST(Ids, APipeBeyondThreeOvercommitsItsDevice) {
  for (int pipe : {4, 32, 36}) {
    SCOPED_TRACE(pipe);
    VdevFile f;
    f.pci = e2e::kPci1;
    f.device_id = 1;
    f.vdev_id = 5;
    f.pipe_id = pipe;
    f.mem = 10;
    WriteVdev(5, f);
    Peer fresh;  // reads the hand-made file from the start
    EXPECT_EQ(fresh.Call("remaining 1"), -VDX_STATUS_OUT_OF_RESOURCES);
    EXPECT_EQ(fresh.Call("create 1 100"), VDX_STATUS_OUT_OF_RESOURCES);
    EXPECT_EQ(fresh.Call("remaining 0"), 60) << "another device is not concerned";
  }
}

TEST(Destroy, AFileThatStaysKeepsItsVirtualDeviceEverywhere) {
  Peer other;
  ASSERT_EQ(Create(0, {4, 4}, {100, 200}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(other.Call("count"), 2);
  Ctl({"etc", "ro"});
  EXPECT_EQ(vdxDestroySingleVDevice(0), VDX_STATUS_ERROR);
  EXPECT_EQ(vdxDestroyVDevices(0), VDX_STATUS_ERROR);
  int count = 0;
  EXPECT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 2);
  vdxDeviceInfo info;
  EXPECT_EQ(vdxGetVDeviceInfo(0, &info), VDX_STATUS_SUCCESS);
  EXPECT_EQ(other.Call("count"), 2);
  EXPECT_EQ(other.Call("info 0"), 100);
  // A start makes its instance again, as for any configured virtual device.
  EXPECT_EQ(vdxStartVDevice(0), VDX_STATUS_SUCCESS);

  Ctl({"etc", "rw"});
  EXPECT_EQ(vdxStopVDevice(0), VDX_STATUS_SUCCESS);
  EXPECT_EQ(vdxDestroySingleVDevice(0), VDX_STATUS_SUCCESS);
  EXPECT_EQ(other.Call("count"), 1);
  EXPECT_EQ(other.Call("info 0"), -VDX_STATUS_VDEV_NOT_EXIST);
}

// A process that once made an instance, which others have since destroyed and made again,
// leaves the new one alone at its exit.
TEST(Instances, AnotherProcessesInstanceSurvivesAnExit) {
  Peer maker;  // this process itself never loads the library: its peers start their own
  ASSERT_EQ(maker.Call("create 0 100"), VDX_STATUS_SUCCESS);
  const std::vector<std::string> one = {std::to_string(rawsim::kGpu0) + "_0"};
  {
    Peer first, second;
    ASSERT_EQ(first.Call("start 0"), 0);
    ASSERT_EQ(second.Call("update 0 150"), 0) << "the update destroys first's instance";
    ASSERT_TRUE(Instances().empty());
    ASSERT_EQ(second.Call("start 0"), 0);
    first.Exit();
    EXPECT_EQ(Instances(), one) << "first's exit destroyed second's instance";
    second.Exit();
    EXPECT_TRUE(Instances().empty()) << "second's own instance goes with it";
  }
  {
    Peer first, second;
    ASSERT_EQ(first.Call("start 0"), 0);
    ASSERT_EQ(second.Call("stop 0"), 0);
    ASSERT_EQ(second.Call("start 0"), 0);
    ASSERT_EQ(first.Call("start 0"), 0) << "the instance is there as configured";
    first.Exit();
    EXPECT_EQ(Instances(), one);
  }
}

TEST(Memory, AFileHoldingAnotherIdStaysOneRecord) {
  VdevFile f;
  f.vdev_id = 1;
  WriteVdev(5, f);
  int count = 0;
  ASSERT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS);
  ASSERT_EQ(count, 1);
  vdxDeviceInfo info;
  for (int i = 0; i < 2000; ++i) vdxGetVDeviceInfo(5, &info);
  ASSERT_EQ(vdxGetVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 1);
}

// A listener on the service's name while the service is down.
class FakeService {
 public:
  enum Kind { kSilent, kHugeReply, kAnswering };
  // Listens as uid (forked when not root) and serves one kind of reply to every client.
  FakeService(Kind kind, uid_t uid) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    fflush(stdout);
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      if (uid != 0 && !DropTo(uid)) _exit(3);
      const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
      struct sockaddr_un address;
      memset(&address, 0, sizeof(address));
      address.sun_family = AF_UNIX;
      const char kName[] = "xcu_uds_abstract_socket";
      memcpy(address.sun_path + 1, kName, sizeof(kName) - 1);
      const socklen_t length = offsetof(struct sockaddr_un, sun_path) + 1 + sizeof(kName) - 1;
      if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
          listen(listener, 16) != 0)
        _exit(4);
      if (write(ready[1], "r", 1) != 1) _exit(5);
      for (;;) {
        if (kind == kSilent) {
          pause();  // never accepts: connections wait in the backlog
          continue;
        }
        const int client = accept(listener, nullptr, nullptr);
        if (client < 0) continue;
        char request[16];
        if (read(client, request, sizeof(request)) != sizeof(request)) continue;
        // magic, pid, from_type 2 (the service), cmd_type 29 (system mode), data_size
        int32_t header[4] = {0x7A6F6D63, 1, 2 | (29 << 16), 4};
        if (kind == kHugeReply) header[3] = 0x7fffffff;
        const int32_t mode = 0;
        if (write(client, header, sizeof(header)) < 0 ||
            (kind == kAnswering && write(client, &mode, sizeof(mode)) < 0))
          continue;
        // Held open: a reader waiting for the rest gets nothing more.
      }
    }
    close(ready[1]);
    char c;
    EXPECT_EQ(read(ready[0], &c, 1), 1) << "the fake service did not start";
    close(ready[0]);
  }
  ~FakeService() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_ = -1;
};

TEST(Service, OnlyARootListenerIsTheServiceAndItsWaitIsBounded) {
  Ctl({"service", "stop"});
  struct Case {
    const char* what;
    FakeService::Kind kind;
    uid_t uid;
    long expected;
  };
  std::vector<Case> cases = {
      {"a silent listener", FakeService::kSilent, 0, -VDX_STATUS_ERROR_NOT_INITIALIZED},
      {"a reply of 2 GiB announced", FakeService::kHugeReply, 0,
       -VDX_STATUS_ERROR_NOT_INITIALIZED},
      {"root's listener answering", FakeService::kAnswering, 0, 0},
  };
  if (CanDropPrivileges())
    cases.push_back({"another user's listener answering", FakeService::kAnswering, kNobody,
                     -VDX_STATUS_ERROR_NOT_INITIALIZED});
  for (const Case& c : cases) {
    FakeService service(c.kind, c.uid);
    Peer process;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(process.Call("count"), c.expected) << c.what;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << c.what;
    EXPECT_LT(process.Call("maxrss"), 256 * 1024) << c.what << ": KiB at most";
  }
}

TEST(Modes, DoNotDependOnTheUmask) {
  umask(0);
  ASSERT_EQ(Create(0, {4}, {100}), VDX_STATUS_SUCCESS);
  ASSERT_EQ(vdxUpdateSingleVDevice(0, -1, 300), VDX_STATUS_SUCCESS);
  const std::map<std::string, mode_t> expected = {
      {"/etc/vdev", 0755}, {"/etc/vdev/vdev0.conf", 0644}, {"/run/zovdx", 0755},
      {"/run/zovdx/vdx_virtual.lock", 0600}, {"/run/zovdx/generation", 0644}};
  for (const auto& [path, mode] : expected) {
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
    EXPECT_EQ(st.st_mode & 07777, mode) << path;
    EXPECT_EQ(st.st_uid, 0u) << path;
  }
  if (!CanDropPrivileges()) return;
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    if (!DropTo(kNobody)) _exit(3);
    const bool refused = open("/etc/vdev/vdev0.conf", O_WRONLY) < 0 && errno == EACCES &&
                         creat("/etc/vdev/vdev9.conf", 0644) < 0 && errno == EACCES;
    _exit(refused ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "an unprivileged user wrote";
}

}  // namespace
