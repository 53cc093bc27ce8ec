#include "common/utils.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

namespace {

// The text of the range error that `action` throws; empty when it throws none.
template <typename Action>
std::string RangeError(Action action) {
  try {
    action();
  } catch (const std::range_error& error) {
    return error.what();
  }
  return {};
}

TEST(Utf8Test, EveryCodePointSurvivesTheRoundTrip) {
  std::wstring all;
  for (wchar_t c = 0; c <= 0x10FFFF; ++c) {
    if (c < 0xD800 || c > 0xDFFF) {
      all += c;
    }
  }
  const std::string utf8 = ws2s(all);
  EXPECT_EQ(utf8.size(), 0x80u + 2 * 0x780u + 3 * (0xF800u - 0x800u) + 4 * 0x100000u);
  EXPECT_TRUE(s2ws(utf8) == all);
  EXPECT_EQ(wstring_to_utf8(L"A\u00E9\u20AC\U0001F600"), "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
}

TEST(Utf8Test, MalformedTextIsRefused) {
  for (const char* text :
       {"\x80", "a\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xC3(", "\xE2\x82(",      // stray, cut short
        "\xC0\x80", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",                         // too long a form
        "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF"}) {  // no code point
    EXPECT_EQ(RangeError([&] { s2ws(text); }), "wstring_convert: from_bytes error") << text;
  }
  for (const wchar_t c : {wchar_t{0xD800}, wchar_t{0xDFFF}, wchar_t{0x110000}, wchar_t{-1}}) {
    EXPECT_EQ(RangeError([&] { ws2s({L'a', c}); }), "wstring_convert: to_bytes error");
  }
}

}  // namespace
