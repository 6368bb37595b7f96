#include "sim/control.h"

#include <cerrno>
#include <cstdlib>

namespace vdxsim {

const char kControlUsage[] =
    "usage: vdx-sim ctl COMMAND [ARGS]   (inside a sandbox)\n"
    "  dump                              the whole simulated state\n"
    "  busy GPU W0 [W1 ... W7]           busy unit words of a device, one per shader engine\n"
    "  usage GPU VGPU BYTES              memory usage of an instance\n"
    "  refcount GPU VGPU COUNT           reference count of an instance\n"
    "  group-usage IDENT GPU BYTES       memory usage of a group on a device\n"
    "  group-refcount IDENT COUNT        reference count of a group\n"
    "  available GPU BYTES|auto          free memory the driver reports\n"
    "  codec GPU dec|enc BUSY [TOTAL]    busy (and total) codec instances\n"
    "  pasid GPU VMID PASID              the vmid to pasid map\n"
    "  system-mode none|mig|N            the mode the manager service reports\n"
    "  process PID GPU GI CI             the process record the service reports\n"
    "  process PID clear\n"
    "  module STATE|absent               the module state file\n"
    "  service normal|error STATUS|wrong-type [TYPE]|trickle|disconnect\n"
    "  service stop|start|restart          the service socket off, on, or both\n"
    "  fault COMMAND ERRNO [COUNT]       the next COUNT calls of COMMAND fail with ERRNO\n"
    "  fault clear\n"
    "  inherited share|ebadf             a forked child's inherited descriptor works, or fails\n"
    "  etc rw|ro|full|space              writes to /etc succeed, fail (EROFS, ENOSPC)\n"
    "GPU is a gpu id as in the dump; numbers may be decimal or 0x hexadecimal.\n";

namespace {

bool U64(const std::string& text, uint64_t* v) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  errno = 0;
  char* end = nullptr;
  *v = std::strtoull(text.c_str(), &end, 0);
  return errno == 0 && *end == '\0';
}

bool U32(const std::string& text, uint32_t* v) {
  uint64_t w = 0;
  if (!U64(text, &w) || w > 0xffffffffu) return false;
  *v = static_cast<uint32_t>(w);
  return true;
}

bool I32(const std::string& text, int32_t* v) {
  errno = 0;
  char* end = nullptr;
  long long w = std::strtoll(text.c_str(), &end, 0);
  if (text.empty() || errno != 0 || *end != '\0' || w < INT32_MIN || w > INT32_MAX) return false;
  *v = static_cast<int32_t>(w);
  return true;
}

struct ErrnoName {
  const char* name;
  int value;
};

const ErrnoName kErrnos[] = {
    {"EPERM", EPERM},   {"ENOENT", ENOENT},     {"EINTR", EINTR},
    {"EIO", EIO},       {"ENXIO", ENXIO},       {"E2BIG", E2BIG},
    {"EBADF", EBADF},   {"EAGAIN", EAGAIN},     {"ENOMEM", ENOMEM},
    {"EACCES", EACCES}, {"EFAULT", EFAULT},     {"EBUSY", EBUSY},
    {"EEXIST", EEXIST}, {"ENODEV", ENODEV},     {"EINVAL", EINVAL},
    {"ENOSPC", ENOSPC}, {"ENOTTY", ENOTTY},     {"EROFS", EROFS},
    {"ERANGE", ERANGE}, {"ENOSYS", ENOSYS},     {"ETIMEDOUT", ETIMEDOUT},
    {"ECONNREFUSED", ECONNREFUSED}, {"EOPNOTSUPP", EOPNOTSUPP},
};

}  // namespace

int ParseErrno(const std::string& text) {
  for (const auto& e : kErrnos) {
    if (text == e.name) return e.value;
  }
  uint32_t v = 0;
  return U32(text, &v) && v > 0 && v < 4096 ? static_cast<int>(v) : -1;
}

