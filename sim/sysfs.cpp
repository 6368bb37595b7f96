#include "sim/sysfs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vdxsim {
namespace {

bool MakeDirs(const std::string& path) {
  for (size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos != path.size() && path[pos] != '/') continue;
    std::string part = path.substr(0, pos);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

std::string PropertyText(const std::vector<Property>& props) {
  std::string text;
  for (const auto& p : props) {
    text += p.key + " " + std::to_string(p.value) + "\n";
  }
  return text;
}

std::string Hex(uint64_t v) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "%llx", static_cast<unsigned long long>(v));
  return buf;
}

}  // namespace

bool Sysfs::WriteFile(const std::string& path, const std::string& text) {
  std::string staging = root_ + "/sys/devices/virtual/.vdx-sim";
  if (path.compare(0, KfdDir().size(), KfdDir()) != 0) {
    // Outside the kfd tree (the module state) nothing lists directories: write in place.
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0444);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
  }
  if (!MakeDirs(staging)) return false;
  std::string tmp = staging + "/" + std::to_string(++staging_seq_);
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0444);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  if (ok && rename(tmp.c_str(), path.c_str()) == 0) return true;
  unlink(tmp.c_str());
  return false;
}

std::string Sysfs::Publish(const Machine& machine) {
  std::string nodes = KfdDir() + "/topology/nodes";
  if (!MakeDirs(nodes) || !MakeDirs(KfdDir() + "/vgpu") || !MakeDirs(KfdDir() + "/group")) {
    return "cannot create " + KfdDir() + ": " + std::strerror(errno);
  }
  bool ok = WriteFile(KfdDir() + "/topology/generation_id", "1\n") &&
            WriteFile(KfdDir() + "/topology/system_properties",
                      "platform_oem 0\nplatform_id 0\nplatform_rev 0\n");
  for (size_t n = 0; ok && n < machine.nodes.size(); ++n) {
    const Node& node = machine.nodes[n];
    std::string dir = nodes + "/" + std::to_string(n);
    ok = MakeDirs(dir + "/mem_banks") &&
         WriteFile(dir + "/gpu_id", std::to_string(node.gpu_id) + "\n") &&
         WriteFile(dir + "/properties", PropertyText(node.props)) &&
         WriteFile(dir + "/name", node.IsGpu() ? "zocu\n" : "cpu\n");
    for (size_t b = 0; ok && b < node.banks.size(); ++b) {
      std::string bank = dir + "/mem_banks/" + std::to_string(b);
      ok = MakeDirs(bank) && WriteFile(bank + "/properties", PropertyText(node.banks[b].props));
    }
  }
  if (!ok) return "cannot write the topology under " + nodes + ": " + std::strerror(errno);
  return SetModuleState(machine.module_state);
}

std::string Sysfs::SetModuleState(const std::string& state) {
  std::string file = ModuleDir() + "/initstate";
  if (state == "absent") {
    if (unlink(file.c_str()) != 0 && errno != ENOENT) return std::strerror(errno);
    rmdir(ModuleDir().c_str());
    return "";
  }
  if (!MakeDirs(ModuleDir()) || !WriteFile(file, state + "\n")) {
    return "cannot write " + file + ": " + std::strerror(errno);
  }
  return "";
}

std::string Sysfs::GroupEntry(const Group& group) {
  // The reader takes the third blank-separated token of these two lines.
  return "Group Indentifier: 0x" + Hex(group.indentifier) + "\n" +
         "Group Id: " + std::to_string(group.group_id) + "\n" +
         "Reference Count: " + std::to_string(group.refcount) + "\n" +
         "Vram Limit: " + std::to_string(group.vram_limit) + "\n";
}

void Sysfs::SyncDir(const std::string& dir, const std::map<std::string, std::string>& want,
                    std::map<std::string, std::string>* have, bool as_entry_dir) {
  for (auto it = have->begin(); it != have->end();) {
    if (want.count(it->first)) {
      ++it;
      continue;
    }
    std::string path = dir + "/" + it->first;
    if (as_entry_dir) {
      unlink((path + "/entry").c_str());
      rmdir(path.c_str());
    } else {
      unlink(path.c_str());
    }
    it = have->erase(it);
  }
  for (const auto& [name, text] : want) {
    auto it = have->find(name);
    if (it != have->end() && it->second == text) continue;
    std::string path = dir + "/" + name;
    bool ok = as_entry_dir ? MakeDirs(path) && WriteFile(path + "/entry", text)
                           : WriteFile(path, text);
    if (ok) (*have)[name] = text;
  }
}

void Sysfs::Sync(const Driver& driver) {
  std::map<std::string, std::string> vgpus, groups;
  for (const auto& [key, inst] : driver.instances()) {
    vgpus[std::to_string(inst.gpu_id) + "_" + std::to_string(inst.vgpu_id)] =
        "gpu_id " + std::to_string(inst.gpu_id) + "\nvgpu_id " + std::to_string(inst.vgpu_id) +
        "\ngroup_id " + std::to_string(inst.group_id) + "\nindentifier " +
        std::to_string(inst.indentifier) + "\nvram_limit " + std::to_string(inst.vram_limit) +
        "\nvram_usage " + std::to_string(inst.vram_usage) + "\nrefcount " +
        std::to_string(inst.refcount) + "\n";
  }
  for (const auto& [ident, group] : driver.groups()) groups[Hex(ident)] = GroupEntry(group);
  SyncDir(KfdDir() + "/vgpu", vgpus, &vgpu_files_, false);
  SyncDir(KfdDir() + "/group", groups, &group_files_, true);
}

}  // namespace vdxsim
