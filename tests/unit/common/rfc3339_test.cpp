#include "common/rfc3339.h"

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace {

constexpr const char* kText = "2015-10-03T12:30:15.500+09:00";
constexpr time_t kTime = 1443875415;  // the fields of kText in UTC
constexpr time_t kHour = 3600;

// With the offset of the standard time.
constexpr std::pair<const char*, time_t> kZones[] = {{"UTC0", 0},
                                                     {"CET-1CEST,M3.5.0,M10.5.0/3", kHour},
                                                     {"EST5EDT,M3.2.0,M11.1.0", -5 * kHour},
                                                     {"IST-5:30", 5 * kHour + kHour / 2}};

TEST(Rfc3339Test, TextsAndTimesConvertInEveryZone) {
  tm local{};
  for (const auto& [zone, offset] : kZones) {
    ::setenv("TZ", zone, 1);
    ::tzset();
    EXPECT_EQ(RFC3339ToTM(kText), kTime - offset) << zone;
    EXPECT_EQ(RFC3339ToLocalTM(kText), kTime) << zone;
    EXPECT_EQ(RFC3339ToLocalTM("1970-01-01"), 0) << zone;
    EXPECT_EQ(TimeToUTCRFC3339(kTime), "2015-10-03T12:30:15.000Z") << zone;
    for (const time_t time : {time_t{0}, kTime, kTime + 4320 * kHour}) {
      EXPECT_EQ(RFC3339ToLocalTM(TimeToUTCRFC3339(time).c_str()), time) << zone;
      EXPECT_EQ(TMToUTCRFC3339(localtime_r(&time, &local)), TimeToUTCRFC3339(time)) << zone;
    }
    EXPECT_EQ(AdjustOffsetForServerTime(kTime), TimeToRFC3339(kTime + offset)) << zone;
    EXPECT_EQ(AdjustServerTimeOffset(kText), TimeToRFC3339(kTime - 2 * offset)) << zone;
  }
}

// Not what comes out counts, but that nothing overflows: sanitizers watch.
TEST(Rfc3339Test, TimesBeyondTheCalendarAreHarmless) {
  EXPECT_EQ(TimeToUTCRFC3339(INT64_MAX), "");
  (void)AdjustOffsetForServerTime(INT64_MIN);
  for (const char* text : {"", "-2147483648--2147483648-1T1:1:1", "2147483647-12-31T23:59:59",
                           "99999999999999999999-1-1", "2015-10-03T99999999:99999999:99999999"}) {
    (void)RFC3339ToLocalTM(text);
    (void)AdjustServerTimeOffset(text);
  }
}

}  // namespace
