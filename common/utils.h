#pragma once

#include <regex>
#include <string>
#include <vector>

// Text helpers. Any thread.

// UTF-8 to and from wide text, one code point a character. Raise std::range_error for what is not
// UTF-8 ("wstring_convert: from_bytes error") or has no UTF-8 form ("wstring_convert: to_bytes
// error").
std::wstring s2ws(const std::string& utf8);
std::string ws2s(const std::wstring& wide);
std::string wstring_to_utf8(const std::wstring& wide);

// The pieces between the matches of `pattern`, in order, empty ones included; but none after a
// match that ends the text. A text without a match is its own only piece. Texts from outside need a
// pattern without repetition: the library's matcher takes stack space for every repeated character.
std::vector<std::string> split(const std::string& text, const std::regex& pattern);
std::vector<std::wstring> split(const std::wstring& text, const std::wregex& pattern);

bool ends_with(const std::string& text, const std::string& suffix);

// Replaces every `from`, left to right; what was put in is not searched again, and an empty `from`
// is nowhere to be found.
void replace_all(std::string& text, const std::string& from, const std::string& to);
void replace_all(std::wstring& text, const std::wstring& from, const std::wstring& to);

// As printf, of any length; the empty text where printf fails. Compilers check the arguments of the
// first form.
std::string string_format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string string_format(std::string format, ...);

// Matches a whole file name against a pattern. `ignore_case` folds ASCII letters only.
//   *  any characters, or none          ?  one character
//   <  the same up to the last ".": at most all that stands before it; like * behind it
//   >  one character, but nothing in place of the last "."
//   "  a ".", or nothing where there is none
bool IsNameInExpression(const wchar_t* pattern, const wchar_t* name, bool ignore_case);
bool IsNameInExpressionA(const char* pattern, const char* name, bool ignore_case);
