#include "common/rfc3339.h"

#include <cstdint>
#include <cstdio>
#include <optional>

#include "common/utils.h"

namespace {

// Texts come from servers: fields and times far out of range wrap around rather than overflow.
int Minus(int field, unsigned subtrahend) {
  return static_cast<int>(static_cast<unsigned>(field) - subtrahend);
}

time_t Plus(time_t time, time_t seconds) {
  return static_cast<time_t>(static_cast<std::uint64_t>(time) +
                             static_cast<std::uint64_t>(seconds));
}

// Fields as the text gives them, not yet normalised, as standard time.
tm ReadFields(const char* text) {
  tm fields{};
  // The fields that are not there are to stay 0, so their number does not matter.
  (void)std::sscanf(text, "%d-%d-%dT%d:%d:%d", &fields.tm_year, &fields.tm_mon, &fields.tm_mday,
                    &fields.tm_hour, &fields.tm_min, &fields.tm_sec);
  fields.tm_year = Minus(fields.tm_year, 1900);
  fields.tm_mon = Minus(fields.tm_mon, 1);
  return fields;
}

std::optional<tm> ToUTC(time_t time) {
  tm fields{};
  return gmtime_r(&time, &fields) != nullptr ? std::optional(fields) : std::nullopt;
}

// The local UTC offset at a local time; 0 at a time that has no UTC fields.
time_t OffsetAt(tm local) {
  const time_t time = std::mktime(&local);
  std::optional<tm> utc = ToUTC(time);
  return utc ? time - std::mktime(&*utc) : 0;
}

}  // namespace

time_t RFC3339ToTM(const char* text) {
  tm fields = ReadFields(text);
  return std::mktime(&fields);
}

time_t RFC3339ToLocalTM(const char* text) {
  tm fields = ReadFields(text);
  const time_t time = std::mktime(&fields);
  return Plus(time, OffsetAt(fields));
}

std::string TMToRFC3339(const tm* fields) {
  return string_format("%04lld-%02d-%02dT%02d:%02d:%02d.000Z", fields->tm_year + 1900LL,
                       fields->tm_mon + 1, fields->tm_mday, fields->tm_hour, fields->tm_min,
                       fields->tm_sec);
}

std::string TMToUTCRFC3339(const tm* fields) {
  tm local = *fields;
  const std::optional<tm> utc = ToUTC(std::mktime(&local));
  return utc ? TMToRFC3339(&*utc) : std::string();
}

std::string TimeToUTCRFC3339(time_t time) {
  tm local{};
  return localtime_r(&time, &local) != nullptr ? TMToUTCRFC3339(&local) : std::string();
}

std::string TimeToRFC3339(time_t time) {
  return TimeToUTCRFC3339(time);
}

std::string AdjustOffsetForServerTime(time_t time) {
  tm reference{};
  reference.tm_year = 115;
  reference.tm_mon = 9;
  reference.tm_mday = 3;
  reference.tm_isdst = -1;
  return TimeToRFC3339(Plus(time, OffsetAt(reference)));
}

std::string NoAdjustOffsetForServerTime(time_t time) {
  return TimeToRFC3339(time);
}

std::string AdjustServerTimeOffset(const char* text) {
  tm fields = ReadFields(text);
  const time_t time = std::mktime(&fields);
  fields.tm_isdst = -1;
  return TimeToRFC3339(Plus(time, -OffsetAt(fields)));
}

std::string NoAdjustServerTimeOffset(const char* text) {
  return text;
}
