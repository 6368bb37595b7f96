// The local control channel between vdxctl and the vdxd service: a stream socket in the
// abstract namespace (private to the network namespace, so one per machine or sandbox). One
// request line ("start 3", "stop 3", "ping"), one answer line ("STATUS TEXT"), where STATUS
// is the library's status of the request. The service serves root only.
#ifndef ZOVDX_TOOLS_COMMON_CONTROL_H_
#define ZOVDX_TOOLS_COMMON_CONTROL_H_

#include <string>

namespace vdxtool {

inline constexpr char kControlSocketName[] = "zovdx-vdxd-control";

// Sends request, stores the answer's status and text. False when no service listens (or the
// exchange broke off); *error then says what happened.
bool AskService(const std::string& request, int* status, std::string* text, std::string* error);

// The service's side: a listening socket (-1 and errno on failure).
int ListenControl();
// Reads one request from a connected client (at most 256 bytes, up to the newline).
bool ReadRequest(int client, std::string* request);
void WriteAnswer(int client, int status, const std::string& text);
// Whether the connected peer runs as root.
bool PeerIsRoot(int client);

}  // namespace vdxtool

#endif  // ZOVDX_TOOLS_COMMON_CONTROL_H_
