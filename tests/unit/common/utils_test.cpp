#include "common/utils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <tuple>
#include <vector>

#include "common/posix.h"

namespace {

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
    EXPECT_THROW(s2ws(text), std::range_error) << text;
  }
  for (const wchar_t c : {wchar_t{0xD800}, wchar_t{0xDFFF}, wchar_t{0x110000}, wchar_t{-1}}) {
    EXPECT_THROW(ws2s({L'a', c}), std::range_error);
  }
}

using Pieces = std::vector<std::string>;

TEST(TextTest, TextIsSplitAndFormattedAtAnyLength) {
  const std::regex slash("/");
  EXPECT_EQ(split("/a//b/", slash), (Pieces{"", "a", "", "b"}));
  constexpr std::size_t length = 200'000;  // must not use up the stack
  EXPECT_EQ(split(std::string(length, '/'), slash).size(), length);

  std::string text = "aa.";
  replace_all(text, "a", "aba");
  EXPECT_EQ(text, "abaaba.");
  for (const int width : {1, 7, 8, 9, 100'000}) {  // the buffer starts with 8 bytes
    EXPECT_EQ(string_format("%*c", width, 'x'),
              std::string(static_cast<std::size_t>(width) - 1, ' ') + 'x');
  }
}

// Pattern, names that match, names that do not.
const std::tuple<const char*, Pieces, Pieces> kNameCases[] = {
    {"abc", {"abc"}, {"", "ab", "abcd", "ABC"}},
    {"*.txt", {"a.txt", ".txt", ".txt.txt"}, {"a.txt1", "txt"}},
    {"a?c**", {"abc", "a.c", "aacc"}, {"ac", "a"}},
    // Up to the last dot, which stays for the rest of the pattern.
    {"<.txt", {"archive.tar.txt", ".txt"}, {"txt", "a.txt.b"}},
    {"a.<c", {"a.c", "a.bc"}, {"a.b.c"}},
    {"<.<", {"a.b.c", "."}, {"a"}},
    // One character, but the last dot is passed by.
    {"a>b.c", {"a.b.c", "axb.c"}, {"ab.c"}},
    {"a>>>.b", {"a.b", "acde.b"}, {"axyzw.b"}},
    // A dot or nothing; a dot that is there is taken.
    {"a\"b", {"a.b", "ab"}, {"a..b"}},
};

TEST(WildcardTest, EveryRuleHoldsAndHostilePatternsTakeNoLongerThanOthers) {
  for (const auto& [pattern, matching, others] : kNameCases) {
    for (const std::string& name : matching) {
      EXPECT_TRUE(IsNameInExpressionA(pattern, name.c_str(), false)) << pattern << ' ' << name;
    }
    for (const std::string& name : others) {
      EXPECT_FALSE(IsNameInExpressionA(pattern, name.c_str(), false)) << pattern << ' ' << name;
    }
  }
  EXPECT_TRUE(IsNameInExpression(L"ABC?z", L"abc.Z", true));
  EXPECT_FALSE(IsNameInExpressionA("@", "`", true) || IsNameInExpressionA("[", "{", true));
  EXPECT_FALSE(IsNameInExpression(L"É", L"é", true)) << "only ASCII letters fold";
  std::string pattern = "b";
  for (int i = 0; i < 500; ++i) {
    pattern.insert(0, "*a<");
  }
  EXPECT_FALSE(IsNameInExpressionA(pattern.c_str(), std::string(1000, 'a').c_str(), false));
}

TEST(UniqueFdTest, DescriptorsAreBornCloseOnExecAndReplacingClosesWhatWasHeld) {
  tarn::UniqueFd first = tarn::OpenFile("/dev/null", O_RDONLY);
  tarn::UniqueFd second = tarn::OpenSocket(AF_INET, SOCK_STREAM);
  const int replaced = first.get();
  const int kept = second.get();
  EXPECT_EQ(::fcntl(replaced, F_GETFD), FD_CLOEXEC);
  first = std::move(second);
  EXPECT_EQ(::fcntl(replaced, F_GETFD), -1);
  EXPECT_EQ(::fcntl(kept, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(first.get(), kept);
}

}  // namespace
