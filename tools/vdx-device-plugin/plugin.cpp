// The DevicePlugin service, its endpoints and registration, and the CDI file the plugin keeps.
#include "tools/vdx-device-plugin/plugin.h"

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>

#include "podresources.grpc.pb.h"
#include "tools/vdxctl/cdi.h"

namespace vdxplugin {

namespace {

constexpr char kHealthy[] = "Healthy";
constexpr char kUnhealthy[] = "Unhealthy";
constexpr char kCdiFileName[] = "zovdx-device-plugin.json";

}  // namespace

bool Inventory::Update(std::vector<PluginDevice> devices) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (devices == devices_ && generation_ > 0) return false;
  devices_ = std::move(devices);
  ++generation_;
  changed_.notify_all();
  return true;
}

std::vector<PluginDevice> Inventory::Devices() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return devices_;
}

uint64_t Inventory::WaitPast(uint64_t seen, std::chrono::steady_clock::time_point deadline) const {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_until(lock, deadline, [&] { return closed_ || generation_ != seen; });
  return generation_;
}

void Inventory::Close() {
  std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

bool Inventory::Closed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closed_;
}

std::vector<PluginDevice> DevicePluginService::Mine() const {
  std::vector<PluginDevice> mine;
  for (PluginDevice& d : inventory_->Devices())
    if (d.resource == resource_) mine.push_back(std::move(d));
  return mine;
}

grpc::Status DevicePluginService::GetDevicePluginOptions(grpc::ServerContext*,
                                                         const v1beta1::Empty*,
                                                         v1beta1::DevicePluginOptions* options) {
  options->set_pre_start_required(false);
  options->set_get_preferred_allocation_available(true);
  return grpc::Status::OK;
}

grpc::Status DevicePluginService::ListAndWatch(
    grpc::ServerContext* context, const v1beta1::Empty*,
    grpc::ServerWriter<v1beta1::ListAndWatchResponse>* writer) {
  uint64_t sent = 0;
  for (;;) {
    // The whole list every time: the kubelet replaces what it had.
    const uint64_t generation =
        inventory_->WaitPast(sent, std::chrono::steady_clock::now() + std::chrono::seconds(1));
    if (context->IsCancelled() || inventory_->Closed()) return grpc::Status::OK;
    if (generation == sent) continue;  // woken by the clock: look at the cancel again
    v1beta1::ListAndWatchResponse response;
    for (const PluginDevice& d : Mine()) {
      v1beta1::Device* device = response.add_devices();
      device->set_id(d.Id());
      device->set_health(d.healthy ? kHealthy : kUnhealthy);
    }
    if (!writer->Write(response)) return grpc::Status::OK;  // the kubelet went away
    sent = generation;
  }
}

grpc::Status DevicePluginService::GetPreferredAllocation(
    grpc::ServerContext*, const v1beta1::PreferredAllocationRequest* request,
    v1beta1::PreferredAllocationResponse* response) {
  const std::vector<PluginDevice> mine = Mine();
  std::map<std::string, const PluginDevice*> by_id;
  for (const PluginDevice& d : mine) by_id[d.Id()] = &d;
  for (const auto& wanted : request->container_requests()) {
    std::vector<std::string> chosen(wanted.must_include_deviceids().begin(),
                                    wanted.must_include_deviceids().end());
    const size_t size = static_cast<size_t>(std::max(0, wanted.allocation_size()));
    // Fill up from the accelerator that already has the most of the choice (or, with none
    // chosen yet, the one with the most available), so that a container's virtual devices
    // share one accelerator where they can.
    std::map<int, int> per_device;
    for (const std::string& id : chosen)
      if (by_id.count(id)) ++per_device[by_id[id]->device];
    if (per_device.empty())
      for (const std::string& id : wanted.available_deviceids())
        if (by_id.count(id)) ++per_device[by_id[id]->device];
    std::vector<std::string> rest;
    for (const std::string& id : wanted.available_deviceids())
      if (std::find(chosen.begin(), chosen.end(), id) == chosen.end()) rest.push_back(id);
    std::stable_sort(rest.begin(), rest.end(), [&](const std::string& a, const std::string& b) {
      const int da = by_id.count(a) ? per_device[by_id[a]->device] : -1;
      const int db = by_id.count(b) ? per_device[by_id[b]->device] : -1;
      return da > db;
    });
    for (const std::string& id : rest) {
      if (chosen.size() >= size) break;
      chosen.push_back(id);
    }
    auto* answer = response->add_container_responses();
    for (const std::string& id : chosen) answer->add_deviceids(id);
  }
  return grpc::Status::OK;
}

grpc::Status DevicePluginService::Allocate(grpc::ServerContext*,
                                           const v1beta1::AllocateRequest* request,
                                           v1beta1::AllocateResponse* response) {
  const std::vector<PluginDevice> mine = Mine();
  // A virtual device binds the one container that holds it: never two of a pod at once.
  std::map<std::string, int> asked_by;
  for (const auto& container : request->container_requests())
    for (const std::string& id : container.devices_ids())
      if (++asked_by[id] > 1)
        return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT,
                            "virtual device " + id + " is asked for by more than one container");
  for (const auto& container : request->container_requests()) {
    std::vector<const PluginDevice*> asked;
    for (const std::string& id : container.devices_ids()) {
      auto found = std::find_if(mine.begin(), mine.end(),
                                [&id](const PluginDevice& d) { return d.Id() == id; });
      if (found == mine.end())
        return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT,
                            "unknown device " + id + " for resource " + resource_);
      asked.push_back(&*found);
    }
    const std::string why = WhyNotTogether(asked);
    if (!why.empty()) return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, why);
    auto* answer = response->add_container_responses();
    for (const PluginDevice* d : asked) {
      if (options_->cdi) {
        answer->add_cdi_devices()->set_name(std::string(vdxctl::kCdiKind) + "=" +
                                            std::to_string(d->vdev));
        continue;
      }
      // For runtimes without CDI: what the CDI file's edits say, spelled out.
      const std::string file = "vdev" + std::to_string(d->vdev) + ".conf";
      auto* mount = answer->add_mounts();
      mount->set_host_path("/etc/vdev/" + file);
      mount->set_container_path("/etc/vdev/docker/" + file);
      mount->set_read_only(true);
    }
    if (!options_->cdi && !asked.empty()) {
      auto* node = answer->add_devices();
      node->set_host_path("/dev/mkfd");
      node->set_container_path("/dev/mkfd");
      node->set_permissions("rw");
    }
  }
  return grpc::Status::OK;
}

