// vdx-device-plugin: offers the virtual devices of this node to the kubelet through its
// device plugin API (v1beta1). It serves one endpoint per resource name in the kubelet's
// device plugin directory and registers each; it keeps the device list current (inotify on
// /etc/vdev, and a health check every second) and a CDI file for the names that Allocate
// hands out. When the kubelet restarts (it removes every socket and makes kubelet.sock
// anew), the plugin serves and registers again. SIGTERM or SIGINT ends it.
//
// It runs beside vdxd, which keeps the virtual devices' driver instances started: a device
// whose instance is not running is offered as unhealthy.
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/vdx-device-plugin/inventory.h"
#include "tools/vdx-device-plugin/plugin.h"

namespace {

void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Say(const char* format, ...) {
  va_list args;
  va_start(args, format);
  fprintf(stderr, "vdx-device-plugin: ");
  vfprintf(stderr, format, args);
  fprintf(stderr, "\n");
  va_end(args);
}

int WatchDirectory(int inotify, const std::string& path, uint32_t mask) {
  return inotify_add_watch(inotify, path.c_str(), mask);
}

// Reads what inotify has; whether kubelet.sock was made (the kubelet (re)started) and whether
// anything under /etc/vdev moved.
void Drain(int inotify, int plugin_watch, bool* kubelet_started, bool* changed) {
  alignas(inotify_event) char buffer[4096];
  for (;;) {
    const ssize_t n = read(inotify, buffer, sizeof(buffer));
    if (n <= 0) return;
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      if (event->wd == plugin_watch) {
        if ((event->mask & IN_CREATE) && event->len > 0 &&
            strcmp(event->name, "kubelet.sock") == 0)
          *kubelet_started = true;
      } else {
        *changed = true;
      }
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  vdxplugin::Options options;
  std::string strategy = "single";
  CLI::App app{"vdx-device-plugin: offers this node's virtual devices to the kubelet"};
  app.add_option("--plugin-dir", options.plugin_dir,
                 "The kubelet's device plugin directory (holds kubelet.sock)")
      ->capture_default_str();
  app.add_option("--strategy", strategy,
                 "single: every virtual device as zovdx.dev/vdev; mixed: one resource per shape")
      ->check(CLI::IsMember({"single", "mixed"}))
      ->capture_default_str();
  app.add_option("--cdi", options.cdi,
                 "Answer Allocate with CDI names (true) or with the device node and files (false)")
      ->capture_default_str();
  app.add_option("--cdi-dir", options.cdi_dir, "Where the CDI file for those names is kept")
      ->capture_default_str();
  app.add_option("--pod-resources-socket", options.pod_resources_socket,
                 "The kubelet's pod resources socket: which pod holds which device")
      ->capture_default_str();
  app.add_option("--pod-map", options.pod_map,
                 "Where vdxd finds which pod holds which virtual device (for its metrics)")
      ->capture_default_str();
  app.set_version_flag("--version", std::string("vdx-device-plugin ") + ZOVDX_VERSION);
  CLI11_PARSE(app, argc, argv);
  options.strategy = strategy == "mixed" ? vdxplugin::Strategy::kMixed : vdxplugin::Strategy::kSingle;

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before gRPC starts its threads
  const int signal_fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  const int inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (signal_fd < 0 || inotify < 0) {
    Say("cannot watch for signals or files: %s", strerror(errno));
    return 1;
  }
  const int plugin_watch = WatchDirectory(inotify, options.plugin_dir, IN_CREATE);
  if (plugin_watch < 0) {
    Say("cannot watch %s: %s", options.plugin_dir.c_str(), strerror(errno));
    return 1;
  }
  int vdev_watch = -1;

  vdxplugin::Inventory inventory;
  std::map<std::string, std::unique_ptr<vdxplugin::Endpoint>> endpoints;
  bool registered = false;
  std::string last_error;
  const auto scan = [&] {
    std::vector<vdxplugin::PluginDevice> devices;
    std::string error;
    if (!vdxplugin::Scan(options.strategy, &devices, &error)) {
      if (error != last_error) Say("%s", error.c_str());
      last_error = error;
      return;
    }
    last_error.clear();
    if (!inventory.Update(devices)) return;
    if (options.cdi && !vdxplugin::WriteCdiFile(options, devices, &error)) Say("%s", error.c_str());
    // A resource seen for the first time gets its endpoint. One whose devices are gone keeps
    // it, offering nothing, so that the kubelet sees the count drop to 0.
    for (const vdxplugin::PluginDevice& d : devices) {
      if (endpoints.count(d.resource)) continue;
      auto endpoint = std::make_unique<vdxplugin::Endpoint>(&inventory, d.resource, &options);
      if (registered && !endpoint->Start(&error)) Say("%s", error.c_str());
      endpoints[d.resource] = std::move(endpoint);
    }
  };
  const auto register_all = [&] {
    // The single resource is offered even with no virtual device configured yet.
    if (options.strategy == vdxplugin::Strategy::kSingle && !endpoints.count(vdxplugin::kSingleResource))
      endpoints[vdxplugin::kSingleResource] = std::make_unique<vdxplugin::Endpoint>(
          &inventory, vdxplugin::kSingleResource, &options);
    registered = true;
    for (auto& [resource, endpoint] : endpoints) {
      std::string error;
      if (endpoint->Start(&error))
        Say("serving %s on %s/%s", resource.c_str(), options.plugin_dir.c_str(),
            endpoint->socket_name().c_str());
      else
        Say("%s", error.c_str());
    }
  };

  // Which pod holds which device, for vdxd's metrics: asked at every scan while the kubelet's
  // pod resources socket is there; rewritten when it changes, and every few seconds so that
  // vdxd can tell a live file from one left behind.
  vdxtool::PodMap pods_written;
  auto pods_written_at = std::chrono::steady_clock::time_point();
  bool pod_file = false;
  std::string pod_trouble;
  const auto publish_pods = [&] {
    vdxtool::PodMap pods;
    std::string error;
    if (access(options.pod_resources_socket.c_str(), F_OK) != 0) {
      if (pod_file) unlink(options.pod_map.c_str());
      pod_file = false;
      return;
    }
    if (!vdxplugin::ListPods(options.pod_resources_socket, &pods, &error)) {
      if (error != pod_trouble) Say("%s", error.c_str());
      pod_trouble = error;
      return;
    }
    pod_trouble.clear();
    const auto now = std::chrono::steady_clock::now();
    if (pod_file && pods == pods_written && now - pods_written_at < std::chrono::seconds(5)) return;
    mkdir(options.pod_map.substr(0, options.pod_map.rfind('/')).c_str(), 0755);
    if (!vdxtool::WritePodMap(options.pod_map, pods, &error)) {
      Say("%s", error.c_str());
      return;
    }
    pod_file = true;
    pods_written = pods;
    pods_written_at = now;
  };

  scan();
  publish_pods();
  register_all();
  auto next_check = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  for (;;) {
    if (vdev_watch < 0) {
      vdev_watch = WatchDirectory(inotify, "/etc/vdev",
                                  IN_CREATE | IN_DELETE | IN_CLOSE_WRITE | IN_MOVED_TO |
                                      IN_MOVED_FROM | IN_ATTRIB | IN_DELETE_SELF);
    }
    pollfd fds[2] = {{signal_fd, POLLIN, 0}, {inotify, POLLIN, 0}};
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(
        next_check - std::chrono::steady_clock::now());
    const int ready = poll(fds, 2, static_cast<int>(std::max<long long>(0, wait.count())));
    if (ready < 0 && errno == EINTR) continue;
    if (fds[0].revents & POLLIN) break;
    bool kubelet_started = false, changed = false;
    if (fds[1].revents & POLLIN) Drain(inotify, plugin_watch, &kubelet_started, &changed);
    if (changed && access("/etc/vdev", F_OK) != 0) vdev_watch = -1;  // gone: watch it anew
    if (changed || std::chrono::steady_clock::now() >= next_check) {
      scan();  // also the health check: instances stopped or started, accelerators gone
      publish_pods();
      next_check = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    }
    if (kubelet_started) {
      Say("the kubelet restarted: serving and registering again");
      register_all();
    }
  }
  Say("stopping");
  if (pod_file) unlink(options.pod_map.c_str());
  inventory.Close();
  for (auto& [resource, endpoint] : endpoints) endpoint->Stop();
  close(inotify);
  close(signal_fd);
  return 0;
}
