// The per-user flag that says whether the virtual machine a caller manages runs with
// encrypted memory: one line in ~/.zocu/encryp.conf of the real user. These two methods use
// none of the manager's state and take no lock, so they work before, without and after a
// failed start-up of the manager.
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "utils/file.h"
#include "utils/logger.h"
#include "utils/scoped.h"
#include "utils/utils.h"
#include "virtual/dmvirtual_labels.h"
#include "virtual/include/dmvirtual.h"

namespace {

constexpr char kFlagDirName[] = ".zocu";
constexpr char kFlagFileName[] = "encryp.conf";

// The flag's directory in the real user's home, or "" when the user has no home entry.
std::string FlagDirectory() {
  const struct passwd* entry = getpwuid(getuid());
  if (entry == nullptr || entry->pw_dir == nullptr) return "";
  return std::string(entry->pw_dir) + "/" + kFlagDirName;
}

}  // namespace

vdxStatus Dmvirtual::SetEncryptedVMStatus(bool status) {
  const std::string directory = FlagDirectory();
  if (directory.empty()) {
    LOG_DEBUG("[%s] %s: get home dir failed.\n", __func__, kLabelError);
    return VDX_STATUS_ERROR;
  }
  const std::string text = StrFormat("encryption: %d\n", status ? 1 : 0);
  if (!WriteTextFile(directory, kFlagFileName, text, false)) {
    LOG_DEBUG("[%s] %s: write text file %s to dir %s failed.\n", __func__, kLabelError,
              kFlagFileName, directory.c_str());
    return VDX_STATUS_ERROR;
  }
  return VDX_STATUS_SUCCESS;
}

vdxStatus Dmvirtual::GetEncryptedVMStatus(bool* status) {
  const std::string directory = FlagDirectory();
  if (directory.empty()) {
    LOG_DEBUG("[%s] %s: get home dir failed.\n", __func__, kLabelError);
    return VDX_STATUS_ERROR;
  }
  if (!IsDirectoryExist(directory)) {
    LOG_DEBUG("[%s] The directory %s is not exist.\n", __func__, directory.c_str());
    *status = false;
    return VDX_STATUS_SUCCESS;
  }
  const std::string path = directory + "/" + kFlagFileName;
  if (!IsFileExist(path)) {
    LOG_DEBUG("[%s] The file %s is not exist.\n", __func__, path.c_str());
    *status = false;
    return VDX_STATUS_SUCCESS;
  }
  utils::FileHandle stream(fopen(path.c_str(), "re"));
  if (!stream) {
    // A flag nobody can read is no evidence of encryption: not encrypted, not an error.
    LOG_DEBUG("[%s] %s: failed to open file '%s' - %s.\n", __func__, kLabelError, path.c_str(),
              ErrnoMessage(errno).c_str());
    *status = false;
    return VDX_STATUS_SUCCESS;
  }
  ForEachLine(stream.get(), [status](const std::string& line) {
    std::vector<std::string> parts;
    SplitStr(line, " ", parts, true);
    // at(): the key without a value is a range error, which the exported function reports.
    if (line.find("encryption:") != std::string::npos)
      *status = strtoull(parts.at(1).c_str(), nullptr, 0) != 0;
    return true;
  });
  return VDX_STATUS_SUCCESS;
}
