// Product data of the accelerators this library knows: the accepted PCI vendor ids, the
// device id families that support virtual devices, and the marketing names by device and
// subsystem id.
#ifndef ZOVDX_MKFD_DEVICE_NAMES_H_
#define ZOVDX_MKFD_DEVICE_NAMES_H_

#include <cstdint>

inline constexpr uint32_t kVendorIdOwn = 0x2E70;    // the product line's own PCI vendor id
inline constexpr uint32_t kVendorIdShared = 0x1002;  // also carried by some of its boards

bool IsAcceptedVendor(uint32_t vendorId);

// Whether virtual devices can be made on this accelerator: an accepted vendor and a device
// id of one of the supported families (a family shares a masked pattern of its id).
bool IsSupportedAccelerator(uint32_t vendorId, uint32_t deviceId);

// The marketing name of a board, or "" when the vendor is foreign or the device id is not
// listed. A subsystem id with a row of its own wins over the device's default name.
const char* GetMarketingName(uint32_t vendorId, uint32_t deviceId, uint32_t subsystemId);

#endif  // ZOVDX_MKFD_DEVICE_NAMES_H_
