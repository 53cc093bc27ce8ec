#include "common/rfc3339.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr const char* kText = "2015-10-03T12:30:15.500+09:00";
constexpr time_t kTime = 1443875415;  // the fields of kText in UTC
constexpr time_t kHour = 3600;

struct Zone {
  const char* rule;
  time_t standard_offset;
};

constexpr Zone kZones[] = {
    {"UTC0", 0},
    {"CET-1CEST,M3.5.0,M10.5.0/3", kHour},
    {"EST5EDT,M3.2.0,M11.1.0", -5 * kHour},
    {"IST-5:30", 5 * kHour + kHour / 2},
    {"AEST-10AEDT,M10.1.0,M4.1.0/3", 10 * kHour},  // from the fourth of October on
};

// The process's time zone while it lives.
class ScopedZone {
 public:
  explicit ScopedZone(const char* rule) { Set(rule); }
  ~ScopedZone() { Set("UTC0"); }
  ScopedZone(const ScopedZone&) = delete;
  ScopedZone& operator=(const ScopedZone&) = delete;

 private:
  static void Set(const char* rule) {
    ::setenv("TZ", rule, 1);
    ::tzset();
  }
};

TEST(Rfc3339Test, ReadsFieldsAsStandardTimeOrAsUtcInEveryZone) {
  for (const Zone& zone : kZones) {
    const ScopedZone set(zone.rule);
    EXPECT_EQ(RFC3339ToTM(kText), kTime - zone.standard_offset) << zone.rule;
    EXPECT_EQ(RFC3339ToLocalTM(kText), kTime) << zone.rule;
    EXPECT_EQ(RFC3339ToLocalTM("2015-01-31T23:59:60"), 1422748800) << zone.rule;
    EXPECT_EQ(RFC3339ToLocalTM("1970-01-01"), 0) << zone.rule;
    EXPECT_EQ(RFC3339ToLocalTM("1969-12-31T23:59:58Z"), -2) << zone.rule;
  }
}

TEST(Rfc3339Test, WritesUtcInEveryZone) {
  tm fields{};
  for (const Zone& zone : kZones) {
    const ScopedZone set(zone.rule);
    for (const time_t time : {kTime, kTime + 4320 * kHour}) {
      EXPECT_EQ(RFC3339ToLocalTM(TimeToUTCRFC3339(time).c_str()), time) << zone.rule;
      EXPECT_EQ(TimeToRFC3339(time), TimeToUTCRFC3339(time));
      EXPECT_EQ(TMToUTCRFC3339(localtime_r(&time, &fields)), TimeToUTCRFC3339(time)) << zone.rule;
      EXPECT_EQ(NoAdjustOffsetForServerTime(time), TimeToUTCRFC3339(time));
    }
    EXPECT_EQ(TimeToUTCRFC3339(0), "1970-01-01T00:00:00.000Z") << zone.rule;
    EXPECT_EQ(TimeToUTCRFC3339(kTime), "2015-10-03T12:30:15.000Z") << zone.rule;
  }
  EXPECT_EQ(TMToRFC3339(gmtime_r(&kTime, &fields)), "2015-10-03T12:30:15.000Z");
  EXPECT_EQ(NoAdjustServerTimeOffset(kText), kText);
}

TEST(Rfc3339Test, ServersOfLocalTimeAreShiftedByTheStandardOffset) {
  for (const Zone& zone : kZones) {
    const ScopedZone set(zone.rule);
    EXPECT_EQ(AdjustOffsetForServerTime(kTime), TimeToRFC3339(kTime + zone.standard_offset))
        << zone.rule;
    EXPECT_EQ(AdjustServerTimeOffset(kText), TimeToRFC3339(kTime - 2 * zone.standard_offset))
        << zone.rule;
  }
}

// Not what comes out counts, but that nothing overflows: sanitizers watch.
TEST(Rfc3339Test, TimesBeyondTheCalendarAreHarmless) {
  const ScopedZone set("EST5EDT,M3.2.0,M11.1.0");
  for (const time_t time : {time_t{INT64_MAX}, time_t{INT64_MIN}, time_t{INT64_MAX - 1}}) {
    EXPECT_EQ(TimeToUTCRFC3339(time), "");
    (void)AdjustOffsetForServerTime(time);
  }
  tm fields{};
  fields.tm_year = INT_MAX;
  EXPECT_EQ(TMToRFC3339(&fields), "2147485547-01-00T00:00:00.000Z");
  for (const char* text : {"", "x", "-2147483648--2147483648-1T1:1:1", "2147483647-12-31T23:59:59",
                           "99999999999999999999-1-1", "2015-10-03T99999999:99999999:99999999"}) {
    (void)RFC3339ToTM(text);
    (void)RFC3339ToLocalTM(text);
    (void)AdjustServerTimeOffset(text);
  }
}

}  // namespace
