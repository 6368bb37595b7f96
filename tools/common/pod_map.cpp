#include "tools/common/pod_map.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

namespace vdxtool {

namespace {

constexpr off_t kMaxBytes = 64 * 1024;
constexpr time_t kFreshSeconds = 30;

// Tabs and line ends would break the format; no Kubernetes name holds them.
bool Clean(const std::string& field) {
  return !field.empty() && field.find_first_of("\t\n\r") == std::string::npos;
}

}  // namespace

std::string FormatPodMap(const PodMap& pods) {
  std::string text;
  for (const auto& [vdev, ref] : pods) {
    if (!Clean(ref.namespace_name) || !Clean(ref.pod) || !Clean(ref.container)) continue;
    text += "vdev" + std::to_string(vdev) + "\t" + ref.namespace_name + "\t" + ref.pod + "\t" +
            ref.container + "\n";
  }
  return text;
}

PodMap ParsePodMap(const std::string& text) {
  PodMap pods;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string id, ns, pod, container, extra;
    if (!std::getline(fields, id, '\t') || !std::getline(fields, ns, '\t') ||
        !std::getline(fields, pod, '\t') || !std::getline(fields, container, '\t') ||
        std::getline(fields, extra, '\t'))
      continue;
    if (id.size() < 5 || id.size() > 6 || id.compare(0, 4, "vdev") != 0 ||
        id.find_first_not_of("0123456789", 4) != std::string::npos)
      continue;
    const int vdev = std::stoi(id.substr(4));
    if (vdev > 31 || !Clean(ns) || !Clean(pod) || !Clean(container)) continue;
    pods[vdev] = {ns, pod, container};
  }
  return pods;
}

bool WritePodMap(const std::string& path, const PodMap& pods, std::string* error) {
  const std::string temporary = path + ".tmp";
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd < 0) {
    *error = "cannot write " + temporary + ": " + strerror(errno);
    return false;
  }
  const std::string text = FormatPodMap(pods);
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                       fchmod(fd, 0644) == 0;
  const int saved = errno;
  close(fd);
  if (!written || rename(temporary.c_str(), path.c_str()) != 0) {
    *error = "cannot replace " + path + ": " + strerror(written ? errno : saved);
    unlink(temporary.c_str());
    return false;
  }
  return true;
}

PodMap ReadPodMap(const std::string& path, std::string* why) {
  why->clear();
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    if (errno != ENOENT) *why = path + ": " + strerror(errno);
    return {};
  }
  struct stat st;
  std::string text;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != 0 ||
      (st.st_mode & (S_IWGRP | S_IWOTH)) != 0 || st.st_size > kMaxBytes) {
    *why = path + " is not a regular file of root's, writable by root alone, of at most 64 KiB";
  } else if (time(nullptr) - st.st_mtime > kFreshSeconds) {
    *why = path + " is older than " + std::to_string(kFreshSeconds) +
           " seconds: the device plugin that wrote it is gone";
  } else {
    text.resize(static_cast<size_t>(st.st_size));
    const ssize_t n = read(fd, &text[0], text.size());
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
  }
  close(fd);
  return why->empty() ? ParsePodMap(text) : PodMap{};
}

}  // namespace vdxtool
