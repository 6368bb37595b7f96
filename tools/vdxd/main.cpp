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

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <httplib.h>

#include "tools/common/control.h"
#include "tools/common/vdx_view.h"
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
  // instance an update removed is started again with its new shape.
  void Sync() {
    std::vector<vdxtool::VdevView> vdevs;
    const vdxStatus status = vdxtool::ListVdevs(&vdevs);
    if (status != VDX_STATUS_SUCCESS) {
      Say("cannot read the configuration: %s (status %d)", vdxtool::StatusText(status).c_str(),
          status);
      return;
    }
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

  // One request of vdxctl; the answer is the library's status and a word.
  void Handle(int client) {
    std::string request;
    if (!vdxtool::ReadRequest(client, &request)) return;
    if (!vdxtool::PeerIsRoot(client)) {
      vdxtool::WriteAnswer(client, VDX_STATUS_PERMISSION, "root only");
      return;
    }
    char verb[16] = {0};
    int id = -1;
    if (request == "ping") {
      vdxtool::WriteAnswer(client, VDX_STATUS_SUCCESS, "running");
    } else if (sscanf(request.c_str(), "%15s %d", verb, &id) == 2 && strcmp(verb, "start") == 0) {
      const vdxStatus status = vdxStartVDevice(id);
      if (status == VDX_STATUS_SUCCESS) {
        stopped_.erase(id);
        Say("started virtual device %d on request", id);
      }
      vdxtool::WriteAnswer(client, status, status == VDX_STATUS_SUCCESS ? "started" : "failed");
    } else if (sscanf(request.c_str(), "%15s %d", verb, &id) == 2 && strcmp(verb, "stop") == 0) {
      const vdxStatus status = vdxStopVDevice(id);
      if (status == VDX_STATUS_SUCCESS) {
        stopped_.insert(id);
        Say("stopped virtual device %d on request", id);
      }
      vdxtool::WriteAnswer(client, status, status == VDX_STATUS_SUCCESS ? "stopped" : "failed");
    } else {
      vdxtool::WriteAnswer(client, VDX_STATUS_INVALID_ARGUMENTS, "unknown request");
    }
  }

 private:
  std::set<int> stopped_;  // stopped on request: not started again until asked
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

bool SplitAddress(const std::string& listen, std::string* host, int* port) {
  const size_t colon = listen.rfind(':');
  if (colon == std::string::npos) return false;
  *host = listen.substr(0, colon);
  *port = atoi(listen.substr(colon + 1).c_str());
  return !host->empty() && *port > 0 && *port < 65536;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"vdxd: keeps the configured virtual devices started and serves their metrics"};
  std::string listen = "127.0.0.1:9464";
  int interval = 5;
  app.add_option("--listen", listen, "Metrics address, HOST:PORT (default 127.0.0.1:9464)");
  app.add_option("--interval", interval, "Seconds between re-checks of the configuration")
      ->check(CLI::Range(1, 3600));
  CLI11_PARSE(app, argc, argv);
  std::string host;
  int port = 0;
  if (!SplitAddress(listen, &host, &port)) {
    fprintf(stderr, "vdxd: --listen wants HOST:PORT, not %s\n", listen.c_str());
    return 2;
  }
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

  const int control = vdxtool::ListenControl();
  if (control < 0) {
    fprintf(stderr, "vdxd: cannot listen for vdxctl: %s (is another vdxd running?)\n",
            strerror(errno));
    return 1;
  }
  const int inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  int watch = Watch(inotify, -1);

  httplib::Server server;
  server.Get("/metrics", [](const httplib::Request&, httplib::Response& response) {
    std::vector<vdxtool::DeviceView> devices;
    std::vector<vdxtool::VdevView> vdevs;
    const vdxStatus status = vdxtool::ListDevices(&devices);
    if (status == VDX_STATUS_SUCCESS) vdxtool::ListVdevs(&vdevs);
    if (status != VDX_STATUS_SUCCESS) {
      response.status = 503;
      response.set_content(vdxtool::StatusText(status) + "\n", "text/plain");
      return;
    }
    response.set_content(vdxd::RenderMetrics(devices, vdevs), "text/plain; version=0.0.4");
  });
  if (!server.bind_to_port(host.c_str(), port)) {
    fprintf(stderr, "vdxd: cannot serve metrics on %s\n", listen.c_str());
    return 1;
  }
  std::thread http([&server] { server.listen_after_bind(); });

  Service service;
  service.Sync();
  Say("running: metrics on http://%s/metrics, re-check every %d s", listen.c_str(), interval);
  for (;;) {
    pollfd fds[3] = {{signal_fd, POLLIN, 0}, {control, POLLIN, 0}, {inotify, POLLIN, 0}};
    const int ready = poll(fds, 3, interval * 1000);
    if (ready < 0 && errno == EINTR) continue;
    if (fds[0].revents & POLLIN) break;
    if (fds[1].revents & POLLIN) {
      const int client = accept4(control, nullptr, nullptr, SOCK_CLOEXEC);
      if (client >= 0) {
        service.Handle(client);
        close(client);
      }
    }
    if (fds[2].revents & POLLIN) {
      if (!DrainEvents(inotify)) watch = -1;
    }
    if (ready == 0 || (fds[2].revents & POLLIN)) {
      watch = Watch(inotify, watch);
      service.Sync();
    }
  }
  Say("stopping: the virtual devices started here go with this process");
  server.stop();
  http.join();
  close(inotify);
  close(control);
  close(signal_fd);
  return 0;  // the library destroys the instances this process made as it exits
}
