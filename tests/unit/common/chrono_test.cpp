#include "common/chrono.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>

#include "common/chronolog.h"
#include "common/log.h"

namespace {

constexpr std::int64_t kHourMs = 3'600'000;

// Keeps the last message; the process's logger while it lives.
class LastMessageLog : public ILog {
 public:
  LastMessageLog() { logger = this; }
  ~LastMessageLog() { logger = nullptr; }
  void SetLevel(LOGLEVEL) override {}
  LOGLEVEL GetLevel() override { return LOGLEVEL_ALL; }
  void Write(LOGLEVEL message_level, const char* format, va_list arguments) override {
    std::array<char, 256> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    message = text.data();
    level = message_level;
  }

  std::string message;
  LOGLEVEL level{};
};

TEST(ChronoTest, CountsMillisecondsSinceTheLastReset) {
  using std::chrono::milliseconds;
  using std::chrono::steady_clock;
  Chrono chrono;
  const auto begin = steady_clock::now();
  while (chrono.elapsed() < 30) {
  }
  const auto real = steady_clock::now() - begin;
  EXPECT_GE(real, milliseconds(29));
  chrono.reset();
  const auto reset = steady_clock::now();
  const std::int64_t elapsed = chrono.elapsed();
  EXPECT_GE(elapsed, 0);
  EXPECT_LE(milliseconds(elapsed), steady_clock::now() - reset + milliseconds(1));
}

TEST(ChronoTest, IntervalsCountFromTheCheckpointOnly) {
  CheckInterval interval;
  EXPECT_TRUE(interval.IsPassed(kHourMs));
  interval.SetCheckPoint();
  EXPECT_TRUE(interval.IsPassed(0));
  EXPECT_FALSE(interval.IsPassed(kHourMs));
  while (!interval.IsPassed(5)) {
  }
  EXPECT_GE(interval.elapsed(), 5);
  interval.SetCheckPoint();
  EXPECT_FALSE(interval.IsPassed(kHourMs));
}

TEST(ChronoTest, ABlockReportsItsTimeWhenItEnds) {
  { const ChronoLog silent("without a logger"); }
  LastMessageLog log;
  {
    std::string label = "100%s";
    const ChronoLog block(label);
    label = "another";
    EXPECT_EQ(log.message, "");
  }
  long long elapsed = -1;
  ASSERT_EQ(std::sscanf(log.message.c_str(), "100%%s : %lldms", &elapsed), 1) << log.message;
  EXPECT_EQ(log.message, "100%s : " + std::to_string(elapsed) + "ms");
  EXPECT_EQ(log.level, 0x402);
}

}  // namespace
