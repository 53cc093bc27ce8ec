#include <array>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "common/utils.h"

// The codec is our own because std::wstring_convert needs twenty times the text in memory, is
// deprecated, and in some standard libraries drops an incomplete sequence at the end in silence.
namespace {

constexpr char32_t kMaxCodePoint = 0x10FFFF;

// The lead byte of a sequence of n bytes holds kLeadBits[n] below a marker kLeadMark[n], and n
// bytes are needed from the code point kFirstOf[n] on: fewer would do for anything smaller.
constexpr std::array<unsigned, 5> kLeadBits = {0, 7, 5, 4, 3};
constexpr std::array<unsigned char, 5> kLeadMark = {0, 0x00, 0xC0, 0xE0, 0xF0};
constexpr std::array<char32_t, 5> kFirstOf = {0, 0x0, 0x80, 0x800, 0x10000};

bool IsCodePoint(char32_t value) {
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  return value <= kMaxCodePoint && !surrogate;
}

// Bytes of the sequence that `lead` begins; 0 if none begins so.
std::size_t SequenceBytes(unsigned char lead) {
  for (std::size_t bytes = 1; bytes < kLeadMark.size(); ++bytes) {
    if (lead >> kLeadBits[bytes] == kLeadMark[bytes] >> kLeadBits[bytes]) {
      return bytes;
    }
  }
  return 0;
}

// Takes one code point off the front of `utf8`.
std::optional<char32_t> TakeCodePoint(std::string_view& utf8) {
  const auto lead = static_cast<unsigned char>(utf8.front());
  const std::size_t bytes = SequenceBytes(lead);
  if (bytes == 0 || bytes > utf8.size()) {
    return std::nullopt;
  }
  char32_t value = static_cast<char32_t>(lead ^ kLeadMark[bytes]);
  for (const char c : utf8.substr(1, bytes - 1)) {
    const auto continuation = static_cast<unsigned char>(c);
    if (continuation >> 6 != 0b10) {
      return std::nullopt;
    }
    value = value << 6 | (continuation & 0x3F);
  }
  if (value < kFirstOf[bytes] || !IsCodePoint(value)) {
    return std::nullopt;
  }
  utf8.remove_prefix(bytes);
  return value;
}

void AppendCodePoint(std::string& utf8, char32_t value) {
  std::size_t bytes = 1;
  while (bytes + 1 < kFirstOf.size() && value >= kFirstOf[bytes + 1]) {
    ++bytes;
  }
  std::size_t shift = 6 * (bytes - 1);
  utf8 += static_cast<char>(kLeadMark[bytes] | value >> shift);
  while (shift > 0) {
    shift -= 6;
    utf8 += static_cast<char>(0x80 | (value >> shift & 0x3F));
  }
}

}  // namespace

std::wstring s2ws(const std::string& utf8) {
  std::wstring wide;
  wide.reserve(utf8.size());
  for (std::string_view rest = utf8; !rest.empty();) {
    const std::optional<char32_t> value = TakeCodePoint(rest);
    if (!value) {
      throw std::range_error("wstring_convert: from_bytes error");
    }
    wide += static_cast<wchar_t>(*value);
  }
  return wide;
}

std::string ws2s(const std::wstring& wide) {
  std::string utf8;
  utf8.reserve(wide.size());
  for (const wchar_t c : wide) {
    const auto value = static_cast<char32_t>(c);
    if (!IsCodePoint(value)) {
      throw std::range_error("wstring_convert: to_bytes error");
    }
    AppendCodePoint(utf8, value);
  }
  return utf8;
}

std::string wstring_to_utf8(const std::wstring& wide) {
  return ws2s(wide);
}
