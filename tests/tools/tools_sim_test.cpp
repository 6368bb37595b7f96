// vdxctl and vdxd as a user runs them, in the simulator (one sandbox per case): every command
// in its formats, exit codes and refusals, the JSON checked against the driver and the files;
// vdxd's restore, following of changes, stop on request, clean exit and metrics page; the CDI
// document's edits applied to a process in a private mount namespace.
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "sim/ctl_client.h"
#include "tests/tools/tool_harness.h"

namespace {

using nlohmann::json;
using namespace vdxtest;

TEST(Vdxctl, CreateUpdateDestroy) {
  Result r = Vdxctl("create 0 --units 8,4 --memory 1024,2048");
  ASSERT_EQ(r.exit, 0) << r.err;
  EXPECT_EQ(r.out, "created 2 virtual devices on device 0\n");
  json j = JsonOf("vdevs");
  ASSERT_EQ(j["virtual_devices"].size(), 2u);
  const json& second = j["virtual_devices"][1];
  EXPECT_EQ(second["id"], 1);
  EXPECT_EQ(second["device"], 0);
  EXPECT_EQ(second["compute_units"], 4);
  EXPECT_EQ(second["memory_limit_bytes"], 2048ull << 20);
  EXPECT_EQ(second["pipe"], 1);
  EXPECT_EQ(second["started"], false);
  EXPECT_TRUE(second["busy_percent"].is_null());
  EXPECT_TRUE(Has(Slurp("/etc/vdev/vdev1.conf"), "cu_mask: 0x0000000000000f00\n"));

  ASSERT_EQ(Vdxctl("update 1 --memory 4096").exit, 0);
  j = JsonOf("vdevs");
  EXPECT_EQ(j["virtual_devices"][1]["memory_limit_bytes"], 4096ull << 20);
  EXPECT_EQ(j["virtual_devices"][1]["compute_units"], 4) << "units kept";

  // One CSV for both kinds: a "kind" column, then the JSON field names of each.
  r = Vdxctl("--format csv list");
  EXPECT_EQ(r.out.substr(0, r.out.find('\n')),
            "kind,index,name,compute_units,memory_bytes,memory_used_bytes,"
            "remaining_compute_units,remaining_memory_bytes,busy_percent,id,device,device_name,"
            "memory_limit_bytes,pipe,container_id,started");
  EXPECT_TRUE(Has(r.out, "\nvdev,,,8,,0,,,,0,0,ZO XC-100 32G,1073741824,0,0,false\n")) << r.out;

  ASSERT_EQ(Vdxctl("destroy 0").exit, 0);
  EXPECT_EQ(JsonOf("vdevs")["virtual_devices"].size(), 1u);
  ASSERT_EQ(Vdxctl("create 1 --count 2").exit, 0);
  ASSERT_EQ(Vdxctl("destroy --device 1").exit, 0);
  j = JsonOf("list");
  ASSERT_EQ(j["virtual_devices"].size(), 1u);
  EXPECT_EQ(j["virtual_devices"][0]["id"], 1);
  EXPECT_EQ(j["devices"][1]["remaining_compute_units"], 64);
}

TEST(Vdxctl, ExitCodesAndRefusals) {
  Result r = Vdxctl("create 0 --count 5");
  EXPECT_EQ(r.exit, 2);
  EXPECT_EQ(r.err, "--count: Value 5 not in range 1 to 4\nRun with --help for more information.\n");
  r = Vdxctl("update 5 --units 1");
  EXPECT_EQ(r.exit, 115);
  EXPECT_EQ(r.err, "vdxctl: virtual device 5 is not configured\n");
  EXPECT_EQ(Vdxctl("create 0 --units 8 --memory 1,2").exit, 2);
  EXPECT_EQ(Vdxctl("create").exit, 2);
  EXPECT_EQ(Vdxctl("--format xml devices").exit, 2);
  EXPECT_EQ(Vdxctl("destroy").exit, 2);
  EXPECT_EQ(Vdxctl("frobnicate").exit, 2);
  EXPECT_EQ(Vdxctl("--help").exit, 0);

  // The library's generic error (1) is exit 101 like every other status.
  ASSERT_EQ(Vdxctl("create 0 --count 1").exit, 0);
  std::string ignored;
  ASSERT_EQ(vdxsim::SimControl({"etc", "ro"}, &ignored), 0);
  r = Vdxctl("destroy 0");
  EXPECT_EQ(r.exit, 101) << r.err;
  ASSERT_EQ(vdxsim::SimControl({"etc", "rw"}, &ignored), 0);

  r = Shell("setpriv --reuid=65534 --regid=65534 --clear-groups " + kCtl + " create 0 --count 1");
  EXPECT_EQ(r.exit, 119) << r.err;
  EXPECT_EQ(r.err, "vdxctl: create: Permission denied. (status 19)\n");
  EXPECT_EQ(Shell("setpriv --reuid=65534 --regid=65534 --clear-groups " + kCtl + " devices").exit, 0)
      << "queries work for everyone";
}

// Every value is checked against what the host has before the library is asked: a bad one is
// a usage error that names it, and nothing changes on disk or in the driver.
TEST(Vdxctl, ChecksBeforeItCalls) {
  ASSERT_EQ(Vdxctl("create 0 --units 8 --memory 1024").exit, 0);
  ASSERT_EQ(Vdxctl("create 0 --units 0 --memory 512").exit, 0) << "no units: a sharing one";
  const std::string files = Shell("cat /etc/vdev/*.conf").out;
  const std::string driver = Dump();
  const std::map<std::string, std::string> refused = {
      {"create 0 --units 8,0 --memory 10,10", "must come before"},
      {"create 0 --memory 0", "--memory: Value 0 not in range"},
      {"create 0 --units -3", "--units: Value -3 not in range"},
      {"create 0 --count 0", "--count: Value 0 not in range 1 to 4"},
      {"create 9", "device: Value 9 not in range 0 to 7"},
      {"create 2", "device 2 does not exist: this host has devices 0 to 1"},
      {"create 1 --units 65", "--units 65: device 1 has 0 to 64 compute units"},
      {"create 0 --memory 40000", "--memory 40000: device 0 has 1 to 32768 MiB"},
      {"create 0 --units 8 --memory 1,2", "one value per virtual device"},
      {"update 0 --units -1", "--units: Value -1 not in range 0 to 128"},
      {"update 0 --memory 0", "--memory: Value 0 not in range"},
      {"update 0", "update needs --units, --memory or both"},
      {"update 32 --units 1", "vdev: Value 32 not in range 0 to 31"},
      {"destroy --device 7", "device 7 does not exist"},
      {"destroy", "destroy needs virtual device ids or --device"},
      {"destroy 0 --device 0", "not both"},
      {"destroy -1", "vdevs: Value -1 not in range 0 to 31"},
      {"start 40", "vdevs: Value 40 not in range 0 to 31"},
      {"busy --watch 0", "--watch: Value 0 not in range"},
      {"busy --rounds 2", "--rounds goes with --watch"},
      {"busy --watch 1 --rounds 0", "--rounds: Value 0 not in range"},
      {"frobnicate", "The following argument was not expected: frobnicate"},
      {"", "A subcommand is required"},
  };
  for (const auto& [args, message] : refused) {
    const Result r = Vdxctl(args);
    EXPECT_EQ(r.exit, 2) << args << ": " << r.err;
    EXPECT_TRUE(Has(r.err, message)) << args << ": " << r.err;
  }
  const Result unknown = Vdxctl("destroy 7");
  EXPECT_EQ(unknown.exit, 115);
  EXPECT_EQ(unknown.err, "vdxctl: virtual device 7 is not configured\n");
  EXPECT_EQ(Shell("cat /etc/vdev/*.conf").out, files) << "a refused command changed a file";
  EXPECT_EQ(Dump(), driver) << "a refused command changed the driver";

  const Result nothing = Vdxctl("destroy --device 1");
  EXPECT_EQ(nothing.exit, 0);
  EXPECT_EQ(nothing.out, "nothing to destroy: device 1 has no virtual devices\n");
}

TEST(Vdxctl, EveryQueryInEveryFormat) {
  ASSERT_EQ(Vdxctl("create 1 --count 2").exit, 0);
  const std::map<std::string, std::string> first_column = {
      {"devices", "index"}, {"vdevs", "id"}, {"list", "kind"}, {"busy", "kind"},
      {"encryption", "encrypted"}};
  for (const auto& [command, column] : first_column) {
    const Result json_out = Vdxctl("--format json " + command);
    ASSERT_EQ(json_out.exit, 0) << command << ": " << json_out.err;
    EXPECT_EQ(json::parse(json_out.out)["schema"], 1) << command;
    const Result csv = Vdxctl("--format csv " + command);
    ASSERT_EQ(csv.exit, 0) << command;
    EXPECT_EQ(csv.out.substr(0, csv.out.find(',')).substr(0, csv.out.find('\n')), column)
        << command << ": " << csv.out;
    // One header per output: a line of CSV has as many fields as the header.
    std::istringstream lines(csv.out);
    std::string line;
    std::getline(lines, line);
    const auto fields = std::count(line.begin(), line.end(), ',');
    while (std::getline(lines, line))
      EXPECT_EQ(std::count(line.begin(), line.end(), ','), fields) << command << ": " << line;
    const Result table = Vdxctl(command);
    ASSERT_EQ(table.exit, 0) << command;
    EXPECT_FALSE(table.out.empty()) << command;
  }
  // A virtual device asked for by id; one that is not configured is named.
  const json one = json::parse(Vdxctl("--format json vdevs 1").out);
  ASSERT_EQ(one["virtual_devices"].size(), 1u);
  EXPECT_EQ(one["virtual_devices"][0]["id"], 1);
  const Result missing = Vdxctl("vdevs 5");
  EXPECT_EQ(missing.exit, 115);
  EXPECT_EQ(missing.err, "vdxctl: virtual device 5 is not configured\n");
  // Watching: a time column, and one CSV header for all the rounds.
  const Result watch = Vdxctl("--format csv busy --watch 1 --rounds 2");
  ASSERT_EQ(watch.exit, 0);
  EXPECT_EQ(watch.out.substr(0, watch.out.find('\n')), "time,kind,id,busy_percent");
  size_t headers = 0;
  for (size_t at = watch.out.find("time,"); at != std::string::npos;
       at = watch.out.find("time,", at + 1))
    ++headers;
  EXPECT_EQ(headers, 1u) << watch.out;
  EXPECT_TRUE(Has(watch.out, "Z,device,0,")) << watch.out;
}

TEST(Vdxd, KeepsTheConfigurationStarted) {
  ASSERT_EQ(Vdxctl("create 0 --units 8 --memory 1024").exit, 0);
  Daemon daemon;
  EXPECT_EQ(Instances(), std::vector<std::string>{"21735_0"}) << "restored at start";

  ASSERT_EQ(Vdxctl("create 1 --units 4 --memory 512").exit, 0);
  EXPECT_TRUE(Within([] { return Instances().size() == 2; })) << "a new one starts within a second";

  ASSERT_EQ(Vdxctl("update 1 --memory 768").exit, 0);
  EXPECT_TRUE(Within([] { return Has(Dump(), "vgpu 0 group_id 1 indentifier 0x0 vram_limit 805306368"); }))
      << Dump();

  Result r = Vdxctl("stop 0");
  EXPECT_EQ(r.exit, 0) << r.err;
  EXPECT_EQ(r.out, "stopped 0: stopped\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_EQ(JsonOf("vdevs")["virtual_devices"][0]["started"], false) << "stays stopped";
  ASSERT_EQ(Vdxctl("start 0").exit, 0);
  EXPECT_EQ(JsonOf("vdevs")["virtual_devices"][0]["started"], true);

  ASSERT_EQ(Vdxctl("destroy 1").exit, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_EQ(JsonOf("vdevs")["virtual_devices"].size(), 1u) << "a destroy is not undone";
  EXPECT_EQ(Instances(), std::vector<std::string>{"21735_0"});

  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_TRUE(Instances().empty()) << "its instances went with it";
  EXPECT_TRUE(Has(Slurp("/tmp/vdxd.log"), "vdxd: stopping")) << Slurp("/tmp/vdxd.log");
}

TEST(Vdxd, MetricsPage) {
  ASSERT_EQ(Vdxctl("create 0 --units 8,4 --memory 1024,2048").exit, 0);
  std::string ignored;
  ASSERT_EQ(vdxsim::SimControl({"busy", "21735", "0x3"}, &ignored), 0);
  Daemon daemon;
  ASSERT_TRUE(Within([] { return Instances().size() == 2; }));
  const Result page = Shell("curl -sf http://127.0.0.1:9464/metrics");
  ASSERT_EQ(page.exit, 0) << page.err;

  std::map<std::string, int> help, type;
  std::map<std::string, double> samples;
  std::istringstream lines(page.out);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string first, second, third;
    words >> first >> second >> third;
    if (first == "#" && second == "HELP") {
      ++help[third];
    } else if (first == "#" && second == "TYPE") {
      ++type[third];
      EXPECT_TRUE(Has(line, " gauge")) << line;
    } else {
      // A sample: name and labels (whose values may hold blanks), a blank, the value.
      const size_t blank = line.rfind(' ');
      ASSERT_NE(blank, std::string::npos) << line;
      const std::string series = line.substr(0, blank);
      const std::string family = series.substr(0, series.find('{'));
      EXPECT_EQ(help.count(family), 1u) << "a sample before its HELP: " << line;
      EXPECT_EQ(type.count(family), 1u) << "a sample before its TYPE: " << line;
      samples[series] = std::stod(line.substr(blank + 1));
    }
  }
  EXPECT_EQ(help.size(), type.size());
  const std::string device0 = "{device=\"0\",name=\"ZO XC-100 32G\"}";
  EXPECT_EQ(samples["vdx_device_compute_units" + device0], 60);
  EXPECT_EQ(samples["vdx_device_free_compute_units" + device0], 48);
  EXPECT_DOUBLE_EQ(samples["vdx_device_busy_ratio" + device0], 0.03);
  const std::string vdev1 = "{vdev=\"1\",device=\"0\",name=\"ZO XC-100 32G\",container_id=\"0x0\"}";
  EXPECT_EQ(samples["vdx_vdev_memory_limit_bytes" + vdev1], 2048.0 * (1 << 20));
  EXPECT_EQ(samples["vdx_vdev_started" + vdev1], 1);
  EXPECT_DOUBLE_EQ(samples["vdx_vdev_busy_ratio{vdev=\"0\",device=\"0\",name=\"ZO XC-100 32G\","
                           "container_id=\"0x0\"}"],
                   0.25)
      << "2 busy of its 8 units";
  // The shortest text that reads back as the same number.
  EXPECT_TRUE(Has(page.out, "vdx_device_busy_ratio" + device0 + " 0.03\n")) << page.out;
  EXPECT_EQ(samples["vdx_build_info{version=\"1.0.0\",library=\"libzovdx.so.1\"}"], 1);

  // A landing page, and nothing but reading.
  EXPECT_TRUE(Has(Shell("curl -sf http://127.0.0.1:9464/").out, "href=\"/metrics\""));
  EXPECT_EQ(Shell("curl -s -o /dev/null -w '%{http_code}' -X POST -d x "
                  "http://127.0.0.1:9464/metrics").out,
            "405");
}

// --listen takes HOST:PORT, [IPV6]:PORT and :PORT; a bare IPv6 address is refused.
TEST(Vdxd, ListenAddresses) {
  Result r = Shell(std::string(VDXD_BIN) + " --listen ::1:9472");
  EXPECT_EQ(r.exit, 2);
  EXPECT_TRUE(Has(r.err, "[IPV6]:PORT")) << r.err;
  EXPECT_EQ(Shell(std::string(VDXD_BIN) + " --listen 127.0.0.1:70000").exit, 2);
  EXPECT_TRUE(Has(Shell(std::string(VDXD_BIN) + " --version").out, "vdxd 1.0.0"));
  for (const auto& [listen, url] : std::vector<std::pair<std::string, std::string>>{
           {"[::1]:9472", "http://[::1]:9472/metrics"}}) {
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
      const int log = open("/tmp/vdxd.log", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      dup2(log, 1);
      execl(VDXD_BIN, "vdxd", "--listen", listen.c_str(), nullptr);
      _exit(127);
    }
    EXPECT_TRUE(Within([&url] { return Shell("curl -sf -g '" + url + "'").exit == 0; })) << listen;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    EXPECT_TRUE(Has(Slurp("/tmp/vdxd.log"), "metrics on " + url)) << Slurp("/tmp/vdxd.log");
  }
}

bool DropTo(uid_t uid) {
  return setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 &&
         setresuid(uid, uid, uid) == 0;
}

// A client of vdxd's control socket that sends one byte every 200 ms for as long as it lives,
// never a whole line: as another user (uid) or as root.
pid_t Trickler(uid_t uid) {
  fflush(stdout);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (uid != 0 && !DropTo(uid)) _exit(3);
  const int fd = ConnectControl();
  if (fd < 0) _exit(4);
  for (int i = 0; i < 50; ++i) {
    send(fd, "s", 1, MSG_NOSIGNAL);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  _exit(0);
}

// Clients that send a byte now and then, root's among them, hold neither vdxctl's requests,
// nor the re-check, nor SIGTERM.
TEST(Vdxd, NobodyCanStallTheControlSocket) {
  ASSERT_EQ(Vdxctl("create 0 --units 8 --memory 1024").exit, 0);
  Daemon daemon;
  ASSERT_TRUE(Within([] { return Instances().size() == 1; }));
  std::vector<pid_t> tricklers;
  const bool can_drop = Shell("setpriv --reuid=65534 --regid=65534 --clear-groups true").exit == 0;
  for (int i = 0; i < 4; ++i) tricklers.push_back(Trickler(can_drop && i > 0 ? 65534 : 0));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));

  Result r;
  EXPECT_LT(SecondsOf([&] { r = Vdxctl("stop 0"); }), 1.0);
  EXPECT_EQ(r.exit, 0) << r.err;
  EXPECT_LT(SecondsOf([&] { r = Vdxctl("start 0"); }), 1.0);
  EXPECT_EQ(r.exit, 0) << r.err;
  ASSERT_EQ(Vdxctl("create 1 --units 4 --memory 512").exit, 0);
  EXPECT_TRUE(Within([] { return Instances().size() == 2; })) << "a new one starts within a second";
  // Another user never gets an answer but "root only", and gets it at once.
  if (can_drop) {
    r = Shell("setpriv --reuid=65534 --regid=65534 --clear-groups " + kCtl + " stop 0");
    EXPECT_NE(r.exit, 0);
    EXPECT_EQ(Instances().size(), 2u);
  }
  EXPECT_LT(SecondsOf([&] { EXPECT_EQ(daemon.Stop(), 0); }), 1.0);
  for (pid_t pid : tricklers) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
}

// A connection to vdxd's metrics port, or -1 when it is not made within timeout_ms.
int ConnectMetrics(int timeout_ms = 2000) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in address;
  memset(&address, 0, sizeof(address));
  address.sin_family = AF_INET;
  address.sin_port = htons(9464);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int error = 0;
  socklen_t length = sizeof(error);
  pollfd ready = {fd, POLLOUT, 0};
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 &&
      (errno != EINPROGRESS || poll(&ready, 1, timeout_ms) != 1 ||
       getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0)) {
    close(fd);
    return -1;
  }
  fcntl(fd, F_SETFL, 0);
  return fd;
}

