#include "common/utils.h"

#include <cwchar>
#include <gtest/gtest.h>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

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

using Pieces = std::vector<std::string>;

TEST(SplitTest, PiecesStandBetweenTheMatches) {
  const std::regex slash("/");
  EXPECT_EQ(split("/data/type", slash), (Pieces{"", "data", "type"}));
  EXPECT_EQ(split("a//b/", slash), (Pieces{"a", "", "b"}));
  EXPECT_EQ(split("plain", slash), Pieces{"plain"});
  EXPECT_EQ(split("", slash), Pieces{""});
  EXPECT_EQ(split("/", slash), Pieces{""});
  EXPECT_EQ(split("a, b,c", std::regex(", *")), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(split(L"ä;;ö", std::wregex(L";")), (std::vector<std::wstring>{L"ä", L"", L"ö"}));
}

TEST(SplitTest, LongTextsDoNotUseUpTheStack) {
  constexpr std::size_t length = 200'000;
  EXPECT_EQ(split(std::string(length, '/'), std::regex("/")).size(), length);
  EXPECT_EQ(split(std::string(length, 'a'), std::regex("/")).size(), 1u);
}

TEST(TextTest, SuffixesCompareByteByByte) {
  EXPECT_TRUE(ends_with("libx.dylib", ".dylib"));
  EXPECT_TRUE(ends_with(".dylib", ".dylib"));
  EXPECT_TRUE(ends_with("", ""));
  EXPECT_FALSE(ends_with("libx.DYLIB", ".dylib"));
  EXPECT_FALSE(ends_with("dylib", ".dylib"));
}

TEST(TextTest, ReplacementEndsWhateverIsPutIn) {
  const auto replaced = [](std::string text, const std::string& from, const std::string& to) {
    replace_all(text, from, to);
    return text;
  };
  EXPECT_EQ(replaced("aaa", "a", "b"), "bbb");
  EXPECT_EQ(replaced("aa", "a", "aba"), "abaaba");
  EXPECT_EQ(replaced("aaaaa", "aa", ""), "a");
  EXPECT_EQ(replaced("a.b", ".", "::"), "a::b");
  EXPECT_EQ(replaced("abc", "", "x"), "abc");
  EXPECT_EQ(replaced("", "a", "b"), "");
  std::wstring wide = L"äöä";
  replace_all(wide, L"ä", wide);
  EXPECT_EQ(wide, L"äöäöäöä");
}

TEST(TextTest, FormattedTextHasAnyLength) {
  for (const int width : {0, 1, 3, 4, 5, 7, 8, 9, 100'000}) {  // the buffer starts with 8 bytes
    const std::size_t length = width > 0 ? static_cast<std::size_t>(width) : 1;
    EXPECT_EQ(string_format("%*c", width, 'x'), std::string(length - 1, ' ') + 'x');
  }
  EXPECT_EQ(string_format("%s %d", std::string(100, 'x').c_str(), 7), std::string(100, 'x') + " 7");
  EXPECT_EQ(string_format(std::string("%lld%%"), 1LL << 40), "1099511627776%");
  EXPECT_EQ(string_format(std::string()), "");
  EXPECT_EQ(string_format("%lc", wint_t{0xFFFFFFF0}), "");  // no such character
}

struct NameCase {
  const char* pattern;
  const char* name;
  bool matches;
};

TEST(WildcardTest, WideAndByteFormAgreeOnEveryRule) {
  const NameCase cases[] = {
      {"", "", true},
      {"", "a", false},
      {"a", "", false},
      {"abc", "abc", true},
      {"abc", "abcd", false},
      {"abcd", "abc", false},
      {"*", "", true},
      {"*", "a.b", true},
      {"**", "", true},
      {"*.txt", "a.txt", true},
      {"*.txt", ".txt", true},
      {"*.txt", "a.txt1", false},
      {"*a", "aba", true},
      {"*a*", "bbb", false},
      {"a*c", "ac", true},
      {"a?c", "abc", true},
      {"a?c", "ac", false},
      {"?*", "", false},
      {"?", ".", true},
      {"*?", "a", true},
      {"*?", "", false},
      // Up to the last dot, which stays for the rest of the pattern.
      {"<.txt", "archive.tar.txt", true},
      {"<.txt", ".txt", true},
      {"<txt", "a.txt", false},
      {"<", "a.b", false},
      {"<.b", "a.b", true},
      {"<r.txt", "a.tar.txt", true},
      {"<", "plain", true},
      {"<n", "plain", true},
      {"<", "", true},
      {"a<", "a.b", false},
      {"a.<", "a.b", true},
      {"a.<c", "a.bc", true},
      {"<.<", "a.b.c", true},
      {"<.b<", "a.b.c", false},
      // One character, but the last dot is passed by.
      {">", "", false},
      {">", "a", true},
      {">.b", "a.b", true},
      {"a>.b", "a.b", true},
      {"a>b", "a.b", false},
      {"a>b.c", "a.b.c", true},
      {">>>.b", "a.b", true},
      {"a>>>.b", "a.b", true},
      // A dot or nothing; a dot that is there is taken.
      {"a\"b", "a.b", true},
      {"a\"b", "ab", true},
      {"a\"", "a", true},
      {"a\".b", "a.b", false},
      {"a\"\"b", "a..b", true},
      {"\"\"\"", ".", true},
      {"a*\"", "a.", true},
  };
  for (const NameCase& test : cases) {
    EXPECT_EQ(IsNameInExpressionA(test.pattern, test.name, false), test.matches)
        << test.pattern << " for " << test.name;
    EXPECT_EQ(IsNameInExpression(s2ws(test.pattern).c_str(), s2ws(test.name).c_str(), false),
              test.matches)
        << test.pattern << " for " << test.name;
  }
}

TEST(WildcardTest, OnlyAsciiLettersFold) {
  EXPECT_TRUE(IsNameInExpressionA("ABC?z", "abc.Z", true));
  EXPECT_FALSE(IsNameInExpressionA("ABC", "abc", false));
  EXPECT_FALSE(IsNameInExpressionA("@[", "`{", true));
  EXPECT_TRUE(IsNameInExpression(L"*É", L"xyÉ", true));
  EXPECT_FALSE(IsNameInExpression(L"É", L"é", true));
}

TEST(WildcardTest, HostilePatternsTakeNoLongerThanOthers) {
  std::string pattern;
  for (int i = 0; i < 500; ++i) {
    pattern += "*a<";
  }
  EXPECT_FALSE(IsNameInExpressionA((pattern + "b").c_str(), std::string(1000, 'a').c_str(), false));
  EXPECT_TRUE(IsNameInExpressionA(pattern.c_str(), std::string(1000, 'a').c_str(), false));
}

}  // namespace
