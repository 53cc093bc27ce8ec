#include "common/chrono.h"

#include <chrono>
#include <gtest/gtest.h>

namespace {

TEST(CheckIntervalTest, IntervalsCountFromTheLastCheckpoint) {
  constexpr std::int64_t hour_ms = 3'600'000;
  CheckInterval interval;
  EXPECT_TRUE(interval.IsPassed(hour_ms));
  const auto begin = std::chrono::steady_clock::now();
  interval.SetCheckPoint();
  EXPECT_TRUE(interval.IsPassed(0));
  EXPECT_FALSE(interval.IsPassed(hour_ms));
  while (!interval.IsPassed(20)) {
  }
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));
}

}  // namespace