// Sends `request` on a new connection and reads until vdxd closes it (at most 5 s).
std::string Exchange(const std::string& request) {
  const int fd = ConnectMetrics();
  if (fd < 0) return "no connection";
  timeval limit = {5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  std::string answer;
  char buffer[4096];
  ssize_t n;
  while ((n = recv(fd, buffer, sizeof(buffer), 0)) > 0) answer.append(buffer, n);
  close(fd);
  return answer;
}

long ResidentKiB(pid_t pid) {
  const std::string status = Slurp("/proc/" + std::to_string(pid) + "/status");
  const size_t at = status.find("VmRSS:");
  return at == std::string::npos ? -1 : atol(status.c_str() + at + 6);
}

// Requests in one write are answered in order; requests that cannot be taken are refused with
// their status, and one that never ends is dropped at its deadline.
TEST(Vdxd, MetricsRequestsWholeOrRefused) {
  Daemon daemon;
  const std::string both = Exchange(
      "GET /metrics HTTP/1.1\r\nHost: t\r\n\r\nGET / HTTP/1.1\r\nHost: t\r\n"
      "Connection: close\r\n\r\n");
  EXPECT_EQ(Count(both, "HTTP/1.1 200 OK\r\n"), 2u) << both;
  EXPECT_LT(both.find("vdx_build_info"), both.find("href=\"/metrics\"")) << both;
  // A small body is read, though refused: nothing here takes one.
  EXPECT_EQ(Exchange("POST /metrics HTTP/1.1\r\nContent-Length: 3\r\nConnection: close\r\n\r\nabc").substr(0, 12),
            "HTTP/1.1 405");
  const std::string filler = "X-Filler: " + std::string(9000, 'a') + "\r\n";
  EXPECT_EQ(Exchange("GET /metrics HTTP/1.1\r\n" + filler).substr(0, 12), "HTTP/1.1 431");
  EXPECT_EQ(Exchange("GET /metrics HTTP/1.1\r\n" + filler + "\r\n").substr(0, 12), "HTTP/1.1 431");
  EXPECT_EQ(Exchange("POST / HTTP/1.1\r\nContent-Length: 5000\r\n\r\n").substr(0, 12),
            "HTTP/1.1 413");
  EXPECT_EQ(Exchange("POST / HTTP/1.1\r\nContent-Length: 99999999999\r\n\r\n").substr(0, 12),
            "HTTP/1.1 413");
  EXPECT_EQ(Exchange("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n").substr(0, 12),
            "HTTP/1.1 411");
  EXPECT_EQ(Exchange("GET / HTTP/1.1\r\nContent-Length: x\r\n\r\n").substr(0, 12), "HTTP/1.1 400");
  double took = SecondsOf([] { EXPECT_EQ(Exchange("GET /metrics HTTP/1.1\r\nHost: t\r\n"), ""); });
  EXPECT_GT(took, 1.5);
  EXPECT_LT(took, 4.0);
}

// Idle connections beyond vdxd's descriptors, clients that send a header byte now and then,
// and one that sends header lines without end: scrapes are still answered at once, the
// library inside vdxd still finds descriptors, and vdxd's memory stays where it was.
TEST(Vdxd, NobodyCanStallTheMetrics) {
  ASSERT_EQ(Vdxctl("create 0 --units 8 --memory 1024").exit, 0);
  Daemon daemon(1024);
  ASSERT_TRUE(Within([] { return Instances().size() == 1; }));
  const long resident_before = ResidentKiB(daemon.pid());

  int report[2];
  ASSERT_EQ(pipe(report), 0);
  fflush(stdout);
  const pid_t bomber = fork();
  if (bomber == 0) {
    const int fd = ConnectMetrics();
    std::string lines = "GET /metrics HTTP/1.1\r\n";
    while (lines.size() < 65536) lines += "X-Filler: " + std::string(1000, 'a') + "\r\n";
    size_t sent = 0;
    for (ssize_t n = 0; fd >= 0 && sent < (300u << 20); sent += static_cast<size_t>(n)) {
      n = send(fd, lines.data(), lines.size(), MSG_NOSIGNAL);
      if (n <= 0) break;
    }
    if (write(report[1], &sent, sizeof(sent)) != sizeof(sent)) _exit(1);
    _exit(0);
  }
  close(report[1]);
  std::vector<pid_t> slow;
  for (int i = 0; i < 16; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      const int fd = ConnectMetrics();
      const std::string request = "GET /metrics HTTP/1.1\r\nHost: slow\r\nX-Slow: 1\r\n";
      for (int at = 0; fd >= 0 && at < 50; ++at) {
        send(fd, request.data() + at % request.size(), 1, MSG_NOSIGNAL);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
      }
      _exit(0);
    }
    slow.push_back(pid);
  }
  rlimit files;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  files.rlim_cur = files.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
  std::vector<int> idle;
  for (int i = 0; i < 1500; ++i) {
    const int fd = ConnectMetrics(200);
    if (fd < 0) break;
    idle.push_back(fd);
  }
  EXPECT_EQ(idle.size(), 1500u) << "connections are accepted, not left in the backlog";
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the slow ones under way

  for (int i = 0; i < 5; ++i) {
    Result page;
    EXPECT_LT(SecondsOf([&] { page = Shell("curl -sf -m 5 http://127.0.0.1:9464/metrics"); }), 1.0);
    EXPECT_EQ(page.exit, 0);
    EXPECT_TRUE(Has(page.out, "vdx_vdev_started{vdev=\"0\"")) << page.out;
  }
  Result r;
  EXPECT_LT(SecondsOf([&] { r = Vdxctl("stop 0"); }), 1.0);
  EXPECT_EQ(r.exit, 0) << r.err;
  ASSERT_EQ(Vdxctl("create 1 --units 4 --memory 512").exit, 0);
  EXPECT_TRUE(Within([] { return Instances().size() == 1 && JsonOf("vdevs")["virtual_devices"][1]["started"] == true; }))
      << "the library inside vdxd still starts new virtual devices";

  size_t sent = 0;
  EXPECT_EQ(read(report[0], &sent, sizeof(sent)), static_cast<ssize_t>(sizeof(sent)));
  close(report[0]);
  EXPECT_LT(sent, 32u << 20) << "the endless head is cut off";
  EXPECT_LT(ResidentKiB(daemon.pid()) - resident_before, 16 * 1024);
  EXPECT_EQ(daemon.Stop(), 0);
  for (int fd : idle) close(fd);
  for (pid_t pid : slow) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  waitpid(bomber, nullptr, 0);
}