grpc::Status DevicePluginService::PreStartContainer(grpc::ServerContext*,
                                                    const v1beta1::PreStartContainerRequest*,
                                                    v1beta1::PreStartContainerResponse*) {
  return grpc::Status::OK;  // nothing to prepare: vdxd keeps the instances started
}

std::string SocketNameFor(const std::string& resource) {
  std::string name = resource.substr(resource.find('/') + 1);
  return "zovdx-" + name + ".sock";
}

Endpoint::Endpoint(const Inventory* inventory, std::string resource, const Options* options)
    : inventory_(inventory),
      resource_(std::move(resource)),
      options_(options),
      socket_name_(SocketNameFor(resource_)),
      service_(inventory, resource_, options) {}

Endpoint::~Endpoint() { Stop(); }

bool Endpoint::Start(std::string* error) {
  Stop();
  const std::string path = options_->plugin_dir + "/" + socket_name_;
  if (path.size() >= sizeof(sockaddr_un::sun_path)) {
    *error = "cannot serve on " + path + ": a socket's path has at most " +
             std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes";
    return false;
  }
  unlink(path.c_str());  // a socket left by an earlier run would refuse the bind
  grpc::ServerBuilder builder;
  builder.AddListeningPort("unix://" + path, grpc::InsecureServerCredentials());
  builder.RegisterService(&service_);
  server_ = builder.BuildAndStart();
  if (server_ == nullptr) {
    *error = "cannot serve on " + path;
    return false;
  }
  // The kubelet calls back as soon as it has the registration: serve first, then register.
  auto channel = grpc::CreateChannel("unix://" + options_->plugin_dir + "/kubelet.sock",
                                     grpc::InsecureChannelCredentials());
  v1beta1::Registration::Stub kubelet(channel);
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(5));
  v1beta1::RegisterRequest request;
  request.set_version("v1beta1");
  request.set_endpoint(socket_name_);
  request.set_resource_name(resource_);
  request.mutable_options()->set_get_preferred_allocation_available(true);
  v1beta1::Empty reply;
  const grpc::Status status = kubelet.Register(&context, request, &reply);
  if (!status.ok()) {
    *error = "the kubelet refused the registration of " + resource_ + ": " +
             status.error_message();
    return false;
  }
  return true;
}

void Endpoint::Stop() {
  if (server_ == nullptr) return;
  // Streams notice the deadline within their one-second wake-up.
  server_->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(2));
  server_->Wait();
  server_.reset();
}

bool WriteCdiFile(const Options& options, const std::vector<PluginDevice>& devices,
                  std::string* error) {
  const std::string path = options.cdi_dir + "/" + kCdiFileName;
  std::vector<vdxctl::CdiVdev> usable;
  for (const PluginDevice& d : devices)
    if (d.device >= 0) usable.push_back({d.vdev, d.Shares()});
  if (usable.empty()) {
    // A CDI file must name at least one device.
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      *error = "cannot remove " + path + ": " + strerror(errno);
      return false;
    }
    return true;
  }
  mkdir(options.cdi_dir.c_str(), 0755);
  // Replaced whole, so that a runtime never reads half a file.
  const std::string temporary = path + ".tmp";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << vdxctl::CdiDocument(usable).dump(2) << "\n";
    if (!out) {
      *error = "cannot write " + temporary;
      return false;
    }
  }
  if (chmod(temporary.c_str(), 0644) != 0 || rename(temporary.c_str(), path.c_str()) != 0) {
    *error = "cannot replace " + path + ": " + strerror(errno);
    unlink(temporary.c_str());
    return false;
  }
  return true;
}

bool ListPods(const std::string& socket, vdxtool::PodMap* pods, std::string* error) {
  pods->clear();
  auto channel = grpc::CreateChannel("unix://" + socket, grpc::InsecureChannelCredentials());
  v1::PodResourcesLister::Stub kubelet(channel);
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(1));
  v1::ListPodResourcesRequest request;
  v1::ListPodResourcesResponse response;
  const grpc::Status status = kubelet.List(&context, request, &response);
  if (!status.ok()) {
    *error = "the kubelet's pod resources cannot be listed: " + status.error_message();
    return false;
  }
  const std::string ours = std::string(kDomain) + "/vdev";
  for (const auto& pod : response.pod_resources())
    for (const auto& container : pod.containers())
      for (const auto& devices : container.devices()) {
        if (devices.resource_name().compare(0, ours.size(), ours) != 0) continue;
        for (const std::string& id : devices.device_ids()) {
          if (id.size() < 5 || id.compare(0, 4, "vdev") != 0 ||
              id.find_first_not_of("0123456789", 4) != std::string::npos || id.size() > 6)
            continue;
          (*pods)[std::stoi(id.substr(4))] = {pod.namespace_(), pod.name(), container.name()};
        }
      }
  return true;
}

}  // namespace vdxplugin
