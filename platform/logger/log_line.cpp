#include "platform/logger/log_line.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <pthread.h>
#include <unistd.h>

namespace tarn {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr LOGLEVEL kChannels[] = {LOGLEVEL_SERVICE, LOGLEVEL_HTTP, LOGLEVEL_TRANSFER};
constexpr std::string_view kChannelNames[] = {"SERVICE", "HTTP", "TRANSFER"};

// Appends to a buffer that is large enough for whatever is appended.
class Appender {
 public:
  explicit Appender(char* start) : first(start), next(start) {}

  void Text(std::string_view text) { next = std::copy(text.begin(), text.end(), next); }

  void Number(std::uint64_t value, size_t min_digits = 1) {
    std::array<char, 20> digits;
    const char* end = std::to_chars(digits.begin(), digits.end(), value).ptr;
    const auto count = static_cast<size_t>(end - digits.begin());
    next = std::fill_n(next, min_digits > count ? min_digits - count : 0, '0');
    Text({digits.data(), count});
  }

  // Line ends and other control bytes, and `also`, are escaped.
  void Escaped(std::string_view text, char also = '\n') {
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      if (c == '\n' || c == '\r') {
        Text(c == '\n' ? "\\n" : "\\r");
      } else if ((byte < 0x20 && c != '\t') || byte == 0x7F || c == also) {
        Text("\\x");
        *next++ = kHexDigits[byte >> 4];
        *next++ = kHexDigits[byte & 0xF];
      } else {
        *next++ = c;
      }
    }
  }

  [[nodiscard]] std::string_view all() const { return {first, static_cast<size_t>(next - first)}; }

 private:
  char* first;
  char* next;
};

// `text` without the UTF-8 character at its end that a cut has left incomplete.
std::string_view WithoutTornCharacter(std::string_view text) {
  size_t lead = text.size();
  while (lead > 0 && text.size() - lead < 3 && (text[lead - 1] & 0xC0) == 0x80) {
    --lead;
  }
  if (lead == 0) {
    return text;
  }
  const auto byte = static_cast<unsigned char>(text[lead - 1]);
  const size_t whole = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
  return lead - 1 + whole > text.size() ? text.substr(0, lead - 1) : text;
}

// Calendar arithmetic of our own making, because gmtime_r takes a lock.
void AddTime(Appender& line, std::chrono::system_clock::time_point now) {
  const auto day = std::chrono::floor<std::chrono::days>(now);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss time(std::chrono::floor<std::chrono::milliseconds>(now - day));
  const auto number = [&line](auto value, size_t digits, std::string_view after) {
    line.Number(static_cast<std::uint64_t>(value), digits);
    line.Text(after);
  };
  number(static_cast<int>(date.year()), 4, "-");
  number(static_cast<unsigned>(date.month()), 2, "-");
  number(static_cast<unsigned>(date.day()), 2, "T");
  number(time.hours().count(), 2, ":");
  number(time.minutes().count(), 2, ":");
  number(time.seconds().count(), 2, ".");
  number(time.subseconds().count(), 3, "Z ");
}

std::uint64_t ThreadNumber() {
#if defined(__APPLE__)
  std::uint64_t number = 0;
  (void)::pthread_threadid_np(nullptr, &number);  // the calling thread always has one
  return number;
#else
  return static_cast<std::uint64_t>(::gettid());
#endif
}

void AddLevel(Appender& line, LOGLEVEL level) {
  line.Text((level & LOGLEVEL_ERROR) != 0  ? "ERROR "
            : (level & LOGLEVEL_INFO) != 0 ? "INFO "
                                           : "DEBUG ");
  for (size_t i = 0; i < std::size(kChannels); ++i) {
    if ((level & kChannels[i]) != 0) {
      line.Text(kChannelNames[i]);
      return;
    }
  }
  line.Text("-");
}

void AddMessage(Appender& line, const char* format, va_list arguments) {
  std::array<char, kMaxMessageBytes + 1> text;
  const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
  if (length < 0) {  // a wide text that cannot be converted: the format still says what happened
    line.Escaped(std::string_view(format).substr(0, kMaxMessageBytes));
    return;
  }
  const auto whole = static_cast<size_t>(length);
  if (whole > kMaxMessageBytes) {
    line.Escaped(WithoutTornCharacter({text.data(), kMaxMessageBytes}));
    line.Text("... [cut, ");
    line.Number(whole);
    line.Text(" bytes]");
    return;
  }
  std::string_view message(text.data(), whole);
  message = message.substr(0, message.find_last_not_of("\r\n") + 1);
  line.Escaped(message);
}

}  // namespace

std::string LogNameField(std::string_view name) {
  std::array<char, kEscapedBytes * kMaxNameBytes + 8> buffer;
  Appender field(buffer.data());
  const bool cut = name.size() > kMaxNameBytes;
  field.Text("[");
  field.Escaped(cut ? WithoutTornCharacter(name.substr(0, kMaxNameBytes)) : name, ']');
  field.Text(cut ? "...]" : "]");
  return std::string(field.all());
}

std::string_view FormatLogLine(LogLineBuffer& buffer, std::chrono::system_clock::time_point now,
                               LOGLEVEL level, std::string_view name_field, const char* format,
                               va_list arguments) {
  Appender line(buffer.data());
  AddTime(line, now);
  line.Number(static_cast<std::uint64_t>(::getpid()));
  line.Text(".");
  line.Number(ThreadNumber());
  line.Text(" ");
  AddLevel(line, level);
  line.Text(" ");
  line.Text(name_field);
  line.Text(" ");
  AddMessage(line, format, arguments);
  line.Text("\n");
  return line.all();
}

}  // namespace tarn