// A started virtual device that shares its device's units has no busy percentage of its own:
// unknown in every format and no sample, not the number the division by zero units makes.
TEST(Vdxd, SharingVirtualDevicesHaveNoBusyPercent) {
  ASSERT_EQ(Vdxctl("create 0 --units 0,0 --memory 1024,1024").exit, 0);
  Daemon daemon;
  ASSERT_TRUE(Within([] { return Instances().size() == 2; }));
  const json vdevs = JsonOf("vdevs")["virtual_devices"];
  ASSERT_EQ(vdevs.size(), 2u);
  EXPECT_EQ(vdevs[0]["started"], true);
  EXPECT_TRUE(vdevs[0]["busy_percent"].is_null()) << vdevs;
  const json busy = JsonOf("busy")["virtual_devices"];
  ASSERT_EQ(busy.size(), 2u) << busy;
  EXPECT_TRUE(busy[1]["busy_percent"].is_null()) << busy;
  EXPECT_TRUE(Has(Vdxctl("--format csv busy").out, "\nvdev,1,\n"));
  EXPECT_TRUE(Has(Vdxctl("vdevs 0").out, "yes      -")) << Vdxctl("vdevs 0").out;
  const std::string page = Shell("curl -sf http://127.0.0.1:9464/metrics").out;
  EXPECT_TRUE(Has(page, "vdx_vdev_started{vdev=\"1\"")) << page;
  EXPECT_FALSE(Has(page, "vdx_vdev_busy_ratio{")) << page;
  EXPECT_FALSE(Has(Vdxctl("--format csv vdevs").out + Vdxctl("busy").out, "-2147483648"));
}

