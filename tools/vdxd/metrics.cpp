#include "tools/vdxd/metrics.h"

#include <charconv>
#include <cstdio>
#include <functional>

namespace vdxd {
namespace {

std::string Escape(const std::string& value) {
  std::string out;
  for (char c : value) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out;
}

// The shortest text that reads back as the same double (0.03, not 0.029999999999999999).
std::string Number(double value) {
  char text[64];
  const std::to_chars_result result = std::to_chars(text, text + sizeof(text), value);
  return std::string(text, result.ptr);
}

std::string DeviceLabels(const vdxtool::DeviceView& d) {
  return "{device=\"" + std::to_string(d.index) + "\",name=\"" + Escape(d.name) + "\"}";
}

// container_id is the library's (the container that uses the virtual device); pod, namespace
// and container are Kubernetes', present when a pod holds the virtual device.
std::string VdevLabels(const vdxtool::VdevView& v, const vdxtool::PodMap& pods) {
  char container[32];
  snprintf(container, sizeof(container), "0x%llx", static_cast<unsigned long long>(v.container));
  std::string labels = "{vdev=\"" + std::to_string(v.id) + "\",device=\"" +
                       std::to_string(v.device) + "\",name=\"" + Escape(v.device_name) +
                       "\",container_id=\"" + container + "\"";
  const auto pod = pods.find(v.id);
  if (pod != pods.end())
    labels += ",namespace=\"" + Escape(pod->second.namespace_name) + "\",pod=\"" +
              Escape(pod->second.pod) + "\",container=\"" + Escape(pod->second.container) + "\"";
  return labels + "}";
}

// One family: its HELP and TYPE, then a sample per item that has the value.
template <typename Item>
void Family(std::string* out, const char* name, const char* help, const std::vector<Item>& items,
            const std::function<std::string(const Item&)>& labels,
            const std::function<bool(const Item&, double*)>& value) {
  *out += std::string("# HELP ") + name + " " + help + "\n";
  *out += std::string("# TYPE ") + name + " gauge\n";
  for (const Item& item : items) {
    double v = 0;
    if (value(item, &v)) *out += name + labels(item) + " " + Number(v) + "\n";
  }
}

}  // namespace

std::string RenderMetrics(const std::vector<vdxtool::DeviceView>& devices,
                          const std::vector<vdxtool::VdevView>& vdevs, size_t unusable,
                          const std::string& build_version, const vdxtool::PodMap& pods) {
  using D = vdxtool::DeviceView;
  using V = vdxtool::VdevView;
  std::string out;
  const std::function<std::string(const D&)> dl = DeviceLabels;
  const std::function<std::string(const V&)> vl = [&pods](const V& v) { return VdevLabels(v, pods); };
  Family<D>(&out, "vdx_device_compute_units", "Compute units of the physical device.", devices, dl,
            [](const D& d, double* v) { return *v = d.units, true; });
  Family<D>(&out, "vdx_device_memory_bytes", "Memory of the physical device.", devices, dl,
            [](const D& d, double* v) { return *v = static_cast<double>(d.memory_bytes), true; });
  Family<D>(&out, "vdx_device_memory_used_bytes", "Memory in use on the physical device.",
            devices, dl,
            [](const D& d, double* v) { return *v = static_cast<double>(d.used_bytes), true; });
  Family<D>(&out, "vdx_device_free_compute_units",
            "Compute units that no virtual device holds.", devices, dl,
            [](const D& d, double* v) {
              *v = static_cast<double>(d.remaining_units);
              return d.has_remaining;
            });
  Family<D>(&out, "vdx_device_free_memory_bytes", "Memory that no virtual device holds.",
            devices, dl, [](const D& d, double* v) {
              *v = static_cast<double>(d.remaining_bytes);
              return d.has_remaining;
            });
  Family<D>(&out, "vdx_device_busy_ratio", "Share of the device's compute units that are busy.",
            devices, dl, [](const D& d, double* v) {
              *v = d.busy_percent / 100.0;
              return d.has_busy && d.busy_percent >= 0;
            });
  Family<V>(&out, "vdx_vdev_compute_units", "Compute units of the virtual device.", vdevs, vl,
            [](const V& x, double* v) { return *v = x.units, true; });
  Family<V>(&out, "vdx_vdev_memory_limit_bytes", "Memory limit of the virtual device.", vdevs, vl,
            [](const V& x, double* v) {
              return *v = static_cast<double>(x.memory_limit_bytes), true;
            });
  Family<V>(&out, "vdx_vdev_memory_used_bytes", "Memory in use in the virtual device.", vdevs, vl,
            [](const V& x, double* v) { return *v = static_cast<double>(x.used_bytes), true; });
  Family<V>(&out, "vdx_vdev_started", "1 when the driver has the virtual device's instance.",
            vdevs, vl, [](const V& x, double* v) { return *v = x.started ? 1 : 0, true; });
  Family<V>(&out, "vdx_vdev_busy_ratio",
            "Share of the virtual device's compute units that are busy (started ones).", vdevs, vl,
            [](const V& x, double* v) {
              *v = x.busy_percent / 100.0;
              return x.has_busy && x.busy_percent >= 0;
            });
  out += "# HELP vdx_vdev_unusable_files Configured virtual devices whose file cannot be used "
         "(damaged, disabled, or naming no device here); the others are not concerned.\n";
  out += "# TYPE vdx_vdev_unusable_files gauge\n";
  out += "vdx_vdev_unusable_files " + std::to_string(unusable) + "\n";
  out += "# HELP vdx_build_info The versions of vdxd and of the library it runs; always 1.\n";
  out += "# TYPE vdx_build_info gauge\n";
  out += "vdx_build_info{version=\"" + Escape(build_version) + "\",library=\"libzovdx.so.1\"} 1\n";
  return out;
}

}  // namespace vdxd
