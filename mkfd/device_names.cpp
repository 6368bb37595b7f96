#include "mkfd/device_names.h"

namespace {

struct NameRow {
  uint32_t device_id;
  bool any_subsystem;  // the device's default name, used when no subsystem row matches
  uint32_t subsystem_id;
  const char* name;
};

constexpr NameRow kNameTable[] = {
    {0x5010, true, 0, "ZO XC-100"},
    {0x5010, false, 0x0101, "ZO XC-100 32G"},
    {0x5010, false, 0x0102, "ZO XC-100 64G"},
    {0x5110, true, 0, "ZO XC-100L"},
    {0x5210, true, 0, "ZO XC-100L"},
    {0x5020, true, 0, "ZO XC-200"},
    {0x5020, false, 0x0201, "ZO XC-200 48G"},
    {0x5020, false, 0x0202, "ZO XC-200 96G"},
    {0x5020, false, 0x0203, "ZO XC-200 OAM"},
    {0x5120, true, 0, "ZO XC-200 PCIe"},
    {0x6200, true, 0, "ZO KX-10"},
    {0x6201, true, 0, "ZO KX-10"},
    {0x6202, true, 0, "ZO KX-10 Lite"},
    {0x6203, true, 0, "ZO KX-10 Lite"},
    {0x7100, true, 0, "ZO ZX-800"},
    {0x7110, true, 0, "ZO ZX-800 Pro"},
    {0x7110, false, 0x0801, "ZO ZX-800 Pro 64G"},
    {0x7300, true, 0, "ZO ZX-900"},
    {0x7310, true, 0, "ZO ZX-900 Max"},
    {0x7320, true, 0, "ZO ZX-900 Max"},
};

// A device id is in a family when (id & mask) == value.
struct FamilyPattern {
  uint32_t mask;
  uint32_t value;
};

constexpr FamilyPattern kSupportedFamilies[] = {
    {0xf0ff, 0x5010},  // 0x5010, 0x5110 ... 0x5f10
    {0xf0ff, 0x5020},  // 0x5020, 0x5120 ... 0x5f20
    {0xfff0, 0x6200},  // 0x6200 ... 0x620f
    {0xff0f, 0x7100},  // 0x7100, 0x7110 ... 0x71f0
    {0xff0f, 0x7300},  // 0x7300, 0x7310 ... 0x73f0
};

}  // namespace

bool IsSupportedAccelerator(uint32_t vendorId, uint32_t deviceId) {
  if (!IsAcceptedVendor(vendorId)) return false;
  for (const FamilyPattern& family : kSupportedFamilies) {
    if ((deviceId & family.mask) == family.value) return true;
  }
  return false;
}

bool IsAcceptedVendor(uint32_t vendorId) {
  return vendorId == kVendorIdOwn || vendorId == kVendorIdShared;
}

const char* GetMarketingName(uint32_t vendorId, uint32_t deviceId, uint32_t subsystemId) {
  if (!IsAcceptedVendor(vendorId)) return "";
  const char* fallback = "";
  for (const NameRow& row : kNameTable) {
    if (row.device_id != deviceId) continue;
    if (row.any_subsystem)
      fallback = row.name;
    else if (row.subsystem_id == subsystemId)
      return row.name;
  }
  return fallback;
}
