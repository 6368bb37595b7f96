// The logger: levels, streams, prefixes, the log file and whole messages under threads.
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/utils/test_support.h"
#include "utils/logger.h"

namespace {

using testing_support::LogOutput;
using testing_support::ReadFile;
using testing_support::ScratchDir;

const char kStamp[] = R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] )";
const char kRedWarning[] = "\033[31mWarning\033[0m: ";

// The level is the test's own business here: capture without touching it.
template <typename Body>
LogOutput Capture(Body body) {
  return testing_support::CaptureLog(nullptr, body);
}

class LoggerTest : public testing::Test {
 protected:
  void SetUp() override { utils::SetLogLevel(utils::kLogInfo); }
  void TearDown() override { utils::SetLogLevel(utils::kLogInfo); }
};

TEST_F(LoggerTest, LevelsFilterMessages) {
  utils::SetLogLevel("warning");
  LogOutput c = Capture([] {
    LOG_INFO("info\n");
    LOG_WARNING("warning\n");
    LOG_ERROR("error\n");
  });
  EXPECT_EQ(c.out.find("info"), std::string::npos);
  EXPECT_NE(c.out.find("warning"), std::string::npos);
  EXPECT_NE(c.err.find("error"), std::string::npos);

  utils::SetLogLevel("none");
  c = Capture([] {
    LOG_ERROR("error\n");
    LOG_WARNING("warning\n");
    utils::Print(utils::kLogError, "printed error\n");
  });
  EXPECT_EQ(c.out + c.err, "");

  utils::SetLogLevel("debug");
  c = Capture([] { LOG_DEBUG("[%s] count: %d\n", "dmkfdGetNodeCount", 2); });
  EXPECT_TRUE(std::regex_match(c.out, std::regex(std::string(kStamp) +
                                                 "\\[dmkfdGetNodeCount\\] count: 2\n")))
      << c.out;
}

TEST_F(LoggerTest, TraceAddsTheSourceFileAndLine) {
  utils::SetLogLevel("trace");
  int line = 0;
  const LogOutput c = Capture([&] {
    line = __LINE__ + 1;
    LOG_ERROR("[%s] lost\n", "f");
    LOG_WARNING("[%s] warn\n", "f");
    LOG_INFO("[%s] note\n", "f");
  });
  const std::string where = "\\[tests/utils/logger_test\\.cpp : ";
  EXPECT_TRUE(std::regex_match(c.err, std::regex(std::string("\033\\[31mError\033\\[0m: ") + kStamp +
                                                 where + std::to_string(line) + "\\] \\[f\\] lost\n")))
      << c.err;
  EXPECT_TRUE(std::regex_match(
      c.out, std::regex(std::string("\033\\[31mWarning\033\\[0m: ") + kStamp + where +
                        std::to_string(line + 1) + "\\] \\[f\\] warn\n" + where +
                        std::to_string(line + 2) + "\\] \\[f\\] note\n")))
      << c.out;
}

TEST_F(LoggerTest, ConcurrentMessagesNeverInterleave) {
  ScratchDir dir;
  const std::string path = dir / "threads.log";
  constexpr int kThreads = 8;
  constexpr int kMessages = 200;
  Capture([&] {
    utils::SetLogFile(path);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([t] {
        const std::string body(300, static_cast<char>('a' + t));
        for (int i = 0; i < kMessages; ++i) {
          if (i % 2)
            LOG_WARNING("<%d:%d:%s>\n", t, i, body.c_str());
          else
            LOG_INFO("<%d:%d:%s>\n", t, i, body.c_str());
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    utils::SetLogFile(dir / "after.log");
  });
  std::istringstream lines(ReadFile(path));
  const std::regex whole(R"(\[[^\]]+\] ()" + std::string("\033\\[31mWarning\033\\[0m: ") +
                         kStamp + R"()?<(\d):(\d+):([a-h])\4{299}>)");
  int count = 0;
  std::string line;
  while (std::getline(lines, line)) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, whole)) << "torn line: " << line;
    EXPECT_EQ(m[4].str()[0], 'a' + std::stoi(m[2].str()));
    ++count;
  }
  EXPECT_EQ(count, kThreads * kMessages);
}

}  // namespace
