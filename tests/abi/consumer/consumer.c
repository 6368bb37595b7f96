#include <stdio.h>
#include <string.h>

#include <zovdx/vdx.h>

int main(void) {
  const char* text = NULL;
  if (vdxGetStatusString(VDX_STATUS_PERMISSION, &text) != VDX_STATUS_SUCCESS) return 1;
  puts(text);
  return strcmp(text, "Permission denied.") == 0 ? 0 : 1;
}
