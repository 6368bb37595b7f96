// vdxd: the node service of libzovdx. A virtual device's driver instance lives as long as the
// process that started it, so this long-running process is the one that starts them: every
// configured virtual device at start, and again whenever the configuration under /etc/vdev
// changes (inotify, with a periodic re-check as a safety net), except those an administrator
// stopped through vdxctl. It serves Prometheus metrics over HTTP and answers vdxctl's start
// and stop requests on a local control socket. On SIGTERM or SIGINT it exits, and the
// instances it started go with it.
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <httplib.h>

#include "tools/common/control.h"
#include "tools/common/plain_log.h"
#include "tools/common/vdx_view.h"
#include "tools/vdxd/http_front.h"
#include "tools/vdxd/metrics.h"
#include "zovdx/vdx.h"

namespace {

constexpr char kVdevDir[] = "/etc/vdev";

void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Say(const char* format, ...) {
  va_list args;
  va_start(args, format);
  printf("vdxd: ");
  vprintf(format, args);
  printf("\n");
  fflush(stdout);
  va_end(args);
}

class Service {
 public:
  // Starts every configured virtual device that is not running and was not stopped on
  // request. Starting is idempotent: one that runs as configured is left alone; one whose
  // instance an update removed is started again with its new shape. A virtual device whose
  // file cannot be used is reported once (until its trouble changes) and costs only itself.
  void Sync() {
    std::vector<vdxtool::VdevView> vdevs;
    std::vector<vdxtool::UnusableVdev> unusable;
    const vdxStatus status = vdxtool::ListVdevs(&vdevs, &unusable);
    if (status != VDX_STATUS_SUCCESS) {
      Say("cannot read the configuration: %s (status %d)", vdxtool::StatusText(status).c_str(),
          status);
      return;
    }
    std::map<int, vdxStatus> now_unusable;
    for (const vdxtool::UnusableVdev& u : unusable) {
      now_unusable[u.id] = u.status;
      const auto known = unusable_.find(u.id);
      if (known == unusable_.end() || known->second != u.status)
        Say("cannot use virtual device %d: %s (status %d); the others go on", u.id,
            vdxtool::StatusText(u.status).c_str(), u.status);
    }
    unusable_.swap(now_unusable);
    std::set<int> configured;
    for (const vdxtool::VdevView& v : vdevs) {
      configured.insert(v.id);
      if (v.started || stopped_.count(v.id) != 0) continue;
      const vdxStatus started = vdxStartVDevice(v.id);
      if (started == VDX_STATUS_SUCCESS)
        Say("started virtual device %d (device %d, %d units, %llu MiB)", v.id, v.device, v.units,
            static_cast<unsigned long long>(v.memory_limit_bytes >> 20));
      else
        Say("cannot start virtual device %d: %s (status %d)", v.id,
            vdxtool::StatusText(started).c_str(), started);
    }
    // An id that was destroyed may come back as another virtual device: it starts normally.
    for (auto it = stopped_.begin(); it != stopped_.end();)
      it = configured.count(*it) ? std::next(it) : stopped_.erase(it);
  }

  // The metrics page as it stands now. Made here, in the main loop, so that a scrape only
  // copies text and never waits on the library.
  void RefreshMetrics() {
    std::vector<vdxtool::DeviceView> devices;
    std::vector<vdxtool::VdevView> vdevs;
    std::vector<vdxtool::UnusableVdev> unusable;
    vdxStatus status = vdxtool::ListDevices(&devices);
    if (status == VDX_STATUS_SUCCESS) status = vdxtool::ListVdevs(&vdevs, &unusable);
    // Kubernetes' pods, where vdx-device-plugin says which pod holds which virtual device.
    std::string why;
    const vdxtool::PodMap pods = vdxtool::ReadPodMap(vdxtool::kPodMapPath, &why);
    if (why != pod_map_trouble_ && !why.empty()) Say("no pod labels: %s", why.c_str());
    pod_map_trouble_ = why;
    std::lock_guard<std::mutex> lock(page_lock_);
    page_ok_ = status == VDX_STATUS_SUCCESS;
    page_ = page_ok_ ? vdxd::RenderMetrics(devices, vdevs, unusable.size(), ZOVDX_VERSION, pods)
                     : vdxtool::StatusText(status) + "\n";
  }
  // The page and whether it holds metrics (else the reason there are none).
  bool Page(std::string* text) {
    std::lock_guard<std::mutex> lock(page_lock_);
    *text = page_;
    return page_ok_;
  }

