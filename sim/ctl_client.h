// Client of the control socket of a sandbox: what `vdx-sim ctl` runs, and what tests
// running inside a sandbox call directly to change the simulated world.
#ifndef VDX_SIM_CTL_CLIENT_H_
#define VDX_SIM_CTL_CLIENT_H_

#include <string>
#include <vector>

namespace vdxsim {

// Exit status of a control request when there is no simulator to ask.
constexpr int kNoSimulator = 3;

// Sends one command (e.g. {"busy", "21735", "0xff"}) to the simulator of the calling
// process's sandbox. Returns 0 on success, 1 when the simulator refused, 2 for a usage
// error, kNoSimulator when not inside a sandbox; *out receives what the command printed.
int SimControl(const std::vector<std::string>& args, std::string* out);

}  // namespace vdxsim

#endif  // VDX_SIM_CTL_CLIENT_H_
