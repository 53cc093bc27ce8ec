#include "modules/webdav/trace.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "common/log.h"
#include "modules/webdav/location.h"

namespace tarn::webdav {

namespace {

constexpr const char* kCut = "...";
constexpr size_t kShortSecretBytes = 4;
constexpr std::string_view kUrlEnds = " \t\r\n'\"<>";

bool IsLetterOrDigit(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

// Where the value of a header begins that stands anywhere in the line; npos without one.
size_t ValueOf(std::string_view line, std::string_view name) {
  const auto same = [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  };
  const auto found = std::search(line.begin(), line.end(), name.begin(), name.end(), same);
  if (found == line.end()) {
    return std::string_view::npos;
  }
  const auto value = static_cast<size_t>(found - line.begin()) + name.size();
  return std::min(line.find_first_not_of(" \t", value), line.size());
}

// Cuts the end of the line from a value, or from the blank after the value's first word.
std::string CutValue(std::string_view line, size_t value, bool keeps_first_word) {
  const size_t end = std::max(std::min(line.find_last_not_of("\r\n") + 1, line.size()), value);
  const size_t from = keeps_first_word ? std::min(line.find(' ', value), end) : value;
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

std::string CutLine(std::string_view line) {
  if (const size_t value = ValueOf(line, "authorization:"); value != std::string_view::npos) {
    return CutValue(line, value, true);
  }
  if (const size_t value = ValueOf(line, "cookie:"); value != std::string_view::npos) {
    return CutValue(line, value, false);
  }
  return CutUrls(line);
}

std::string Base64(std::string_view text) {
  static constexpr std::string_view digits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string encoded;
  unsigned int bits = 0;
  unsigned int count = 0;
  for (const char c : text) {
    bits = (bits << 8U) | static_cast<unsigned char>(c);
    for (count += 8; count >= 6; count -= 6) {
      encoded += digits[(bits >> (count - 6)) & 0x3FU];
    }
  }
  return count == 0 ? encoded : encoded + digits[(bits << (6 - count)) & 0x3FU];
}

std::string EscapedForPages(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

// Cuts a secret. A short one only where it stands for itself: it is part of many words.
void CutSecret(std::string& text, const std::string& secret) {
  const bool is_short = secret.size() < kShortSecretBytes;
  for (size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at)) {
    const size_t end = at + secret.size();
    const bool is_in_word = (at > 0 && IsLetterOrDigit(text[at - 1])) ||
                            (end < text.size() && IsLetterOrDigit(text[end]));
    if (is_short && is_in_word) {
      at = end;
    } else {
      text.replace(at, secret.size(), kCut);
      at += std::strlen(kCut);
    }
  }
}

int Trace(CURL*, curl_infotype type, char* data, size_t size, void* context) {
  const auto& secrets = *static_cast<const Secrets*>(context);
  const std::string_view text(data, size);
  if (type == CURLINFO_TEXT) {
    __LOG__A(logger, LOGLEVEL_INFO | LOGLEVEL_HTTP, "[INFORMATION] %s",
             secrets.CutFrom(text).c_str());
  } else if ((type == CURLINFO_HEADER_IN || type == CURLINFO_HEADER_OUT) &&
             !text.starts_with('\r')) {  // the end of a head
    __LOG__A(logger, LOGLEVEL_DEBUG | LOGLEVEL_HTTP, "[HEADER   %s] %s",
             type == CURLINFO_HEADER_IN ? ">>" : "<<", secrets.CutFrom(text).c_str());
  }
  return 0;
}

}  // namespace

Secrets::Secrets(const std::string& user, const std::string& password, const std::string& token) {
  for (const std::string& secret : {password, token}) {
    if (!secret.empty()) {
      Add(secret);
      Add(EncodeSegment(secret));
      Add(EscapedForPages(secret));
    }
  }
  if (!password.empty()) {
    Add(Base64(user + ":" + password));
  }
  std::sort(forms.begin(), forms.end(),
            [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

void Secrets::Add(const std::string& secret) {
  if (std::find(forms.begin(), forms.end(), secret) == forms.end()) {
    forms.push_back(secret);
  }
}

std::string Secrets::CutFrom(std::string_view text) const {
  std::string without_secrets(text);
  for (const std::string& secret : forms) {
    CutSecret(without_secrets, secret);
  }
  std::string clean;
  for (std::string_view rest = without_secrets; !rest.empty();) {
    const size_t end = std::min(rest.find('\n'), rest.size() - 1) + 1;
    clean += CutLine(rest.substr(0, end));
    rest.remove_prefix(end);
  }
  return clean;
}

std::string Secrets::CutFromBeginning(std::string_view text, size_t cut_at_bytes) const {
  std::string clean = CutFrom(text);
  if (text.size() >= cut_at_bytes && !forms.empty()) {
    clean.resize(clean.size() - std::min(clean.size(), forms.front().size() - 1));
  }
  return clean;
}

void Secrets::InstallTrace(CURL* handle) const {
  const bool traced = logger != nullptr && (logger->GetLevel() & LOGLEVEL_DEBUG) != 0;
  curl_easy_setopt(handle, CURLOPT_VERBOSE, traced ? 1L : 0L);
  curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION,
                   traced ? Trace : static_cast<curl_debug_callback>(nullptr));
  curl_easy_setopt(handle, CURLOPT_DEBUGDATA, const_cast<Secrets*>(this));  // only read from
}

}  // namespace tarn::webdav
