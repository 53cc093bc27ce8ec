#pragma once

#include <ctime>
#include <string>

// RFC 3339 time texts. Written as "2015-10-03T12:30:15.000Z"; of what is read, only the leading
// "year-month-dayThour:minute:second" counts, and fields that are missing stay 0.
//
// Local time follows the process's time zone. The local UTC offset at a time t is
// t - mktime(gmtime(t)), in seconds; gmtime never says that daylight saving is on, so this is the
// offset of the zone's standard time.
//
// Any thread. A time whose year the C library cannot hold is written as the empty text.

// The text's fields as local standard time.
time_t RFC3339ToTM(const char* text);
// The text's fields as UTC.
time_t RFC3339ToLocalTM(const char* text);

// The fields as they stand.
std::string TMToRFC3339(const tm* fields);
// The fields, which are local time, as UTC.
std::string TMToUTCRFC3339(const tm* fields);
// Both alike: `time` as UTC.
std::string TimeToUTCRFC3339(time_t time);
std::string TimeToRFC3339(time_t time);

// For servers that keep local time. To such a server: `time` plus the local UTC offset of a fixed
// day, the third of October 2015. From such a server: what RFC3339ToTM reads, less the local UTC
// offset then. For servers that keep UTC: the UTC text, and the text itself.
std::string AdjustOffsetForServerTime(time_t time);
std::string NoAdjustOffsetForServerTime(time_t time);
std::string AdjustServerTimeOffset(const char* text);
std::string NoAdjustServerTimeOffset(const char* text);
