/* A plain C user of the installed library: it creates two virtual devices on the first
 * accelerator of the simulator's default machine and checks what the library answers and
 * writes. Built against the installed header and library; run inside vdx-sim. */
#include <stdio.h>
#include <string.h>

#include <zovdx/vdx.h>

static int Fail(const char* what, int status) {
  fprintf(stderr, "create: %s (status %d)\n", what, status);
  return 1;
}

int main(void) {
  int count = 0;
  vdxStatus status = vdxGetDeviceCount(&count);
  if (status != VDX_STATUS_SUCCESS || count != 2) return Fail("device count", status);
  vdxDeviceInfo info;
  status = vdxGetDeviceInfo(0, &info);
  if (status != VDX_STATUS_SUCCESS) return Fail("device info", status);

  int units[2] = {4, 8};
  int mib[2] = {1024, 2048};
  status = vdxCreateVDevices(0, 2, units, mib);
  if (status != VDX_STATUS_SUCCESS) return Fail("create", status);

  size_t left_units = 0, left_bytes = 0;
  status = vdxGetDeviceRemainingInfo(0, &left_units, &left_bytes);
  if (status != VDX_STATUS_SUCCESS) return Fail("remaining", status);
  if (left_units != (size_t)info.compute_unit_count - 12 ||
      left_bytes != info.global_mem_size - ((size_t)3072 << 20))
    return Fail("remaining resources", 0);

  const char* expected =
      "PciBusId: 0000:03:00.0\ncu_mask: 0x0000000000000ff0\ncu_mask: 0x0000000000000000\n"
      "cu_count: 8\nmem: 2048 MiB\ndevice_id: 0\nvdev_id: 1\npipe_id: 1\nenable: 1\n";
  char text[512] = {0};
  FILE* file = fopen("/etc/vdev/vdev1.conf", "r");
  if (file == NULL) return Fail("no file for virtual device 1", 0);
  size_t length = fread(text, 1, sizeof(text) - 1, file);
  fclose(file);
  if (length != strlen(expected) || memcmp(text, expected, length) != 0)
    return Fail("file of virtual device 1", 0);
  printf("created 2 virtual devices on %s\n", info.name);
  return 0;
}