int RunControl(const std::vector<std::string>& args, World* w, std::string* out) {
  auto usage = [&]() {
    *out += kControlUsage;
    return 2;
  };
  auto result = [&](const std::string& error) {
    if (error.empty()) return 0;
    *out += "vdx-sim ctl: " + error + "\n";
    return 1;
  };
  if (args.empty()) return usage();
  const std::string& cmd = args[0];
  size_t n = args.size();
  uint32_t gpu = 0, vgpu = 0, count = 0;
  uint64_t bytes = 0;

  if (cmd == "help") {
    *out += kControlUsage;
    return 0;
  }
  if (cmd == "dump" && n == 1) {
    *out += "system_mode " + std::to_string(w->service->system_mode()) + "\n";
    *out += "module " + w->module_state + "\n";
    *out += "service " + w->service->Describe() + "\n";
    if (w->etc != nullptr) *out += "etc " + w->etc->Describe() + "\n";
    *out += w->driver->Dump();
    return 0;
  }
  if (cmd == "busy" && n >= 3 && n <= 10 && U32(args[1], &gpu)) {
    Words words{};
    for (size_t i = 2; i < n; ++i) {
      if (!U32(args[i], &words[i - 2])) return usage();
    }
    return result(w->driver->SetBusy(gpu, words));
  }
  if (cmd == "usage" && n == 4 && U32(args[1], &gpu) && U32(args[2], &vgpu) && U64(args[3], &bytes)) {
    return result(w->driver->SetInstanceUsage(gpu, vgpu, bytes));
  }
  if (cmd == "refcount" && n == 4 && U32(args[1], &gpu) && U32(args[2], &vgpu) &&
      U32(args[3], &count)) {
    return result(w->driver->SetInstanceRefcount(gpu, vgpu, count));
  }
  uint64_t ident = 0;
  if (cmd == "group-usage" && n == 4 && U64(args[1], &ident) && U32(args[2], &gpu) &&
      U64(args[3], &bytes)) {
    return result(w->driver->SetGroupUsage(ident, gpu, bytes));
  }
  if (cmd == "group-refcount" && n == 3 && U64(args[1], &ident) && U32(args[2], &count)) {
    return result(w->driver->SetGroupRefcount(ident, count));
  }
  if (cmd == "available" && n == 3 && U32(args[1], &gpu)) {
    if (args[2] == "auto") return result(w->driver->SetAvailable(gpu, std::nullopt));
    if (!U64(args[2], &bytes)) return usage();
    return result(w->driver->SetAvailable(gpu, bytes));
  }
  if (cmd == "codec" && (n == 4 || n == 5) && U32(args[1], &gpu) &&
      (args[2] == "dec" || args[2] == "enc")) {
    uint32_t busy = 0, total = 0;
    if (!U32(args[3], &busy) || busy > 0xffff) return usage();
    std::optional<uint16_t> new_total;
    if (n == 5) {
      if (!U32(args[4], &total) || total > 0xffff) return usage();
      new_total = static_cast<uint16_t>(total);
    }
    return result(w->driver->SetCodec(gpu, args[2] == "dec", static_cast<uint16_t>(busy), new_total));
  }
  uint32_t vmid = 0, pasid = 0;
  if (cmd == "pasid" && n == 4 && U32(args[1], &gpu) && U32(args[2], &vmid) &&
      U32(args[3], &pasid) && pasid <= 0xffff) {
    return result(w->driver->SetPasid(gpu, vmid, static_cast<uint16_t>(pasid)));
  }
  if (cmd == "system-mode" && n == 2) {
    int32_t mode = 0;
    if (args[1] == "none") {
      mode = 0;
    } else if (args[1] == "mig") {
      mode = 1;
    } else if (!I32(args[1], &mode)) {
      return usage();
    }
    w->service->set_system_mode(mode);
    return 0;
  }
  int32_t pid = 0;
  if (cmd == "process" && n == 3 && args[2] == "clear" && I32(args[1], &pid)) {
    w->service->ClearProcess(pid);
    return 0;
  }
  if (cmd == "process" && n == 5 && I32(args[1], &pid)) {
    std::array<int32_t, 3> info{};
    for (size_t i = 0; i < 3; ++i) {
      if (!I32(args[2 + i], &info[i])) return usage();
    }
    w->service->SetProcess(pid, info);
    return 0;
  }
  if (cmd == "module" && n == 2) {
    std::string error = w->sysfs->SetModuleState(args[1]);
    if (error.empty()) w->module_state = args[1];
    return result(error);
  }
  if (cmd == "service" && n >= 2) {
    const std::string& mode = args[1];
    int32_t status = 0;
    if (mode == "stop" && n == 2) {
      w->service->Stop();
      return 0;
    }
    if (mode == "start" && n == 2) return result(w->service->Start());
    if (mode == "restart" && n == 2) {
      w->service->Stop();
      return result(w->service->Start());
    }
    if (mode == "normal" && n == 2) {
      w->service->SetMode(ServiceMode::kNormal);
    } else if (mode == "error" && n == 3 && I32(args[2], &status)) {
      w->service->SetMode(ServiceMode::kError, status);
    } else if (mode == "wrong-type" && (n == 2 || (n == 3 && I32(args[2], &status)))) {
      if (status < -32768 || status > 32767) return usage();
      w->service->SetMode(ServiceMode::kWrongType, 0, static_cast<int16_t>(status));
    } else if (mode == "trickle" && n == 2) {
      w->service->SetMode(ServiceMode::kTrickle);
    } else if (mode == "disconnect" && n == 2) {
      w->service->SetMode(ServiceMode::kDisconnect);
    } else {
      return usage();
    }
    return 0;
  }
  if (cmd == "fault" && n == 2 && args[1] == "clear") {
    w->driver->ClearFaults();
    return 0;
  }
  if (cmd == "fault" && (n == 3 || n == 4)) {
    int err = ParseErrno(args[2]);
    count = 1;
    if (err < 0 || (n == 4 && !U32(args[3], &count))) return usage();
    return result(w->driver->InjectFault(args[1], err, count));
  }
  if (cmd == "inherited" && n == 2 && (args[1] == "share" || args[1] == "ebadf")) {
    w->driver->set_inherited_usable(args[1] == "share");
    return 0;
  }
  if (cmd == "etc" && n == 2) {
    if (w->etc == nullptr) return result("no configuration store in this world");
    return result(w->etc->Set(args[1]));
  }
  return usage();
}

}  // namespace vdxsim
