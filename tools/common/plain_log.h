// The library colours the labels of its log lines ("Error" in red) whatever they are written
// to. The tools want them readable in a file, a pipe or a journal: their standard streams
// drop those codes when the stream is not a terminal, or when NO_COLOR is set
// (https://no-color.org).
#ifndef ZOVDX_TOOLS_COMMON_PLAIN_LOG_H_
#define ZOVDX_TOOLS_COMMON_PLAIN_LOG_H_

#include <cstddef>
#include <string>

namespace vdxtool {

// Whether text written to fd should keep its colour codes.
bool WantsColour(int fd);

// Swaps stdout and stderr, each where it does not want colour, for streams that drop the
// codes. Call it once, before the library's first call and before any other thread starts.
// False when a stream could not be made (that one is left as it was).
bool PlainLogStreams();

// Drops the terminal control sequences (ESC [ ... final byte) from text, one piece at a time:
// `state` carries a sequence cut between two pieces (start it at 0).
std::string StripControlSequences(const char* text, size_t size, int* state);

}  // namespace vdxtool

#endif  // ZOVDX_TOOLS_COMMON_PLAIN_LOG_H_
