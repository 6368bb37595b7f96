#include "utils/logger.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>

#include "utils/utils.h"

namespace utils {
namespace {

constexpr const char kErrorPrefix[] = "\033[31mError\033[0m: ";
constexpr const char kWarningPrefix[] = "\033[31mWarning\033[0m: ";

std::string GetCurrentTimeString() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  const long long ns = std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch).count();
  const time_t seconds = static_cast<time_t>(ns / 1000000000LL);
  const int millis = static_cast<int>((ns / 1000000LL) % 1000);
  struct tm local;
  localtime_r(&seconds, &local);
  char text[64];
  const size_t n = strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
  snprintf(text + n, sizeof(text) - n, ".%03d", millis);
  return text;
}

}  // namespace

Logger& Logger::GetInstance() {
  static Logger instance;
  return instance;
}

Logger::~Logger() {
  if (log_file_fp_ != nullptr) fclose(log_file_fp_);
}

void Logger::SetLogLevel(const LogLevel& level) {
  switch (level) {
    case kLogNone:
    case kLogWarning:
    case kLogInfo:
    case kLogDebug:
    case kLogTrace:
      log_level_ = level;
      break;
    default:
      log_level_ = kLogInfo;
      break;
  }
}

void Logger::SetLogLevel(const std::string& name) {
  LogLevel level = kLogInfo;
  // "error" names a level that callers cannot choose: it stores info, like any other text.
  if (!LogLevelFromName(name, &level) || level == kLogError) level = kLogInfo;
  log_level_ = level;
}

void Logger::SetLogFile(const std::string& path) {
  if (path.empty()) return;
  {
    std::lock_guard<std::mutex> guard(access_lock_);
    if (log_file_fp_ != nullptr) {
      fclose(log_file_fp_);
      log_file_fp_ = nullptr;
    }
    log_file_fp_ = fopen(path.c_str(), "we");
    if (log_file_fp_ != nullptr) return;
  }
  const int saved = errno;
  Write(kLogWarning, "Open file: %s\n", ErrnoMessage(saved).c_str());
}

std::string Logger::GetSystemTime() {
  const time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char text[64];
  snprintf(text, sizeof(text), "%04d-%02d-%02d_%02d-%02d-%02d", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

void Logger::Write(LogLevel level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Write(level, format, args);
  va_end(args);
}

void Logger::Write(LogLevel level, const char* format, va_list args) {
  if (static_cast<int>(GetLogLevel()) < static_cast<int>(level)) return;
  const char* prefix = "";
  FILE* console = stdout;
  if (level == kLogError) {
    prefix = kErrorPrefix;
    console = stderr;
  } else if (level == kLogWarning) {
    prefix = kWarningPrefix;
  }

  std::lock_guard<std::mutex> guard(access_lock_);
  if (log_file_fp_ != nullptr) {
    fprintf(log_file_fp_, "[%s] %s", GetSystemTime().c_str(), prefix);
    va_list file_args;
    va_copy(file_args, args);
    vfprintf(log_file_fp_, format, file_args);
    va_end(file_args);
    fflush(log_file_fp_);
  }
  fputs(prefix, console);
  va_list console_args;
  va_copy(console_args, args);
  vfprintf(console, format, console_args);
  va_end(console_args);
  fflush(console);
}

LogLevel GetLogLevel() { return Logger::GetInstance().GetLogLevel(); }
void SetLogLevel(const LogLevel& level) { Logger::GetInstance().SetLogLevel(level); }
void SetLogLevel(const std::string& name) { Logger::GetInstance().SetLogLevel(name); }
void SetLogFile(const std::string& path) { Logger::GetInstance().SetLogFile(path); }

// The composed formats below are built at run time from the caller's literal, which the
// log statements have already checked.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

void Print(LogLevel level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (level == kLogInfo) {
    Logger::GetInstance().Write(kLogInfo, format, args);
  } else {
    const std::string stamped = "[" + GetCurrentTimeString() + "] " + format;
    Logger::GetInstance().Write(level, stamped.c_str(), args);
  }
  va_end(args);
}

void Print(LogLevel level, const std::string& message) {
  if (level == kLogInfo) {
    Logger::GetInstance().Write(kLogInfo, message.c_str());
  } else {
    const std::string stamped = "[" + GetCurrentTimeString() + "] " + message;
    Logger::GetInstance().Write(level, stamped.c_str());
  }
}

#pragma GCC diagnostic pop

}  // namespace utils
