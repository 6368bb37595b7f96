// The keys of a virtual device's configuration file, in the order that decides which one a
// line stands for. The library's parser and the tools that show a file's fields (its pipe)
// both read them from here. Header only: constants and one inline function, nothing to link,
// so the tools still stand on the public library alone.
#ifndef ZOVDX_VIRTUAL_VDEV_FILE_KEYS_H_
#define ZOVDX_VIRTUAL_VDEV_FILE_KEYS_H_

#include <string>

inline constexpr char kVdevKeyPci[] = "PciBusId:";
inline constexpr char kVdevKeyMask[] = "cu_mask:";
inline constexpr char kVdevKeyUnits[] = "cu_count:";
inline constexpr char kVdevKeyMemory[] = "mem:";
inline constexpr char kVdevKeyDevice[] = "device_id:";
inline constexpr char kVdevKeyEnable[] = "enable:";
inline constexpr char kVdevKeyId[] = "vdev_id:";
inline constexpr char kVdevKeyPipe[] = "pipe_id:";

inline constexpr const char* kVdevFileKeys[] = {kVdevKeyPci,    kVdevKeyMask,   kVdevKeyUnits,
                                                kVdevKeyMemory, kVdevKeyDevice, kVdevKeyEnable,
                                                kVdevKeyId,     kVdevKeyPipe};

// The key a line stands for: the first of kVdevFileKeys, in that order, that the line holds
// anywhere; nullptr when it holds none.
inline const char* VdevFileKeyOf(const std::string& line) {
  for (const char* key : kVdevFileKeys)
    if (line.find(key) != std::string::npos) return key;
  return nullptr;
}

#endif  // ZOVDX_VIRTUAL_VDEV_FILE_KEYS_H_
