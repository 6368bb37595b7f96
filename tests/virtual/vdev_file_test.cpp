// The configuration file's text both ways: what the writer writes, the parser reads back
// whole, and the damage the parser names is the damage there is.
#include <string>

#include <gtest/gtest.h>

#include "virtual/cu_mask.h"
#include "virtual/vdev_file.h"

namespace {

device_info Physical(unsigned bus) {
  device_info d{};
  d.pciDomainID = 0;
  d.pciBus = bus;
  d.pciDevice = 0;
  d.pciFunction = 0;
  return d;
}

TEST(VdevFile, WhatIsWrittenIsReadBack) {
  virtual_device_info written{};
  written.cuMask = CuMaskFromWord64(0xff00ff00ff00ff00ull, 0) | CuMaskFromWord64(0x3, 1);
  written.cuCount = 36;
  written.memLimit = 4096;
  written.device_id = 1;
  written.vdev_id = 31;
  written.pipe_id = 3;
  const std::string text = VdevFileText(Physical(0x04), written);
  EXPECT_EQ(text,
            "PciBusId: 0000:04:00.0\ncu_mask: 0xff00ff00ff00ff00\ncu_mask: 0x0000000000000003\n"
            "cu_count: 36\nmem: 4096 MiB\ndevice_id: 1\nvdev_id: 31\npipe_id: 3\nenable: 1\n");
  VdevFileFields read;
  ASSERT_EQ(ParseVdevFile(text, &read), "");
  EXPECT_EQ(read.record.cuMask, written.cuMask);
  EXPECT_EQ(read.record.cuCount, 36);
  EXPECT_EQ(read.record.memLimit, 4096);
  EXPECT_EQ(read.record.device_id, 1);
  EXPECT_EQ(read.record.vdev_id, 31);
  EXPECT_EQ(read.record.pipe_id, 3);
  EXPECT_EQ(read.bus, 0x04u);
  EXPECT_TRUE(read.enable);
  // The last line without its line end, and lines the format does not know, change nothing.
  VdevFileFields again;
  ASSERT_EQ(ParseVdevFile("# by hand\n" + text.substr(0, text.size() - 1), &again), "");
  EXPECT_EQ(again.record.cuMask, written.cuMask);
  EXPECT_TRUE(again.enable);
}

TEST(VdevFile, DamageIsNamed) {
  const std::string good =
      "PciBusId: 0000:03:00.0\ncu_mask: 0xff\ncu_mask: 0x0\ncu_count: 8\nmem: 1024 MiB\n"
      "device_id: 0\nvdev_id: 2\npipe_id: 0\n";
  VdevFileFields f;
  EXPECT_EQ(ParseVdevFile(good, &f), "");
  EXPECT_FALSE(f.enable) << "no enable line: not enabled";
  const struct {
    std::string text;
    std::string damage;
  } cases[] = {
      {good + "mem: -5\n", "a negative value for mem:"},
      {good + "pipe_id: 2147483648\n", "a value out of range for pipe_id:"},
      {good + "cu_count:\n", "key cu_count: without a value"},
      {good + "cu_mask: 0x1\n", "invalid cu_mask field count(3)"},
      {"cu_count: 8\nvdev_id: 1\n", "empty pci bus identifier"},
      {"PciBusId: 0000:03:00.0\nvdev_id: 32\n", "vdev_id 32 out of range"},
      {"PciBusId: zz\nvdev_id: 1\n", "invalid pci bus id format(zz"},
  };
  for (const auto& c : cases) EXPECT_EQ(ParseVdevFile(c.text, &f), c.damage) << c.text;
  // A line counts for one key only: the first of the format's order that it holds, wherever
  // it stands, with the line's second word as its value.
  ASSERT_EQ(ParseVdevFile(good + "enable: 1 # mem: 9\n", &f), "");
  EXPECT_EQ(f.record.memLimit, 1);
  EXPECT_FALSE(f.enable);
}

}  // namespace
