#pragma once

#include <string>

// Text helpers. Any thread.

// UTF-8 to and from wide text, one code point a character. Raise std::range_error for what is not
// UTF-8 ("wstring_convert: from_bytes error") or has no UTF-8 form ("wstring_convert: to_bytes
// error").
std::wstring s2ws(const std::string& utf8);
std::string ws2s(const std::wstring& wide);
std::string wstring_to_utf8(const std::wstring& wide);
