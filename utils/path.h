// Static queries on file-system paths. The BoolStrSet flag says whether the query could be
// answered; the string is the answer.
#ifndef ZOVDX_UTILS_PATH_H_
#define ZOVDX_UTILS_PATH_H_

#include <string>
#include <tuple>

using BoolStrSet = std::tuple<bool, std::string>;
using BoolsSet = std::tuple<bool, bool>;

namespace utils {

class Path {
 public:
  Path() = delete;

  static bool IsPathExists(const std::string& path);
  static bool IsDirectory(const std::string& path);   // follows links
  static bool IsNormalFile(const std::string& path);  // follows links

  // Text after the last dot of the last component; "" for a trailing slash or no dot.
  static BoolStrSet GetExtension(const std::string& path);
  // Text after the last slash (the whole path without one); "" for a trailing slash.
  static BoolStrSet GetLastName(const std::string& path);
  // Text before the last slash, a trailing slash disregarded ("/a/b/" gives "/a", "/a"
  // gives ""). The root gives "/"; an empty path or a name without a slash gives false.
  static BoolStrSet GetParentPath(const std::string& path);
  // realpath of an existing path; false and "" when it cannot be resolved.
  static BoolStrSet GetAbsolutePath(const std::string& path);
  static std::string GetCurrentPath();
};

}  // namespace utils

#endif  // ZOVDX_UTILS_PATH_H_
