#include "utils/path.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace utils {
namespace {

bool StatMode(const std::string& path, mode_t* mode) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  *mode = st.st_mode;
  return true;
}

std::string LastComponent(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

bool Path::IsPathExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

bool Path::IsDirectory(const std::string& path) {
  mode_t mode;
  return StatMode(path, &mode) && S_ISDIR(mode);
}

bool Path::IsNormalFile(const std::string& path) {
  mode_t mode;
  return StatMode(path, &mode) && S_ISREG(mode);
}

BoolStrSet Path::GetExtension(const std::string& path) {
  if (path.empty()) return {false, ""};
  if (path.back() == '/') return {true, ""};
  const std::string name = LastComponent(path);
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos) return {true, ""};
  return {true, name.substr(dot + 1)};
}

BoolStrSet Path::GetLastName(const std::string& path) {
  if (path.empty()) return {false, ""};
  if (path.back() == '/') return {true, ""};
  return {true, LastComponent(path)};
}

BoolStrSet Path::GetParentPath(const std::string& path) {
  if (path.empty()) return {false, ""};
  // The root has no text before its slash; it is its own parent.
  if (path == "/") return {true, "/"};
  std::string work = path;
  if (work.back() == '/') work.pop_back();
  const size_t slash = work.rfind('/');
  // A bare name says nothing about where it lives.
  if (slash == std::string::npos) return {false, ""};
  return {true, work.substr(0, slash)};
}

BoolStrSet Path::GetAbsolutePath(const std::string& path) {
  char resolved[PATH_MAX];
  if (path.empty() || realpath(path.c_str(), resolved) == nullptr) return {false, ""};
  return {true, resolved};
}

std::string Path::GetCurrentPath() {
  char buffer[1024];
  if (getcwd(buffer, sizeof(buffer)) == nullptr) return "";
  return buffer;
}

}  // namespace utils
