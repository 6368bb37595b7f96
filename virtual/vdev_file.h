// The text of a virtual device's configuration file (/etc/vdev/vdev<N>.conf), both ways and
// without any I/O: the writer that creation and update use, and the parser that loading uses.
// The caller reads or writes the file, decides what a disabled file means and which physical
// device its PCI address names.
#ifndef ZOVDX_VIRTUAL_VDEV_FILE_H_
#define ZOVDX_VIRTUAL_VDEV_FILE_H_

#include <string>

#include "virtual/include/dmvirtual.h"

// The nine lines of a virtual device's configuration file, as written by this library.
std::string VdevFileText(const device_info& physical, const virtual_device_info& vdev);

// What a file says. record holds its units, memory, device id, virtual device id and pipe
// (its mtime is the caller's); the PCI address and the enable flag stand apart.
struct VdevFileFields {
  virtual_device_info record{};
  unsigned int domain = 0, bus = 0, device = 0, function = 0;
  bool enable = false;
};

// Parses the text of a file into *fields. Returns "" when it is whole, else the damage in the
// words the loader reports ("a negative value for mem:", "empty pci bus identifier", ...).
// Only the first of the keys PciBusId, cu_mask, cu_count, mem, device_id, enable, vdev_id and
// pipe_id (in that order) that a line holds counts; other lines are ignored.
std::string ParseVdevFile(const std::string& text, VdevFileFields* fields);

#endif  // ZOVDX_VIRTUAL_VDEV_FILE_H_
