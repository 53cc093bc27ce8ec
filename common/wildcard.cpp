#include <cstddef>
#include <string_view>
#include <vector>

#include "common/utils.h"

namespace {

// Only ASCII letters have two cases here, whatever the process's locale.
template <typename Char>
Char UpperCase(Char c) {
  return c >= 'a' && c <= 'z' ? static_cast<Char>(c - 'a' + 'A') : c;
}

// Walks the pattern once and keeps every position of the name that the characters so far can have
// led to. Unlike trying the runs of "*" and "<" one by one, this takes at most pattern times name
// steps, however many of them the pattern has.
template <typename Char>
class NameMatcher {
 public:
  NameMatcher(std::basic_string_view<Char> whole_name, bool fold_case)
      : name(whole_name),
        last_dot(whole_name.rfind(Char{'.'})),
        ignore_case(fold_case),
        reached(whole_name.size() + 1, false) {
    reached[0] = true;
  }

  bool Matches(std::basic_string_view<Char> pattern) {
    for (const Char c : pattern) {
      if (c == '*') {
        Spread(name.size());
      } else if (c == '<') {
        Spread(last_dot);
      } else {
        Step(c);
      }
    }
    return reached[name.size()];
  }

 private:
  // A run of any length. It ends at `limit` when it begins there or before.
  void Spread(std::size_t limit) {
    bool inside = false;
    for (std::size_t at = 0; at <= name.size(); ++at) {
      inside = inside || reached[at];
      reached[at] = inside;
      inside = inside && at != limit;
    }
  }

  // Any other character leads from each position to one position at most: to the next one or to
  // where it was. From back to front, so that none is moved twice.
  void Step(Char c) {
    for (std::size_t at = name.size() + 1; at-- > 0;) {
      if (!reached[at]) {
        continue;
      }
      reached[at] = Stays(c, at);
      if (at < name.size() && Consumes(c, at)) {
        reached[at + 1] = true;
      }
    }
  }

  bool Stays(Char c, std::size_t at) const {
    return (c == '>' && at == last_dot) || (c == '"' && !IsDot(at));
  }

  bool Consumes(Char c, std::size_t at) const {
    switch (c) {
      case '?':
        return true;
      case '>':
        return at != last_dot;
      case '"':
        return IsDot(at);
      default:
        return name[at] == c || (ignore_case && UpperCase(name[at]) == UpperCase(c));
    }
  }

  bool IsDot(std::size_t at) const { return at < name.size() && name[at] == '.'; }

  const std::basic_string_view<Char> name;
  const std::size_t last_dot;  // npos without one
  const bool ignore_case;
  std::vector<bool> reached;  // by position in the name, its end included
};

}  // namespace

bool IsNameInExpression(const wchar_t* pattern, const wchar_t* name, bool ignore_case) {
  return NameMatcher<wchar_t>(name, ignore_case).Matches(pattern);
}

bool IsNameInExpressionA(const char* pattern, const char* name, bool ignore_case) {
  return NameMatcher<char>(name, ignore_case).Matches(pattern);
}
