// How vdxctl prints: aligned tables for people, JSON (with a schema version) and CSV for
// scripts. Tables show memory in MiB; JSON and CSV in bytes.
#ifndef ZOVDX_TOOLS_VDXCTL_OUTPUT_H_
#define ZOVDX_TOOLS_VDXCTL_OUTPUT_H_

#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/common/vdx_view.h"

namespace vdxctl {

// Where the tool's results go: the real standard output. The library writes its log lines
// to standard output too; after KeepStandardOutputForResults they go to standard error
// instead, so that a --format json result stays parseable whatever the log level.
FILE* Out();
void KeepStandardOutputForResults();

// Version of the JSON that vdxctl prints; it changes only when a field changes meaning or
// goes away (new fields may be added within a version).
inline constexpr int kJsonSchema = 1;

enum class Format { kTable, kJson, kCsv };

nlohmann::json ToJson(const vdxtool::DeviceView& device);
nlohmann::json ToJson(const vdxtool::VdevView& vdev);

// Rows of strings under a header: printed as an aligned table or as CSV.
struct Rows {
  std::vector<std::string> header;
  std::vector<std::vector<std::string>> rows;
};
Rows DeviceRows(const std::vector<vdxtool::DeviceView>& devices, Format format);
Rows VdevRows(const std::vector<vdxtool::VdevView>& vdevs, Format format);
void PrintRows(const Rows& rows, Format format);

// The JSON fields of a device and of a virtual device, in the order CSV shows them.
extern const std::vector<std::string> kDeviceFields;
extern const std::vector<std::string> kVdevFields;

// CSV of JSON objects under one header of the given field names (null or a missing field as
// an empty field, booleans as true and false).
void PrintCsv(const std::vector<std::string>& fields, const std::vector<nlohmann::json>& objects);

}  // namespace vdxctl

#endif  // ZOVDX_TOOLS_VDXCTL_OUTPUT_H_
