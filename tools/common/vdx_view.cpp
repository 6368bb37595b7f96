#include "tools/common/vdx_view.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "virtual/vdev_file_keys.h"

namespace vdxtool {

std::string StatusText(vdxStatus status) {
  const char* text = nullptr;
  if (vdxGetStatusString(status, &text) != VDX_STATUS_SUCCESS || text == nullptr)
    return "unknown status " + std::to_string(static_cast<int>(status));
  return text;
}

namespace {

constexpr int kUntouched = -1;  // never a percentage: the query did not write one

bool IsPercent(int percent) { return percent >= 0 && percent <= 100; }

}  // namespace

vdxStatus ListDevices(std::vector<DeviceView>* devices) {
  devices->clear();
  int count = 0;
  vdxStatus status = vdxGetDeviceCount(&count);
  if (status != VDX_STATUS_SUCCESS) return status;
  for (int index = 0; index < count; ++index) {
    vdxDeviceInfo info;
    status = vdxGetDeviceInfo(index, &info);
    if (status != VDX_STATUS_SUCCESS) return status;
    DeviceView view;
    view.index = index;
    view.name = info.name;
    view.units = info.compute_unit_count;
    view.memory_bytes = info.global_mem_size;
    view.used_bytes = info.usage_mem_size;
    size_t units = 0, bytes = 0;
    if (vdxGetDeviceRemainingInfo(index, &units, &bytes) == VDX_STATUS_SUCCESS) {
      view.has_remaining = true;
      view.remaining_units = units;
      view.remaining_bytes = bytes;
    }
    int percent = 0;
    if (vdxGetDevBusyPercent(index, &percent) == VDX_STATUS_SUCCESS && IsPercent(percent)) {
      view.has_busy = true;
      view.busy_percent = percent;
    }
    devices->push_back(view);
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus ListVdevs(std::vector<VdevView>* vdevs, std::vector<UnusableVdev>* unusable) {
  vdevs->clear();
  if (unusable != nullptr) unusable->clear();
  // Each id is asked for, not just as many as the count says: the query of one id looks
  // for its file, so a virtual device another process made a moment ago is found even when
  // the count was taken from a view a moment older.
  int count = 0;
  vdxStatus status = vdxGetVDeviceCount(&count);
  if (status != VDX_STATUS_SUCCESS) return status;
  for (int id = 0; id < 32; ++id) {
    vdxDeviceInfo info;
    status = vdxGetVDeviceInfo(id, &info);
    if (status == VDX_STATUS_VDEV_NOT_EXIST) continue;
    // Refused for every id alike (inside a container): there is nothing to list here.
    if (status == VDX_STATUS_NOT_SUPPORTED) return status;
    if (status != VDX_STATUS_SUCCESS) {
      // The count answered, so the configuration as a whole can be read: only this file is
      // bad, and it costs only its own virtual device.
      if (unusable != nullptr) unusable->push_back({id, status});
      continue;
    }
    VdevView view;
    view.id = id;
    view.device = info.device_id;
    view.device_name = info.name;
    view.units = info.compute_unit_count;
    view.memory_limit_bytes = info.global_mem_size;
    view.used_bytes = info.usage_mem_size;
    view.container = info.container_id;
    view.pipe = PipeOf(id);
    // The busy query answers only for a started virtual device: the driver's refusal (12)
    // means there is no instance, and so does a success that left the percentage as it was.
    // A virtual device that shares its device's units has none of its own to measure: the
    // library's answer is then no percentage (0 of 0 units), shown as unknown.
    int percent = kUntouched;
    status = vdxGetVDevBusyPercent(id, &percent);
    if (status == VDX_STATUS_SUCCESS && percent != kUntouched) {
      view.started = true;
      view.has_busy = IsPercent(percent);
      view.busy_percent = view.has_busy ? percent : 0;
    }
    vdevs->push_back(view);
  }
  return VDX_STATUS_SUCCESS;
}

int PipeOf(int id) {
  std::ifstream file("/etc/vdev/vdev" + std::to_string(id) + ".conf");
  std::string line;
  int pipe = -1;
  // The line the library takes for the pipe is the one shown: the same keys, the same order.
  while (std::getline(file, line)) {
    if (VdevFileKeyOf(line) != kVdevKeyPipe) continue;
    std::istringstream words(line);
    std::string key, value;
    if (!(words >> key >> value) || value[0] == '-') return -1;
    errno = 0;
    const unsigned long long number = strtoull(value.c_str(), nullptr, 0);
    pipe = errno == 0 && number <= INT_MAX ? static_cast<int>(number) : -1;
  }
  return pipe;
}

}  // namespace vdxtool
