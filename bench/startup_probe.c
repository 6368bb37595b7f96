/* The process the start-up benchmark starts: it loads libzovdx.so.1 and, with the argument
 * "call", makes the first gated call (which starts the manager); with "load" it only loads
 * the library, the baseline. Plain C, linked as any consumer links the library. */
#include <stdio.h>
#include <string.h>

#include <zovdx/vdx.h>

int main(int argc, char** argv) {
  /* Referenced in both modes, so that the library is loaded in both. */
  vdxStatus (*volatile first_call)(int*) = vdxGetMaxVDeviceCount;
  if (argc > 1 && strcmp(argv[1], "call") == 0) {
    int count = 0;
    if (first_call(&count) != VDX_STATUS_SUCCESS || count != 4) return 1;
  }
  return 0;
}
