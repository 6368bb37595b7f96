// vdxctl: the command-line tool of libzovdx. It lists devices and virtual devices, creates,
// updates and destroys virtual devices, has the vdxd service start and stop them, shows busy
// percentages, the encryption flag, and writes a CDI file. It uses only the library's
// public interface.
//
// Exit codes: 0 done; 1 a failure outside the library (a file that cannot be written); 2 a
// usage error; 3 start or stop without a running vdxd; 100 + N the library's status N (N from
// 1 to 35); 199 a status the library does not list.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstring>
#include <limits>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "tools/common/control.h"
#include "tools/common/plain_log.h"
#include "tools/common/vdx_view.h"
#include "tools/vdxctl/cdi.h"
#include "tools/vdxctl/output.h"
#include "zovdx/vdx.h"

namespace {

using vdxctl::Format;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoService = 3;

int LibraryExit(vdxStatus status) {
  const int code = static_cast<int>(status);
  return code >= 1 && code <= 35 ? 100 + code : 199;
}

int Fail(const std::string& what, vdxStatus status) {
  fprintf(stderr, "vdxctl: %s: %s (status %d)\n", what.c_str(),
          vdxtool::StatusText(status).c_str(), static_cast<int>(status));
  return LibraryExit(status);
}

// The virtual devices; each one whose file the library cannot use is named on standard error
// and left out, so that one bad file never hides the others.
vdxStatus ListUsableVdevs(std::vector<vdxtool::VdevView>* vdevs) {
  std::vector<vdxtool::UnusableVdev> unusable;
  const vdxStatus status = vdxtool::ListVdevs(vdevs, &unusable);
  for (const vdxtool::UnusableVdev& u : unusable)
    fprintf(stderr, "vdxctl: virtual device %d left out: %s (status %d)\n", u.id,
            vdxtool::StatusText(u.status).c_str(), static_cast<int>(u.status));
  return status;
}

// A usage error that names the value and what the host allows.
int Usage(const std::string& text) {
  fprintf(stderr, "vdxctl: %s\n", text.c_str());
  return kExitUsage;
}

void PrintJson(const nlohmann::json& j) { std::fprintf(vdxctl::Out(), "%s\n", j.dump(2).c_str()); }

// devices, vdevs and list: the physical devices, the virtual devices, or both; only the
// selected ones when indexes or ids are given. In JSON both arrays sit in one document; in CSV
// one header covers both (a "kind" column tells them apart); as tables the devices come
// first, then an empty line, then the virtual devices.
int Show(bool with_devices, bool with_vdevs, Format format, const std::vector<int>& selected) {
  std::vector<vdxtool::DeviceView> devices;
  std::vector<vdxtool::VdevView> vdevs;
  const auto chosen = [&selected](int key) {
    return selected.empty() || std::find(selected.begin(), selected.end(), key) != selected.end();
  };
  if (with_devices) {
    const vdxStatus status = vdxtool::ListDevices(&devices);
    if (status != VDX_STATUS_SUCCESS) return Fail("devices", status);
    for (int index : selected)
      if (index >= static_cast<int>(devices.size()))
        return Usage("device " + std::to_string(index) + " does not exist: this host has devices 0 to " +
                     std::to_string(static_cast<int>(devices.size()) - 1));
    devices.erase(std::remove_if(devices.begin(), devices.end(),
                                 [&](const vdxtool::DeviceView& d) { return !chosen(d.index); }),
                  devices.end());
  }
  if (with_vdevs) {
    const vdxStatus status = ListUsableVdevs(&vdevs);
    if (status != VDX_STATUS_SUCCESS) return Fail("virtual devices", status);
    for (int id : selected) {
      if (std::none_of(vdevs.begin(), vdevs.end(),
                       [id](const vdxtool::VdevView& v) { return v.id == id; })) {
        fprintf(stderr, "vdxctl: virtual device %d is not configured\n", id);
        return LibraryExit(VDX_STATUS_VDEV_NOT_EXIST);
      }
    }
    vdevs.erase(std::remove_if(vdevs.begin(), vdevs.end(),
                               [&](const vdxtool::VdevView& v) { return !chosen(v.id); }),
                vdevs.end());
  }
  if (format == Format::kJson) {
    nlohmann::json j = {{"schema", vdxctl::kJsonSchema}};
    if (with_devices) {
      j["devices"] = nlohmann::json::array();
      for (const auto& d : devices) j["devices"].push_back(vdxctl::ToJson(d));
    }
    if (with_vdevs) {
      j["virtual_devices"] = nlohmann::json::array();
      for (const auto& v : vdevs) j["virtual_devices"].push_back(vdxctl::ToJson(v));
    }
    PrintJson(j);
    return 0;
  }
  if (format == Format::kCsv) {
    std::vector<std::string> fields;
    std::vector<nlohmann::json> objects;
    if (with_devices && with_vdevs) fields.push_back("kind");
    if (with_devices) fields.insert(fields.end(), vdxctl::kDeviceFields.begin(), vdxctl::kDeviceFields.end());
    if (with_vdevs)
      for (const std::string& f : vdxctl::kVdevFields)
        if (std::find(fields.begin(), fields.end(), f) == fields.end()) fields.push_back(f);
    for (const auto& d : devices) {
      objects.push_back(vdxctl::ToJson(d));
      objects.back()["kind"] = "device";
    }
    for (const auto& v : vdevs) {
      objects.push_back(vdxctl::ToJson(v));
      objects.back()["kind"] = "vdev";
    }
    vdxctl::PrintCsv(fields, objects);
    return 0;
  }
  if (with_devices) vdxctl::PrintRows(vdxctl::DeviceRows(devices, format), format);
  if (with_devices && with_vdevs) std::fprintf(vdxctl::Out(), "\n");
  if (with_vdevs) vdxctl::PrintRows(vdxctl::VdevRows(vdevs, format), format);
  return 0;
}

// The wall-clock time of a watched round, in UTC to the second (ISO 8601).
std::string Now() {
  const time_t now = time(nullptr);
  struct tm utc;
  gmtime_r(&now, &utc);
  char text[32];
  strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

int Busy(Format format, int watch_seconds, int rounds) {
  const bool watching = watch_seconds > 0;
  for (int round = 0; rounds <= 0 || round < rounds; ++round) {
    if (round > 0) std::this_thread::sleep_for(std::chrono::seconds(watch_seconds));
    std::vector<vdxtool::DeviceView> devices;
    std::vector<vdxtool::VdevView> vdevs;
    vdxStatus status = vdxtool::ListDevices(&devices);
    if (status != VDX_STATUS_SUCCESS) return Fail("devices", status);
    // Inside a container the library lists no virtual devices (6): the devices above are
    // the container's own, and they are what there is to show.
    status = ListUsableVdevs(&vdevs);
    if (status == VDX_STATUS_NOT_SUPPORTED) vdevs.clear();
    else if (status != VDX_STATUS_SUCCESS) return Fail("virtual devices", status);
    const std::string time = Now();
    if (format == Format::kJson) {
      // One object per line when watching, so that each can be read as it comes.
      nlohmann::json j = {{"schema", vdxctl::kJsonSchema},
                          {"devices", nlohmann::json::array()},
                          {"virtual_devices", nlohmann::json::array()}};
      if (watching) j["time"] = time;
      for (const auto& d : devices)
        j["devices"].push_back({{"index", d.index},
                                {"busy_percent", d.has_busy ? nlohmann::json(d.busy_percent)
                                                            : nlohmann::json(nullptr)}});
      for (const auto& v : vdevs)
        if (v.started)
          j["virtual_devices"].push_back(
              {{"id", v.id},
               {"busy_percent", v.has_busy ? nlohmann::json(v.busy_percent) : nlohmann::json(nullptr)}});
      std::fprintf(vdxctl::Out(), "%s\n", watching ? j.dump().c_str() : j.dump(2).c_str());
    } else {
      const std::string unknown = format == Format::kCsv ? "" : "-";
      vdxctl::Rows rows;
      rows.header = {"kind", "id", "busy_percent"};
      if (watching) rows.header.insert(rows.header.begin(), "time");
      auto add = [&](std::vector<std::string> row) {
        if (watching) row.insert(row.begin(), time);
        rows.rows.push_back(row);
      };
      for (const auto& d : devices)
        add({"device", std::to_string(d.index), d.has_busy ? std::to_string(d.busy_percent) : unknown});
      for (const auto& v : vdevs)
        if (v.started)
          add({"vdev", std::to_string(v.id), v.has_busy ? std::to_string(v.busy_percent) : unknown});
      // One header per output: a CSV stream of rounds is one table.
      if (format == Format::kCsv && round > 0) rows.header.clear();
      vdxctl::PrintRows(rows, format);
    }
    fflush(vdxctl::Out());
    if (!watching) break;
  }
  return 0;
}

int Create(int device, int count, const std::vector<int>& units, const std::vector<int>& memory) {
  if (count == 0) count = static_cast<int>(!units.empty() ? units.size() : memory.size());
  if (count == 0) count = 1;
  if ((!units.empty() && static_cast<int>(units.size()) != count) ||
      (!memory.empty() && static_cast<int>(memory.size()) != count)) {
    fprintf(stderr, "vdxctl: --units and --memory need one value per virtual device (%d)\n", count);
    return kExitUsage;
  }
  std::vector<int> u = units, m = memory;
  const vdxStatus status = vdxCreateVDevices(device, count, u.empty() ? nullptr : u.data(),
                                             m.empty() ? nullptr : m.data());
  if (status != VDX_STATUS_SUCCESS) return Fail("create", status);
  std::fprintf(vdxctl::Out(), "created %d virtual device%s on device %d\n", count, count == 1 ? "" : "s", device);
  return 0;
}

// The device index and, for a creation, each unit count and memory size against the device.
int CheckDevice(int device, const std::vector<int>& units, const std::vector<int>& memory) {
  int count = 0;
  vdxStatus status = vdxGetDeviceCount(&count);
  if (status != VDX_STATUS_SUCCESS) return Fail("devices", status);
  if (device >= count)
    return Usage("device " + std::to_string(device) + " does not exist: this host has devices 0 to " +
                 std::to_string(count - 1));
  vdxDeviceInfo info;
  status = vdxGetDeviceInfo(device, &info);
  if (status != VDX_STATUS_SUCCESS) return Fail("device " + std::to_string(device), status);
  // Units of a sharing virtual device (0) are the device's own: sharing ones come first.
  for (size_t i = 1; i < units.size(); ++i)
    if (units[i] == 0 && std::any_of(units.begin(), units.begin() + static_cast<long>(i),
                                     [](int u) { return u > 0; }))
      return Usage("--units: a virtual device with 0 units shares the device's units and must "
                   "come before those with units of their own");
  for (int u : units)
    if (u > info.compute_unit_count)
      return Usage("--units " + std::to_string(u) + ": device " + std::to_string(device) +
                   " has 0 to " + std::to_string(info.compute_unit_count) + " compute units");
  const long long mib = static_cast<long long>(info.global_mem_size >> 20);
  for (int m : memory)
    if (m > mib)
      return Usage("--memory " + std::to_string(m) + ": device " + std::to_string(device) +
                   " has 1 to " + std::to_string(mib) + " MiB");
  return 0;
}

// Each id asked for must be configured (a file that the library cannot use counts: it may
// still be destroyed or replaced).
int CheckConfigured(const std::vector<int>& ids) {
  std::vector<vdxtool::VdevView> vdevs;
  std::vector<vdxtool::UnusableVdev> unusable;
  const vdxStatus status = vdxtool::ListVdevs(&vdevs, &unusable);
  if (status != VDX_STATUS_SUCCESS) return Fail("virtual devices", status);
  for (int id : ids) {
    const bool known =
        std::any_of(vdevs.begin(), vdevs.end(), [id](const vdxtool::VdevView& v) { return v.id == id; }) ||
        std::any_of(unusable.begin(), unusable.end(),
                    [id](const vdxtool::UnusableVdev& u) { return u.id == id; });
    if (!known) {
      fprintf(stderr, "vdxctl: virtual device %d is not configured\n", id);
      return LibraryExit(VDX_STATUS_VDEV_NOT_EXIST);
    }
  }
  return 0;
}

// Start and stop go through vdxd: an instance lives as long as the process that started it,
// and vdxctl ends at once.
int AskService(const std::string& verb, const std::vector<int>& ids) {
  for (int id : ids) {
    int status = 0;
    std::string text, error;
    if (!vdxtool::AskService(verb + " " + std::to_string(id), &status, &text, &error)) {
      fprintf(stderr,
              "vdxctl: %s: the vdxd service is not running (%s). A started virtual device lives "
              "only as long as the process that started it, so starting and stopping is vdxd's "
              "work: start it (systemctl start vdxd) and try again.\n",
              verb.c_str(), error.c_str());
      return kExitNoService;
    }
    if (status != VDX_STATUS_SUCCESS) return Fail(verb + " " + std::to_string(id), static_cast<vdxStatus>(status));
    std::fprintf(vdxctl::Out(), "%s %d: %s\n", verb == "start" ? "started" : "stopped", id, text.c_str());
  }
  return 0;
}

int Encryption(Format format, const std::string& value) {
  if (value == "on" || value == "off") {
    const vdxStatus status = vdxSetEncryptionVMStatus(value == "on");
    if (status != VDX_STATUS_SUCCESS) return Fail("encryption " + value, status);
  }
  bool encrypted = false;
  const vdxStatus status = vdxGetEncryptionVMStatus(&encrypted);
  if (status != VDX_STATUS_SUCCESS) return Fail("encryption", status);
  if (format == Format::kJson)
    PrintJson({{"schema", vdxctl::kJsonSchema}, {"encrypted", encrypted}});
  else if (format == Format::kCsv)
    std::fprintf(vdxctl::Out(), "encrypted\n%s\n", encrypted ? "true" : "false");
  else
    std::fprintf(vdxctl::Out(), "encryption: %s\n", encrypted ? "on" : "off");
  return 0;
}

// Makes the missing parents of path (0755), as an engine's CDI directory may not exist yet.
bool MakeParents(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string dir = path.substr(0, slash);
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

int CdiGenerate(const std::string& output) {
  std::vector<vdxtool::VdevView> vdevs;
  const vdxStatus status = ListUsableVdevs(&vdevs);
  if (status != VDX_STATUS_SUCCESS) return Fail("virtual devices", status);
  if (vdevs.empty()) {
    // A CDI file must name at least one device: an engine would refuse an empty one.
    fprintf(stderr, "vdxctl: cdi generate: there are no virtual devices to describe; nothing "
                    "written\n");
    return kExitFailure;
  }
  std::vector<vdxctl::CdiVdev> described;
  for (const auto& v : vdevs) described.push_back({v.id, v.units == 0});
  const nlohmann::json cdi = vdxctl::CdiDocument(described);
  const std::string text = cdi.dump(2) + "\n";
  if (output.empty() || output == "-") {
    std::fprintf(vdxctl::Out(), "%s", text.c_str());
    return 0;
  }
  std::ofstream file;
  if (MakeParents(output)) file.open(output, std::ios::trunc);
  file << text;
  file.close();
  if (!file) {
    fprintf(stderr, "vdxctl: cannot write %s: %s\n", output.c_str(), strerror(errno));
    return kExitFailure;
  }
  std::string names;
  for (size_t i = described.size(); i < cdi["devices"].size(); ++i)
    names += std::string(names.empty() ? "" : " and ") + "\"" +
             cdi["devices"][i]["name"].get<std::string>() + "\"";
  std::fprintf(vdxctl::Out(), "wrote %s: %zu virtual device%s and %s (kind %s, CDI %s)\n",
               output.c_str(), described.size(), described.size() == 1 ? "" : "s",
               names.c_str(), vdxctl::kCdiKind, cdi["cdiVersion"].get<std::string>().c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"vdxctl: virtual devices of compute accelerators (libzovdx)"};
  // Ranges that need no look at the host; the host's own bounds are checked after parsing.
  const CLI::Range kIdRange(0, 31);
  const CLI::Range kDeviceRange(0, 7);
  // At most one; none at all is told after parsing, so that an unknown word gets CLI11's own
  // "not expected" message rather than "a subcommand is required".
  app.require_subcommand(0, 1);
  app.fallthrough();
  std::string format_name = "table";
  app.add_option("--format", format_name, "Output of the queries: table, json or csv")
      ->check(CLI::IsMember({"table", "json", "csv"}));
  std::string log_level;
  app.add_option("--log-level", log_level,
                 "The library's log level for this run: none, warning, info or debug")
      ->check(CLI::IsMember({"none", "warning", "info", "debug"}));

  app.set_version_flag("--version", std::string("vdxctl ") + ZOVDX_VERSION + " (libzovdx.so.1)");
  auto* devices = app.add_subcommand("devices", "List the physical devices");
  std::vector<int> device_selection;
  devices->add_option("index", device_selection, "Only these devices")->check(kDeviceRange);
  auto* vdevs = app.add_subcommand("vdevs", "List the virtual devices");
  std::vector<int> vdev_selection;
  vdevs->add_option("id", vdev_selection, "Only these virtual devices")->check(kIdRange);
  auto* list = app.add_subcommand("list", "List the physical and the virtual devices");

  auto* create = app.add_subcommand("create", "Create virtual devices on a device");
  int device = 0, count = 0;
  std::vector<int> units, memory;
  create->add_option("device", device, "Physical device index")->required()->check(kDeviceRange);
  create->add_option("--count", count, "How many (1 to 4); without --units/--memory an even split")
      ->check(CLI::Range(1, 4));
  create->add_option("--units", units, "Compute units of each, comma separated")
      ->delimiter(',')
      ->check(CLI::Range(0, 128));
  create->add_option("--memory", memory, "Memory of each in MiB, comma separated")
      ->delimiter(',')
      ->check(CLI::Range(1, std::numeric_limits<int>::max()));

  auto* update = app.add_subcommand("update", "Change a virtual device's units or memory");
  int vdev = 0, new_units = -1, new_memory = -1;
  update->add_option("vdev", vdev, "Virtual device id")->required()->check(kIdRange);
  update->add_option("--units", new_units, "New compute unit count (default: keep)")
      ->check(CLI::Range(0, 128));
  update->add_option("--memory", new_memory, "New memory limit in MiB (default: keep)")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()));

  auto* destroy = app.add_subcommand("destroy", "Destroy virtual devices");
  std::vector<int> destroy_ids;
  int destroy_device = -1;
  destroy->add_option("vdevs", destroy_ids, "Virtual device ids")->check(kIdRange);
  destroy->add_option("--device", destroy_device, "All virtual devices of this physical device")
      ->check(kDeviceRange);

  auto* start = app.add_subcommand("start", "Have vdxd start virtual devices");
  std::vector<int> start_ids;
  start->add_option("vdevs", start_ids, "Virtual device ids")->required()->check(kIdRange);
  auto* stop = app.add_subcommand("stop", "Have vdxd stop virtual devices");
  std::vector<int> stop_ids;
  stop->add_option("vdevs", stop_ids, "Virtual device ids")->required()->check(kIdRange);

  auto* busy = app.add_subcommand("busy", "Busy percentages of devices and started virtual devices");
  int watch = 0, rounds = 0;
  busy->add_option("--watch", watch, "Repeat every SECONDS until interrupted")
      ->check(CLI::Range(1, 86400));
  busy->add_option("--rounds", rounds, "With --watch: stop after this many")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()));

  auto* encryption = app.add_subcommand("encryption", "Show or set the encryption flag");
  std::string encryption_value = "show";
  encryption->add_option("value", encryption_value, "show, on or off")
      ->check(CLI::IsMember({"show", "on", "off"}));

  auto* cdi = app.add_subcommand("cdi", "Container Device Interface");
  auto* cdi_generate = cdi->add_subcommand("generate", "Write a CDI file");
  cdi->require_subcommand(1);
  std::string cdi_output;
  cdi_generate->add_option("--output", cdi_output, "File to write (default: standard output)");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  if (app.get_subcommands().empty()) {
    fprintf(stderr, "A subcommand is required\nRun with --help for more information.\n");
    return kExitUsage;
  }
  if (destroy->parsed() && destroy_ids.empty() && destroy_device < 0) {
    fprintf(stderr, "vdxctl: destroy needs virtual device ids or --device\n");
    return kExitUsage;
  }
  if (destroy->parsed() && !destroy_ids.empty() && destroy_device >= 0) {
    fprintf(stderr, "vdxctl: destroy takes virtual device ids or --device, not both\n");
    return kExitUsage;
  }
  if (update->parsed() && update->count("--units") + update->count("--memory") == 0) {
    fprintf(stderr, "vdxctl: update needs --units, --memory or both\n");
    return kExitUsage;
  }
  if (busy->parsed() && busy->count("--rounds") > 0 && busy->count("--watch") == 0) {
    fprintf(stderr, "vdxctl: busy --rounds goes with --watch\n");
    return kExitUsage;
  }

  // From here on the library may log (--log-level debug, VDX_LOG_LEVEL): its lines go to
  // standard error, the results alone to standard output; their colour codes only to a
  // terminal.
  vdxctl::KeepStandardOutputForResults();
  vdxtool::PlainLogStreams();
  const Format format = format_name == "json"  ? Format::kJson
                        : format_name == "csv" ? Format::kCsv
                                               : Format::kTable;
  if (!log_level.empty()) {
    const vdxStatus status = vdxSetLogLevel(log_level.c_str());
    if (status != VDX_STATUS_SUCCESS) return Fail("log level", status);
  }

  if (devices->parsed()) return Show(true, false, format, device_selection);
  if (vdevs->parsed()) return Show(false, true, format, vdev_selection);
  if (list->parsed()) return Show(true, true, format, {});
  // What the host has: a value beyond it is a usage error, and nothing is asked of the library.
  if (create->parsed() || (destroy->parsed() && destroy_device >= 0)) {
    const int checked = CheckDevice(create->parsed() ? device : destroy_device,
                                    create->parsed() ? units : std::vector<int>(),
                                    create->parsed() ? memory : std::vector<int>());
    if (checked != 0) return checked;
  }
  std::vector<int> asked;
  if (update->parsed()) asked = {vdev};
  if (destroy->parsed()) asked = destroy_ids;
  if (start->parsed()) asked = start_ids;
  if (stop->parsed()) asked = stop_ids;
  if (!asked.empty()) {
    const int checked = CheckConfigured(asked);
    if (checked != 0) return checked;
  }

  if (create->parsed()) return Create(device, count, units, memory);
  if (update->parsed()) {
    const vdxStatus status = vdxUpdateSingleVDevice(vdev, new_units, new_memory);
    if (status != VDX_STATUS_SUCCESS) return Fail("update", status);
    std::fprintf(vdxctl::Out(), "updated virtual device %d\n", vdev);
    for (const std::string& file : vdxctl::CdiFilesHandingOut(vdev))
      fprintf(stderr,
              "vdxctl: warning: %s hands virtual device %d to containers: a running container "
              "keeps the configuration it started with until it is restarted\n",
              file.c_str(), vdev);
    return 0;
  }
  if (destroy->parsed()) {
    if (destroy_device >= 0) {
      std::vector<vdxtool::VdevView> vdevs;
      const vdxStatus listed = ListUsableVdevs(&vdevs);
      if (listed != VDX_STATUS_SUCCESS) return Fail("virtual devices", listed);
      if (std::none_of(vdevs.begin(), vdevs.end(),
                       [&](const vdxtool::VdevView& v) { return v.device == destroy_device; })) {
        std::fprintf(vdxctl::Out(), "nothing to destroy: device %d has no virtual devices\n",
                     destroy_device);
        return 0;
      }
      const vdxStatus status = vdxDestroyVDevices(destroy_device);
      if (status != VDX_STATUS_SUCCESS) return Fail("destroy", status);
      std::fprintf(vdxctl::Out(), "destroyed the virtual devices of device %d\n", destroy_device);
      return 0;
    }
    for (int id : destroy_ids) {
      const vdxStatus status = vdxDestroySingleVDevice(id);
      if (status != VDX_STATUS_SUCCESS) return Fail("destroy " + std::to_string(id), status);
      std::fprintf(vdxctl::Out(), "destroyed virtual device %d\n", id);
    }
    return 0;
  }
  if (start->parsed()) return AskService("start", start_ids);
  if (stop->parsed()) return AskService("stop", stop_ids);
  if (busy->parsed()) return Busy(format, watch, watch > 0 ? rounds : 1);
  if (encryption->parsed()) return Encryption(format, encryption_value);
  if (cdi_generate->parsed()) return CdiGenerate(cdi_output);
  return kExitUsage;
}
