// vdx-sim: runs a command on a simulated accelerator machine, or changes the machine
// of the sandbox it is called from (`vdx-sim ctl`).
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "sim/control.h"
#include "sim/ctl_client.h"
#include "sim/machine.h"
#include "sim/sandbox.h"

namespace {

const char kUsage[] =
    "usage: vdx-sim [OPTIONS] [--] COMMAND [ARGS...]\n"
    "       vdx-sim ctl COMMAND [ARGS...]\n"
    "       vdx-sim --print-machine [--machine FILE]\n"
    "\n"
    "Runs COMMAND on a private simulated accelerator machine and exits with its status.\n"
    "\n"
    "  --machine FILE     machine description (default: built in, see --print-machine)\n"
    "  --etc-readonly     /etc is read-only (writes fail with EROFS)\n"
    "  --etc-full         /etc has no free space (writes fail with ENOSPC)\n"
    "  --etc-size BYTES   room for writes under /etc (default 64 MiB)\n"
    "  --private-home     writes to root's home directory stay in the sandbox\n"
    "  --containers       /dev/mkfd and a CDI file (vdx-sim.zovdx.dev/machine=sim) for\n"
    "                     container engines run inside (root only)\n"
    "  --print-machine    print the machine description and exit\n"
    "  -h, --help         this text; `vdx-sim ctl help` lists the control commands\n";

int Usage(const char* problem) {
  if (problem != nullptr) std::fprintf(stderr, "vdx-sim: %s\n", problem);
  std::fputs(kUsage, problem != nullptr ? stderr : stdout);
  return problem != nullptr ? 2 : 0;
}

bool ReadFile(const std::string& path, std::string* text) {
  std::ifstream in(path);
  if (!in) return false;
  std::ostringstream s;
  s << in.rdbuf();
  *text = s.str();
  return true;
}

int Control(int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  std::string out;
  int status = vdxsim::SimControl(args, &out);
  std::fputs(out.c_str(), status == 0 ? stdout : stderr);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "ctl") == 0) return Control(argc - 2, argv + 2);
  vdxsim::SandboxOptions options;
  std::string machine_file;
  bool print_machine = false;
  int i = 1;
  for (; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--") {
      ++i;
      break;
    }
    if (a.empty() || a[0] != '-') break;
    if (a == "-h" || a == "--help") return Usage(nullptr);
    if (a == "--machine" && i + 1 < argc) {
      machine_file = argv[++i];
    } else if (a == "--etc-readonly") {
      options.etc_readonly = true;
    } else if (a == "--etc-full") {
      options.etc_full = true;
    } else if (a == "--private-home") {
      options.private_home = true;
    } else if (a == "--containers") {
      options.containers = true;
    } else if (a == "--etc-size" && i + 1 < argc) {
      char* end = nullptr;
      errno = 0;
      options.etc_size = std::strtoull(argv[++i], &end, 0);
      if (errno != 0 || *end != '\0' || options.etc_size < 4096) {
        return Usage("--etc-size takes a number of bytes, at least 4096");
      }
    } else if (a == "--print-machine") {
      print_machine = true;
    } else {
      return Usage(("unknown option " + a).c_str());
    }
  }
  std::string text = vdxsim::DefaultMachineText();
  if (!machine_file.empty() && !ReadFile(machine_file, &text)) {
    std::fprintf(stderr, "vdx-sim: cannot read %s: %s\n", machine_file.c_str(), std::strerror(errno));
    return 2;
  }
  std::string error;
  if (!vdxsim::ParseMachine(text, &options.machine, &error)) {
    std::fprintf(stderr, "vdx-sim: %s: %s\n", machine_file.empty() ? "built-in machine" : machine_file.c_str(),
                 error.c_str());
    return 2;
  }
  if (print_machine) {
    std::fputs(text.c_str(), stdout);
    return 0;
  }
  if (i >= argc) return Usage("no command given");
  options.command.assign(argv + i, argv + argc);
  int status = vdxsim::RunSandbox(options);
  // The launcher joined a PID namespace whose init is gone by now: it can no longer
  // create processes, and exit-time hooks that need one (the leak checker's) would fail.
  std::fflush(nullptr);
  _exit(status);
}
