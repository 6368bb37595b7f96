#include "tools/vdxctl/output.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace vdxctl {

namespace {
FILE* g_results = stdout;
}  // namespace

FILE* Out() { return g_results; }

void KeepStandardOutputForResults() {
  const int results = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (results < 0) return;
  FILE* out = fdopen(results, "w");
  if (out == nullptr) {
    close(results);
    return;
  }
  fflush(stdout);
  if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
    fclose(out);
    return;
  }
  g_results = out;
}
namespace {

std::string Hex(uint64_t value) {
  char text[32];
  snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

// Tables show MiB; scripts get bytes.
std::string Memory(uint64_t bytes, Format format) {
  return format == Format::kTable ? std::to_string(bytes >> 20) : std::to_string(bytes);
}

std::string Optional(bool present, uint64_t value, Format format, bool memory) {
  if (!present) return format == Format::kTable ? "-" : "";
  return memory ? Memory(value, format) : std::to_string(value);
}

// CSV fields are quoted when they hold a separator, a quote or a line end.
std::string CsvField(const std::string& field) {
  if (field.find_first_of(",\"\n") == std::string::npos) return field;
  std::string quoted = "\"";
  for (char c : field) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + "\"";
}

}  // namespace

nlohmann::json ToJson(const vdxtool::DeviceView& d) {
  nlohmann::json j = {{"index", d.index},
                      {"name", d.name},
                      {"compute_units", d.units},
                      {"memory_bytes", d.memory_bytes},
                      {"memory_used_bytes", d.used_bytes},
                      {"remaining_compute_units", nullptr},
                      {"remaining_memory_bytes", nullptr},
                      {"busy_percent", nullptr}};
  if (d.has_remaining) {
    j["remaining_compute_units"] = d.remaining_units;
    j["remaining_memory_bytes"] = d.remaining_bytes;
  }
  if (d.has_busy) j["busy_percent"] = d.busy_percent;
  return j;
}

nlohmann::json ToJson(const vdxtool::VdevView& v) {
  nlohmann::json j = {{"id", v.id},
                      {"device", v.device},
                      {"device_name", v.device_name},
                      {"compute_units", v.units},
                      {"memory_limit_bytes", v.memory_limit_bytes},
                      {"memory_used_bytes", v.used_bytes},
                      {"pipe", nullptr},
                      {"container_id", v.container},
                      {"started", v.started},
                      {"busy_percent", nullptr}};
  if (v.pipe >= 0) j["pipe"] = v.pipe;
  if (v.has_busy) j["busy_percent"] = v.busy_percent;
  return j;
}

Rows DeviceRows(const std::vector<vdxtool::DeviceView>& devices, Format format) {
  const bool table = format == Format::kTable;
  Rows rows;
  rows.header = {"device", "name", "units", table ? "memory_mib" : "memory_bytes",
                 table ? "used_mib" : "used_bytes", "free_units",
                 table ? "free_mib" : "free_bytes", "busy_percent"};
  for (const vdxtool::DeviceView& d : devices) {
    rows.rows.push_back({std::to_string(d.index), d.name, std::to_string(d.units),
                         Memory(d.memory_bytes, format), Memory(d.used_bytes, format),
                         Optional(d.has_remaining, d.remaining_units, format, false),
                         Optional(d.has_remaining, d.remaining_bytes, format, true),
                         d.has_busy ? std::to_string(d.busy_percent) : (table ? "-" : "")});
  }
  return rows;
}

Rows VdevRows(const std::vector<vdxtool::VdevView>& vdevs, Format format) {
  const bool table = format == Format::kTable;
  Rows rows;
  rows.header = {"vdev", "device", "units", table ? "limit_mib" : "limit_bytes",
                 table ? "used_mib" : "used_bytes", "pipe", "container", "started",
                 "busy_percent"};
  for (const vdxtool::VdevView& v : vdevs) {
    rows.rows.push_back({std::to_string(v.id), std::to_string(v.device), std::to_string(v.units),
                         Memory(v.memory_limit_bytes, format), Memory(v.used_bytes, format),
                         v.pipe >= 0 ? std::to_string(v.pipe) : (table ? "-" : ""),
                         Hex(v.container), v.started ? "yes" : "no",
                         v.has_busy ? std::to_string(v.busy_percent) : (table ? "-" : "")});
  }
  return rows;
}

const std::vector<std::string> kDeviceFields = {
    "index", "name", "compute_units", "memory_bytes", "memory_used_bytes",
    "remaining_compute_units", "remaining_memory_bytes", "busy_percent"};
const std::vector<std::string> kVdevFields = {
    "id", "device", "device_name", "compute_units", "memory_limit_bytes", "memory_used_bytes",
    "pipe", "container_id", "started", "busy_percent"};

void PrintCsv(const std::vector<std::string>& fields, const std::vector<nlohmann::json>& objects) {
  Rows rows;
  rows.header = fields;
  for (const nlohmann::json& object : objects) {
    std::vector<std::string> row;
    for (const std::string& name : fields) {
      const nlohmann::json value = object.contains(name) ? object[name] : nlohmann::json();
      row.push_back(value.is_null()     ? ""
                    : value.is_string() ? value.get<std::string>()
                                        : value.dump());
    }
    rows.rows.push_back(row);
  }
  PrintRows(rows, Format::kCsv);
}

void PrintRows(const Rows& rows, Format format) {
  if (format == Format::kCsv) {
    auto line = [](const std::vector<std::string>& fields) {
      std::string text;
      for (size_t i = 0; i < fields.size(); ++i) text += (i ? "," : "") + CsvField(fields[i]);
      std::fprintf(Out(), "%s\n", text.c_str());
    };
    if (!rows.header.empty()) line(rows.header);
    for (const auto& row : rows.rows) line(row);
    return;
  }
  std::vector<size_t> width(rows.header.size());
  for (size_t c = 0; c < width.size(); ++c) {
    width[c] = rows.header[c].size();
    for (const auto& row : rows.rows) width[c] = std::max(width[c], row[c].size());
  }
  auto line = [&width](const std::vector<std::string>& fields) {
    std::string text;
    for (size_t c = 0; c < fields.size(); ++c) {
      text += fields[c];
      if (c + 1 < fields.size()) text += std::string(width[c] - fields[c].size() + 2, ' ');
    }
    std::fprintf(Out(), "%s\n", text.c_str());
  };
  line(rows.header);
  for (const auto& row : rows.rows) line(row);
}

}  // namespace vdxctl
