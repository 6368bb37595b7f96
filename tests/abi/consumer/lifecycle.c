/* The whole life of a virtual device from plain C, through the installed header and library,
 * inside vdx-sim: create, start, query, update, stop, destroy. At the end neither the driver
 * nor the configuration holds anything. With the argument "start-only" it creates and starts
 * two virtual devices and exits, leaving the library to tear the instances down. */
#include <dirent.h>
#include <stdio.h>
#include <string.h>

#include <zovdx/vdx.h>

static int Fail(const char* what, int status) {
  fprintf(stderr, "lifecycle: %s (status %d)\n", what, status);
  return 1;
}

/* Entries of a directory other than "." and "..", or -1 when it cannot be read. */
static int Entries(const char* path) {
  DIR* dir = opendir(path);
  if (dir == NULL) return -1;
  int count = 0;
  struct dirent* entry;
  while ((entry = readdir(dir)) != NULL)
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) ++count;
  closedir(dir);
  return count;
}

int main(int argc, char** argv) {
  const int start_only = argc > 1 && strcmp(argv[1], "start-only") == 0;
  int units[2] = {8, 8};
  int mib[2] = {2048, 2048};
  vdxStatus status = vdxCreateVDevices(1, 2, units, mib);
  if (status != VDX_STATUS_SUCCESS) return Fail("create", status);
  int count = 0;
  status = vdxGetVDeviceCount(&count);
  if (status != VDX_STATUS_SUCCESS || count != 2) return Fail("count", status);

  for (int id = 0; id < 2; ++id) {
    status = vdxStartVDevice(id);
    if (status != VDX_STATUS_SUCCESS) return Fail("start", status);
  }
  if (Entries("/sys/devices/virtual/kfd/kfd/vgpu") != 2) return Fail("instances after start", 0);
  if (start_only) {
    printf("2 instances while this process runs\n");
    return 0;
  }

  vdxDeviceInfo info;
  status = vdxGetVDeviceInfo(1, &info);
  if (status != VDX_STATUS_SUCCESS || info.compute_unit_count != 8 || info.device_id != 1)
    return Fail("query", status);
  int busy = -1;
  status = vdxGetVDevBusyPercent(1, &busy);
  if (status != VDX_STATUS_SUCCESS || busy != 0) return Fail("busy", status);

  status = vdxUpdateSingleVDevice(1, 16, 4096);
  if (status != VDX_STATUS_SUCCESS) return Fail("update", status);
  status = vdxGetVDeviceInfo(1, &info);
  if (status != VDX_STATUS_SUCCESS || info.compute_unit_count != 16 ||
      info.global_mem_size != ((size_t)4096 << 20))
    return Fail("query after update", status);

  for (int id = 0; id < 2; ++id) {
    status = vdxStopVDevice(id);
    if (status != VDX_STATUS_SUCCESS) return Fail("stop", status);
  }
  status = vdxDestroyVDevices(1);
  if (status != VDX_STATUS_SUCCESS) return Fail("destroy", status);
  if (Entries("/sys/devices/virtual/kfd/kfd/vgpu") != 0) return Fail("instances left", 0);
  if (Entries("/etc/vdev") != 0) return Fail("configuration left", 0);
  printf("a virtual device's whole life, from C: nothing left behind\n");
  return 0;
}
