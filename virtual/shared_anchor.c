/* The shared library is linked from the whole internal archive; CMake still wants one
 * source file of its own for the target. */
typedef int zovdx_shared_anchor_t;