  // One request of vdxctl (root's: the control server has checked); the answer is the
  // library's status and a word.
  vdxtool::ControlServer::Answer Handle(const std::string& request) {
    char verb[16] = {0};
    int id = -1;
    if (request == "ping") return {VDX_STATUS_SUCCESS, "running"};
    if (sscanf(request.c_str(), "%15s %d", verb, &id) == 2 && strcmp(verb, "start") == 0) {
      const vdxStatus status = vdxStartVDevice(id);
      if (status == VDX_STATUS_SUCCESS) {
        stopped_.erase(id);
        Say("started virtual device %d on request", id);
      }
      return {status, status == VDX_STATUS_SUCCESS ? "started" : "failed"};
    }
    if (sscanf(request.c_str(), "%15s %d", verb, &id) == 2 && strcmp(verb, "stop") == 0) {
      const vdxStatus status = vdxStopVDevice(id);
      if (status == VDX_STATUS_SUCCESS) {
        stopped_.insert(id);
        Say("stopped virtual device %d on request", id);
      }
      return {status, status == VDX_STATUS_SUCCESS ? "stopped" : "failed"};
    }
    return {VDX_STATUS_INVALID_ARGUMENTS, "unknown request"};
  }

 private:
  std::set<int> stopped_;                // stopped on request: not started again until asked
  std::map<int, vdxStatus> unusable_;    // reported already, with the status it gave
  std::string pod_map_trouble_;          // said once, until it changes
  std::mutex page_lock_;
  std::string page_ = "starting\n";
  bool page_ok_ = false;
};

// (Re)watches the configuration directory; -1 while it cannot be watched.
int Watch(int inotify, int watch) {
  if (watch >= 0) return watch;
  mkdir(kVdevDir, 0755);
  return inotify_add_watch(inotify, kVdevDir,
                           IN_CREATE | IN_DELETE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM |
                               IN_ATTRIB | IN_DELETE_SELF);
}

// Reads the pending events; false when the watched directory itself went away.
bool DrainEvents(int inotify) {
  bool alive = true;
  alignas(inotify_event) char buffer[4096];
  for (;;) {
    const ssize_t n = read(inotify, buffer, sizeof(buffer));
    if (n <= 0) break;
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      if (event->mask & (IN_DELETE_SELF | IN_IGNORED)) alive = false;
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  return alive;
}

// HOST:PORT, [IPV6]:PORT, or :PORT (every IPv4 interface). A port is 1 to 65535.
bool SplitAddress(const std::string& listen, std::string* host, int* port) {
  std::string port_text;
  if (!listen.empty() && listen[0] == '[') {
    const size_t close = listen.find(']');
    if (close == std::string::npos || close + 1 >= listen.size() || listen[close + 1] != ':')
      return false;
    *host = listen.substr(1, close - 1);
    port_text = listen.substr(close + 2);
    if (host->empty()) return false;
  } else {
    const size_t colon = listen.rfind(':');
    if (colon == std::string::npos) return false;
    *host = listen.substr(0, colon);
    if (host->find(':') != std::string::npos) return false;  // IPv6 wants its brackets
    if (host->empty()) *host = "0.0.0.0";
    port_text = listen.substr(colon + 1);
  }
  if (port_text.empty() || port_text.size() > 5 ||
      port_text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  *port = atoi(port_text.c_str());
  return *port > 0 && *port < 65536;
}

// The page's address as a URL: an IPv6 host in brackets.
std::string Url(const std::string& host, int port, const char* path) {
  const std::string shown = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  return "http://" + shown + ":" + std::to_string(port) + path;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"vdxd: keeps the configured virtual devices started and serves their metrics"};
  std::string listen = "127.0.0.1:9464";
  int interval = 5;
  app.add_option("--listen", listen,
                 "Metrics address: HOST:PORT, [IPV6]:PORT or :PORT (default 127.0.0.1:9464)");
  app.set_version_flag("--version", std::string("vdxd ") + ZOVDX_VERSION + " (libzovdx.so.1)");
  app.add_option("--interval", interval, "Seconds between re-checks of the configuration")
      ->check(CLI::Range(1, 3600));
  CLI11_PARSE(app, argc, argv);
  std::string host;
  int port = 0;
  if (!SplitAddress(listen, &host, &port)) {
    fprintf(stderr, "vdxd: --listen wants HOST:PORT, [IPV6]:PORT or :PORT, not %s\n",
            listen.c_str());
    return 2;
  }
  // The journal or a log file gets the library's lines without their colour codes.
  vdxtool::PlainLogStreams();
  if (geteuid() != 0) {
    fprintf(stderr, "vdxd: must run as root: starting virtual devices needs it\n");
    return 1;
  }

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before any thread, so all inherit it
  const int signal_fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signal_fd < 0) {
    // With the signals blocked and no way to read them, nothing could stop vdxd.
    fprintf(stderr, "vdxd: cannot watch for signals: %s\n", strerror(errno));
    return 1;
  }
  // Idle HTTP clients must not take the descriptors the library needs: as many as allowed.
  rlimit files;
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }

