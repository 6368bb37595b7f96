// The process-wide logger and the four log statements every message goes through.
// Thread-safe: one whole message is written under one lock; the level is read unlocked.
#ifndef ZOVDX_UTILS_LOGGER_H_
#define ZOVDX_UTILS_LOGGER_H_

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

namespace utils {

// A fixed underlying type: levels arrive as numbers from the environment, and any int must
// be a value of the type so that an unknown one can be mapped instead of being undefined.
enum LogLevel : int {
  kLogNone = 0,
  kLogError = 1,
  kLogWarning = 2,
  kLogInfo = 3,
  kLogDebug = 4,
  kLogTrace = 5,  // as debug, with the source file and line in front of each message
  kLogEnd = 6,    // end marker, never a valid level
};

// The one table of the levels' names, by number.
inline constexpr const char* kLogLevelNames[kLogEnd] = {"none",  "error", "warning",
                                                        "info",  "debug", "trace"};
// The name of a level by number; "unknown" for a number that is not one.
inline const char* LogLevelName(int level) {
  return level >= 0 && level < kLogEnd ? kLogLevelNames[level] : "unknown";
}
// The level a name stands for; false for a text that names none.
inline bool LogLevelFromName(const std::string& name, LogLevel* level) {
  for (int l = kLogNone; l < kLogEnd; ++l) {
    if (name == kLogLevelNames[l]) {
      *level = static_cast<LogLevel>(l);
      return true;
    }
  }
  return false;
}

class Logger {
 public:
  static Logger& GetInstance();

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // kLogError and out-of-range values store kLogInfo: there is deliberately no way to
  // show errors alone.
  void SetLogLevel(const LogLevel& level);
  // "warning", "info", "debug", "trace", "none"; anything else (also "error") is kLogInfo.
  void SetLogLevel(const std::string& name);
  LogLevel GetLogLevel() const { return log_level_.load(std::memory_order_relaxed); }

  // Opens (truncates) a file that receives a copy of every message. An empty path does
  // nothing; on failure a warning is logged and the logger stays without a file.
  void SetLogFile(const std::string& path);

  void Write(LogLevel level, const char* format, ...) __attribute__((format(printf, 3, 4)));
  void Write(LogLevel level, const char* format, va_list args)
      __attribute__((format(printf, 3, 0)));

  // Local time as 2024-03-07_14-05-09.
  static std::string GetSystemTime();

 private:
  Logger() = default;
  ~Logger();

  FILE* log_file_fp_ = nullptr;
  std::atomic<LogLevel> log_level_{kLogInfo};
  std::mutex access_lock_;
};

LogLevel GetLogLevel();
void SetLogLevel(const LogLevel& level);
void SetLogLevel(const std::string& name);
void SetLogFile(const std::string& path);

// Adds "[local time with milliseconds] " in front of every message but information ones.
void Print(LogLevel level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// The message is used as a format: a "%" in it is interpreted.
void Print(LogLevel level, const std::string& message);

}  // namespace utils

// The four log statements. The format must be a string literal; at trace level the
// source file and line are put in front of it.
#define ZOVDX_LOG_AT_(level, format, ...)                                            \
  do {                                                                               \
    const ::utils::LogLevel zovdx_current_level_ = ::utils::GetLogLevel();           \
    if (zovdx_current_level_ >= (level)) {                                           \
      if (zovdx_current_level_ < ::utils::kLogTrace)                                 \
        ::utils::Print((level), format, ##__VA_ARGS__);                              \
      else                                                                           \
        ::utils::Print((level), "[%s : %d] " format, __FILE__, __LINE__, ##__VA_ARGS__); \
    }                                                                                \
  } while (0)

#define LOG_ERROR(format, ...) ZOVDX_LOG_AT_(::utils::kLogError, format, ##__VA_ARGS__)
#define LOG_WARNING(format, ...) ZOVDX_LOG_AT_(::utils::kLogWarning, format, ##__VA_ARGS__)
#define LOG_INFO(format, ...) ZOVDX_LOG_AT_(::utils::kLogInfo, format, ##__VA_ARGS__)
#define LOG_DEBUG(format, ...) ZOVDX_LOG_AT_(::utils::kLogDebug, format, ##__VA_ARGS__)

#endif  // ZOVDX_UTILS_LOGGER_H_
