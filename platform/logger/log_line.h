#pragma once

#include <array>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

#include "interfaces/loglevel.h"

// The text of a log line:
//   2026-11-22T21:45:03.123Z 4711.4713 ERROR SERVICE [tarnsvc_Disk] message
// that is UTC time, process.thread, severity, channel ("-" without one), logger name, message. A
// line is one line whatever the message holds: control bytes stand in it escaped.
//
// FormatLogLine takes no lock and no heap memory (as long as the format itself needs none of
// vsnprintf, as ordinary ones do), so that it works in the child of a threaded process before exec.
namespace tarn {

inline constexpr size_t kMaxMessageBytes = 8192;  // what is longer is cut and marked as cut
inline constexpr size_t kMaxNameBytes = 128;      // the same for the name of a logger
inline constexpr size_t kEscapedBytes = 4;        // one control byte: \xNN

// Holds any line: fixed fields and the mark of a cut message fit in the last term.
using LogLineBuffer = std::array<char, kEscapedBytes*(kMaxMessageBytes + kMaxNameBytes) + 256>;

// The name as it stands in each line, in square brackets.
std::string LogNameField(std::string_view name);

// Makes a line, with its newline, in `buffer` and returns it. `name_field` is a LogNameField.
std::string_view FormatLogLine(LogLineBuffer& buffer, std::chrono::system_clock::time_point now,
                               LOGLEVEL level, std::string_view name_field, const char* format,
                               va_list arguments) __attribute__((format(printf, 5, 0)));

}  // namespace tarn