// Files the library cannot use (disabled, damaged, not a regular file) cost only their own
// virtual devices: the others are listed and started, each bad one is named once.
TEST(Vdxd, BadFilesCostOnlyThemselves) {
  ASSERT_EQ(Vdxctl("create 0 --units 8,8 --memory 1024,1024").exit, 0);
  std::ofstream("/etc/vdev/vdev5.conf") << Slurp("/etc/vdev/vdev1.conf") << "enable: 0\n";
  std::ofstream("/etc/vdev/vdev6.conf") << "PciBusId: nonsense\n";
  ASSERT_EQ(mkfifo("/etc/vdev/vdev7.conf", 0644), 0);

  const Result vdevs = Vdxctl("--format json vdevs");
  ASSERT_EQ(vdevs.exit, 0) << vdevs.err;
  EXPECT_EQ(json::parse(vdevs.out)["virtual_devices"].size(), 2u);
  for (int id : {5, 6, 7})
    EXPECT_TRUE(Has(vdevs.err, "virtual device " + std::to_string(id) + " left out")) << vdevs.err;
  EXPECT_EQ(Vdxctl("cdi generate").exit, 0);

  Daemon daemon;
  EXPECT_TRUE(Within([] { return Instances().size() == 2; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // two re-checks
  const std::string log = Slurp("/tmp/vdxd.log");
  for (int id : {5, 6, 7}) {
    const std::string line = "cannot use virtual device " + std::to_string(id) + ":";
    size_t count = 0;
    for (size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) ++count;
    EXPECT_EQ(count, 1u) << line << "\n" << log;
  }
  const Result page = Shell("curl -sf http://127.0.0.1:9464/metrics");
  ASSERT_EQ(page.exit, 0);
  EXPECT_TRUE(Has(page.out, "\nvdx_vdev_unusable_files 3\n")) << page.out;
  EXPECT_TRUE(Has(page.out, "vdx_vdev_started{vdev=\"1\"")) << page.out;
}

// Started before the host manager service, vdxd cannot work (the library's start-up is never
// tried again): it says why and exits non-zero at once, so that its supervisor starts it again.
TEST(Vdxd, StartedBeforeTheServiceExitsAndLaterWorks) {
  ASSERT_EQ(Vdxctl("create 0 --units 8 --memory 1024").exit, 0);
  std::string ignored;
  ASSERT_EQ(vdxsim::SimControl({"service", "stop"}, &ignored), 0);
  Result r;
  EXPECT_LT(SecondsOf([&] { r = Shell(std::string(VDXD_BIN) + " --interval 1"); }), 5.0);
  EXPECT_EQ(r.exit, 1);
  EXPECT_TRUE(Has(r.err, "(status 13)")) << r.err;
  ASSERT_EQ(vdxsim::SimControl({"service", "start"}, &ignored), 0);
  Daemon daemon;
  EXPECT_TRUE(Within([] { return Instances().size() == 1; }));
}

// "all" only over virtual devices that a container can be given together; none at all
// without virtual devices.
TEST(Cdi, AllNamesWhatAContainerCanBindTogether) {
  Result r = Vdxctl("cdi generate");
  EXPECT_EQ(r.exit, 1);
  EXPECT_TRUE(Has(r.err, "no virtual devices")) << r.err;
  ASSERT_EQ(Vdxctl("create 0 --units 0,0 --memory 1024,1024").exit, 0);
  json cdi = json::parse(Vdxctl("cdi generate").out);
  EXPECT_EQ(cdi["devices"].back()["name"], "all");
  ASSERT_EQ(Vdxctl("create 1 --units 8 --memory 1024").exit, 0);
  r = Vdxctl("cdi generate --output /tmp/vdev.json");
  EXPECT_EQ(r.exit, 0);
  EXPECT_TRUE(Has(r.out, "3 virtual devices and \"all-units\" and \"all-shared\"")) << r.out;
  cdi = json::parse(Slurp("/tmp/vdev.json"));
  std::map<std::string, size_t> mounts;
  for (const json& d : cdi["devices"]) mounts[d["name"]] = d["containerEdits"]["mounts"].size();
  EXPECT_EQ(mounts, (std::map<std::string, size_t>{
                        {"0", 1}, {"1", 1}, {"2", 1}, {"all-units", 1}, {"all-shared", 2}}));
}

}  // namespace
