#include "common/utils.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

template <typename Char>
std::vector<std::basic_string<Char>> Split(const std::basic_string<Char>& text,
                                           const std::basic_regex<Char>& pattern) {
  using Text = std::basic_string<Char>;
  using Pieces = std::regex_token_iterator<typename Text::const_iterator>;
  constexpr int between_matches = -1;
  return {Pieces(text.begin(), text.end(), pattern, between_matches), Pieces()};
}

template <typename Text>
void ReplaceAll(Text& text, const Text& from, const Text& to) {
  if (from.empty()) {
    return;
  }
  Text replaced;
  std::size_t done = 0;
  for (std::size_t found = 0; (found = text.find(from, done)) != Text::npos;
       done = found + from.size()) {
    replaced.append(text, done, found - done).append(to);
  }
  text = replaced.append(text, done);
}

std::string Format(const char* format, va_list arguments) {
  std::string text(std::max<std::size_t>(2 * std::strlen(format), 1), '\0');
  for (;;) {
    va_list once;
    va_copy(once, arguments);
    // The analyzer misses that va_copy sets `once`.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int length = std::vsnprintf(text.data(), text.size(), format, once);
    va_end(once);
    if (length < 0) {
      return {};
    }
    const bool complete = static_cast<std::size_t>(length) < text.size();
    text.resize(static_cast<std::size_t>(length) + (complete ? 0 : 1));
    if (complete) {
      return text;
    }
  }
}

}  // namespace

std::vector<std::string> split(const std::string& text, const std::regex& pattern) {
  return Split(text, pattern);
}

std::vector<std::wstring> split(const std::wstring& text, const std::wregex& pattern) {
  return Split(text, pattern);
}

bool ends_with(const std::string& text, const std::string& suffix) {
  return text.ends_with(suffix);
}

void replace_all(std::string& text, const std::string& from, const std::string& to) {
  ReplaceAll(text, from, to);
}

void replace_all(std::wstring& text, const std::wstring& from, const std::wstring& to) {
  ReplaceAll(text, from, to);
}

std::string string_format(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = Format(format, arguments);
  va_end(arguments);
  return text;
}

// By value, since va_start must not follow a reference.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
std::string string_format(std::string format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = Format(format.c_str(), arguments);
  va_end(arguments);
  return text;
}
