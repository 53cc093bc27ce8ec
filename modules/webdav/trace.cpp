#include "modules/webdav/trace.h"

#include <algorithm>
#include <array>
#include <strings.h>

#include "common/log.h"

namespace tarn::webdav {

namespace {

constexpr const char* kCut = "...";
constexpr std::string_view kUrlEnds = " \t\r\n'\"<>";

bool IsHeader(std::string_view line, std::string_view name) {
  return line.size() > name.size() && line[name.size()] == ':' &&
         ::strncasecmp(line.data(), name.data(), name.size()) == 0;
}

// Cuts the end of the line's value, from the blank after its first word or from its beginning.
std::string CutValue(std::string_view line, bool keeps_first_word) {
  const size_t end = std::min(line.find_last_not_of("\r\n") + 1, line.size());
  size_t from = std::min(line.find_first_not_of(" \t", line.find(':') + 1), end);
  if (keeps_first_word) {
    from = std::min(line.find(' ', from), end);
  }
  return std::string(line.substr(0, from)) + (from < end ? kCut : "") +
         std::string(line.substr(end));
}

// Cuts the queries of URLs, and logins in front of hosts.
std::string CutUrls(std::string_view line) {
  std::string text(line);
  for (size_t at = text.find('?'); at != std::string::npos; at = text.find('?', at + 1)) {
    const size_t end = std::min(text.find_first_of(kUrlEnds, at), text.size());
    text.replace(at + 1, end - at - 1, end > at + 1 ? kCut : "");
  }
  for (size_t at = text.find("://"); at != std::string::npos; at = text.find("://", at + 3)) {
    const size_t end =
        std::min(text.find_first_of(std::string(kUrlEnds) + "/", at + 3), text.size());
    const size_t login_end = text.rfind('@', end);
    if (login_end != std::string::npos && login_end > at) {
      text.replace(at + 3, login_end - at - 3, kCut);
    }
  }
  return text;
}

std::string LineWithoutSecrets(std::string_view line) {
  static constexpr std::array<std::string_view, 2> credentials = {"Authorization",
                                                                  "Proxy-Authorization"};
  static constexpr std::array<std::string_view, 2> cookies = {"Cookie", "Set-Cookie"};
  const auto names_line = [&](std::string_view name) { return IsHeader(line, name); };
  if (std::any_of(credentials.begin(), credentials.end(), names_line)) {
    return CutValue(line, true);
  }
  if (std::any_of(cookies.begin(), cookies.end(), names_line)) {
    return CutValue(line, false);
  }
  return CutUrls(line);
}

int Trace(CURL*, curl_infotype type, char* data, size_t size, void*) {
  if (type == CURLINFO_TEXT) {
    __LOG__A(logger, LOGLEVEL_INFO | LOGLEVEL_HTTP, "[INFORMATION] %s",
             WithoutSecrets({data, size}).c_str());
  } else if ((type == CURLINFO_HEADER_IN || type == CURLINFO_HEADER_OUT) &&
             !std::string_view(data, size).starts_with('\r')) {  // the end of a head
    __LOG__A(logger, LOGLEVEL_DEBUG | LOGLEVEL_HTTP, "[HEADER   %s] %s",
             type == CURLINFO_HEADER_IN ? ">>" : "<<", WithoutSecrets({data, size}).c_str());
  }
  return 0;
}

}  // namespace

std::string WithoutSecrets(std::string_view text) {
  std::string clean;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
    clean += LineWithoutSecrets(text.substr(0, end));
    text.remove_prefix(end);
  }
  return clean;
}

void InstallTrace(CURL* handle) {
  const bool traced = logger != nullptr && (logger->GetLevel() & LOGLEVEL_DEBUG) != 0;
  curl_easy_setopt(handle, CURLOPT_VERBOSE, traced ? 1L : 0L);
  curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION,
                   traced ? Trace : static_cast<curl_debug_callback>(nullptr));
}

}  // namespace tarn::webdav
