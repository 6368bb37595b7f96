// A virtual device's configuration file as text: the writer and the parser, side by side, so
// that the format has one home. No locks: pure functions.
#include "virtual/vdev_file.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "utils/utils.h"
#include "virtual/cu_mask.h"
#include "virtual/vdev_file_keys.h"

namespace {

// Numbers in the files may be written in any base strtoull knows ("0x" hexadecimal, leading
// zero octal); the fields are ints.
// errno is ERANGE afterwards when the text overflows 64 bits.
uint64_t ParseNumber(const std::string& text) {
  errno = 0;
  return strtoull(text.c_str(), nullptr, 0);
}
int ParseInt(const std::string& text) { return static_cast<int>(ParseNumber(text)); }

// The lines of a text as getline would give them: split at '\n', the last one kept whether
// or not it ends with one.
template <typename Visit>
void ForEachTextLine(const std::string& text, Visit visit) {
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    visit(text.substr(at, end - at));
    at = end + 1;
  }
}

}  // namespace

std::string VdevFileText(const device_info& physical, const virtual_device_info& vdev) {
  return StrFormat("PciBusId: %04x:%02x:%02x.%x\n", physical.pciDomainID, physical.pciBus,
                   physical.pciDevice, physical.pciFunction) +
         StrFormat("cu_mask: 0x%016lx\n", CuMaskWord64(vdev.cuMask, 0)) +
         StrFormat("cu_mask: 0x%016lx\n", CuMaskWord64(vdev.cuMask, 1)) +
         StrFormat("cu_count: %d\n", vdev.cuCount) + StrFormat("mem: %d MiB\n", vdev.memLimit) +
         StrFormat("device_id: %d\n", vdev.device_id) + StrFormat("vdev_id: %d\n", vdev.vdev_id) +
         StrFormat("pipe_id: %d\n", vdev.pipe_id) + StrFormat("enable: %d\n", 1);
}

std::string ParseVdevFile(const std::string& text, VdevFileFields* fields) {
  VdevFileFields parsed;
  virtual_device_info& record = parsed.record;
  std::string error;
  int mask_lines = 0;
  ForEachTextLine(text, [&](const std::string& line) {
    const char* key = VdevFileKeyOf(line);
    if (key == nullptr) return;
    std::vector<std::string> parts;
    SplitStr(line, " ", parts, true);
    // A hand-edited key without its value costs this file only, never the caller.
    if (parts.size() < 2) {
      error += std::string("key ") + key + " without a value";
      return;
    }
    const std::string& value = parts[1];
    // The writer never writes a negative number, and no rule about over-commitment is about
    // one: such a value is damage, not a request.
    if (key != kVdevKeyPci && value[0] == '-') {
      error += std::string("a negative value for ") + key;
      return;
    }
    // Nor a number too large for its field, which would wrap to a negative one or another id.
    if (key != kVdevKeyPci && key != kVdevKeyMask &&
        (ParseNumber(value) > static_cast<uint64_t>(INT_MAX) || errno == ERANGE)) {
      error += std::string("a value out of range for ") + key;
      return;
    }
    if (key == kVdevKeyPci) {
      if (sscanf(value.c_str(), "%x:%x:%x.%x", &parsed.domain, &parsed.bus, &parsed.device,
                 &parsed.function) < 4)
        error += "invalid pci bus id format(" + value;
    } else if (key == kVdevKeyMask) {
      // The first line is bits 0-63, the second 64-127; a third adds nothing but the error.
      record.cuMask |= CuMaskFromWord64(ParseNumber(value), static_cast<size_t>(mask_lines));
      ++mask_lines;
      if (mask_lines > 2) error += "invalid cu_mask field count(" + std::to_string(mask_lines) + ")";
    } else if (key == kVdevKeyUnits) {
      record.cuCount = ParseInt(value);
    } else if (key == kVdevKeyMemory) {
      record.memLimit = ParseInt(value);  // the "MiB" token is not read
    } else if (key == kVdevKeyDevice) {
      record.device_id = ParseInt(value);
    } else if (key == kVdevKeyEnable) {
      parsed.enable = ParseNumber(value) != 0;
    } else if (key == kVdevKeyId) {
      record.vdev_id = ParseInt(value);
    } else {
      record.pipe_id = ParseInt(value);
    }
  });

  if (parsed.domain == 0 && parsed.bus == 0 && parsed.device == 0 && parsed.function == 0 &&
      error.empty())
    error = "empty pci bus identifier";
  if (error.empty() && (record.vdev_id < 0 || record.vdev_id >= kMaxVirtualDevices))
    error = "vdev_id " + std::to_string(record.vdev_id) + " out of range";
  *fields = parsed;
  return error;
}
