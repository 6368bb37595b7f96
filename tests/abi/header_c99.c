/* The public header as a plain C99 program sees it: it compiles with -std=c99 -pedantic,
 * and the two functions that need no device behave as documented when called from C. */
#include <stdio.h>
#include <string.h>

#include <zovdx/vdx.h>

static int failures = 0;

static void check(int ok, const char* what) {
  if (!ok) {
    printf("FAIL: %s\n", what);
    ++failures;
  }
}

int main(void) {
  const char* text = NULL;
  vdxDeviceInfo info;
  size_t i;
  int all_zero = 1;

  check(vdxGetStatusString(VDX_STATUS_DEVICE_BUSY, &text) == VDX_STATUS_SUCCESS, "status 17");
  check(text != NULL && strcmp(text, "The device is exist and may be in use.") == 0, "text 17");
  {
    /* Callers in C may pass any int; none of these is a status code. */
    const int unknown[] = {36, 998, 1000, -1, -999, 0x7fffffff, -0x7fffffff - 1};
    const char* sentinel = "untouched";
    int refused = 1;
    for (i = 0; i < sizeof(unknown) / sizeof(unknown[0]); ++i) {
      text = sentinel;
      refused &= vdxGetStatusString((vdxStatus)unknown[i], &text) == VDX_STATUS_ERROR;
      refused &= text == sentinel;
    }
    check(refused, "unknown codes refused, output untouched");
  }

  memset(&info, 0xA5, sizeof(info));
  check(vdxInitDevice(&info) == VDX_STATUS_SUCCESS, "vdxInitDevice");
  for (i = 0; i < sizeof(info); ++i) all_zero &= ((unsigned char*)&info)[i] == 0;
  check(all_zero, "vdxInitDevice zeroes the record");
  check(vdxInitDevice(NULL) == VDX_STATUS_SUCCESS, "vdxInitDevice(NULL)");
  check(sizeof(vdxDeviceInfo) == 296, "record size");

  printf("%d passed, %d failed\n", 7 - failures, failures);
  return failures == 0 ? 0 : 1;
}
