// The device plugin's gRPC side: one endpoint per resource name, each a DevicePlugin service
// on its own socket in the kubelet's device plugin directory, registered with the kubelet
// once it serves. Every endpoint reads the one shared inventory, which the main loop keeps
// current; ListAndWatch streams wake on each change.
//
// Thread safety: Inventory is locked inside; endpoints are started, restarted and stopped by
// the main loop only, while gRPC's threads call the services.
#ifndef ZOVDX_TOOLS_DEVICE_PLUGIN_PLUGIN_H_
#define ZOVDX_TOOLS_DEVICE_PLUGIN_PLUGIN_H_

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <grpcpp/grpcpp.h>

#include "deviceplugin.grpc.pb.h"
#include "tools/common/pod_map.h"
#include "tools/vdx-device-plugin/inventory.h"

namespace vdxplugin {

struct Options {
  std::string plugin_dir = "/var/lib/kubelet/device-plugins";
  std::string pod_resources_socket = "/var/lib/kubelet/pod-resources/kubelet.sock";
  std::string pod_map = vdxtool::kPodMapPath;  // for vdxd's metrics labels
  std::string cdi_dir = "/var/run/cdi";
  bool cdi = true;  // answer Allocate with CDI names; else with the node and the files
  Strategy strategy = Strategy::kSingle;
};

// The devices as last scanned, and a generation that moves on every change.
class Inventory {
 public:
  // Replaces the list; true (and wakes every watcher) when it changed.
  bool Update(std::vector<PluginDevice> devices);
  std::vector<PluginDevice> Devices() const;
  // Waits until the generation passes `seen` or `deadline` comes; the generation now.
  uint64_t WaitPast(uint64_t seen, std::chrono::steady_clock::time_point deadline) const;
  // Wakes every watcher for good (the process is stopping).
  void Close();
  bool Closed() const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<PluginDevice> devices_;
  uint64_t generation_ = 0;
  bool closed_ = false;
};

class DevicePluginService final : public v1beta1::DevicePlugin::Service {
 public:
  DevicePluginService(const Inventory* inventory, std::string resource, const Options* options)
      : inventory_(inventory), resource_(std::move(resource)), options_(options) {}

  grpc::Status GetDevicePluginOptions(grpc::ServerContext*, const v1beta1::Empty*,
                                      v1beta1::DevicePluginOptions* options) override;
  grpc::Status ListAndWatch(grpc::ServerContext* context, const v1beta1::Empty*,
                            grpc::ServerWriter<v1beta1::ListAndWatchResponse>* writer) override;
  grpc::Status GetPreferredAllocation(grpc::ServerContext*,
                                      const v1beta1::PreferredAllocationRequest* request,
                                      v1beta1::PreferredAllocationResponse* response) override;
  grpc::Status Allocate(grpc::ServerContext*, const v1beta1::AllocateRequest* request,
                        v1beta1::AllocateResponse* response) override;
  grpc::Status PreStartContainer(grpc::ServerContext*, const v1beta1::PreStartContainerRequest*,
                                 v1beta1::PreStartContainerResponse*) override;

 private:
  std::vector<PluginDevice> Mine() const;

  const Inventory* inventory_;
  const std::string resource_;
  const Options* options_;
};

// One resource's socket, server and registration.
class Endpoint {
 public:
  Endpoint(const Inventory* inventory, std::string resource, const Options* options);
  ~Endpoint();
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  // Serves on the socket (made anew), then registers with the kubelet. False with *error.
  bool Start(std::string* error);
  void Stop();
  const std::string& resource() const { return resource_; }
  const std::string& socket_name() const { return socket_name_; }

 private:
  const Inventory* inventory_;
  const std::string resource_;
  const Options* options_;
  const std::string socket_name_;
  DevicePluginService service_;
  std::unique_ptr<grpc::Server> server_;
};

// The socket name of a resource: "zovdx-<name>.sock".
std::string SocketNameFor(const std::string& resource);

// Keeps the CDI file (cdi_dir/zovdx-device-plugin.json) naming every usable device; removes it
// when there is none. False with *error when it cannot be written.
bool WriteCdiFile(const Options& options, const std::vector<PluginDevice>& devices,
                  std::string* error);

// Which pod holds which of our virtual devices, from the kubelet's pod resources API (List on
// `socket`). False with *error when the kubelet cannot be asked.
bool ListPods(const std::string& socket, vdxtool::PodMap* pods, std::string* error);

}  // namespace vdxplugin

#endif  // ZOVDX_TOOLS_DEVICE_PLUGIN_PLUGIN_H_