  // The library's start-up happens once per process and is never tried again: when it
  // failed (the host manager service not up yet, say), only a new process can succeed, so
  // vdxd says why and exits for its supervisor to start it again.
  int device_count = 0;
  const vdxStatus started_up = vdxGetDeviceCount(&device_count);
  if (started_up != VDX_STATUS_SUCCESS) {
    fprintf(stderr, "vdxd: the library cannot start: %s (status %d)\n",
            vdxtool::StatusText(started_up).c_str(), static_cast<int>(started_up));
    return 1;
  }

  const int control = vdxtool::ListenControl();
  if (control < 0) {
    fprintf(stderr, "vdxd: cannot listen for vdxctl: %s (is another vdxd running?)\n",
            strerror(errno));
    return 1;
  }
  vdxtool::ControlServer control_server(control);
  const int inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  int watch = Watch(inotify, -1);

  Service service;
  vdxd::Router server;
  // Only what httplib writes into its answers: the front enforces the limits themselves.
  server.set_keep_alive_timeout(5);
  server.set_keep_alive_max_count(16);
  server.set_payload_max_length(4096);
  server.Get("/metrics", [&service](const httplib::Request&, httplib::Response& response) {
    std::string page;
    if (!service.Page(&page)) {
      response.status = 503;
      response.set_content(page, "text/plain");
      return;
    }
    response.set_content(page, "text/plain; version=0.0.4");
  });
  server.Get("/", [host, port](const httplib::Request&, httplib::Response& response) {
    const std::string metrics = Url(host, port, "/metrics");
    response.set_content("<html><head><title>vdxd</title></head><body><h1>vdxd</h1>"
                         "<p>Virtual devices of this node: <a href=\"/metrics\">" + metrics +
                         "</a></p></body></html>\n",
                         "text/html; charset=utf-8");
  });
  // Nothing here takes a request body or changes anything.
  const auto refuse = [](const httplib::Request&, httplib::Response& response) {
    response.status = 405;
    response.set_header("Allow", "GET, HEAD");
    response.set_content("method not allowed\n", "text/plain");
  };
  for (const char* path : {"/", "/metrics"}) {
    server.Post(path, refuse);
    server.Put(path, refuse);
    server.Delete(path, refuse);
    server.Patch(path, refuse);
    server.Options(path, refuse);
  }
  vdxd::FrontLimits limits;
  if (getrlimit(RLIMIT_NOFILE, &files) == 0)
    limits.connections = vdxd::ConnectionsFor(static_cast<size_t>(files.rlim_cur));
  vdxd::HttpFront front(&server, limits);
  std::string why;
  if (!front.Listen(host, port, &why)) {
    fprintf(stderr, "vdxd: cannot serve metrics on %s: %s\n", listen.c_str(), why.c_str());
    return 1;
  }
  front.Start();

  service.Sync();
  service.RefreshMetrics();
  Say("running: metrics on %s, re-check every %d s", Url(host, port, "/metrics").c_str(), interval);
  auto next_check = std::chrono::steady_clock::now() + std::chrono::seconds(interval);
  for (;;) {
    std::vector<pollfd> fds = {{signal_fd, POLLIN, 0}, {inotify, POLLIN, 0}};
    control_server.AddPollFds(&fds);
    const auto until_check = std::chrono::duration_cast<std::chrono::milliseconds>(
        next_check - std::chrono::steady_clock::now());
    int timeout = static_cast<int>(std::max<long long>(0, until_check.count()));
    const int deadline = control_server.MillisecondsToNextDeadline();
    if (deadline >= 0) timeout = std::min(timeout, deadline);
    const int ready = poll(fds.data(), fds.size(), timeout);
    if (ready < 0 && errno == EINTR) continue;
    if (fds[0].revents & POLLIN) break;
    control_server.Serve(fds, 2, [&service](const std::string& request) {
      return service.Handle(request);
    });
    const bool changed = (fds[1].revents & POLLIN) != 0;
    if (changed && !DrainEvents(inotify)) watch = -1;
    if (changed || std::chrono::steady_clock::now() >= next_check) {
      watch = Watch(inotify, watch);
      service.Sync();
      service.RefreshMetrics();
      next_check = std::chrono::steady_clock::now() + std::chrono::seconds(interval);
    }
  }
  Say("stopping: the virtual devices started here go with this process");
  front.Stop();
  close(inotify);
  close(control);
  close(signal_fd);
  return 0;  // the library destroys the instances this process made as it exits
}
