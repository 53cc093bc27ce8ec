#include "modules/webdav/location.h"

#include <algorithm>
#include <cctype>
#include <curl/curl.h>
#include <memory>

namespace tarn::webdav {

namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

using Url = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

// A part of a URL; empty when it has none.
std::string Part(CURLU* url, CURLUPart part, unsigned int flags) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, flags) != CURLUE_OK) {
    return {};
  }
  std::string copy = text;
  curl_free(text);
  return copy;
}

std::string LowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool IsSecureScheme(std::string_view scheme) {
  return scheme == "https" || scheme == "webdavs" || scheme == "davs";
}

bool IsPlainScheme(std::string_view scheme) {
  return scheme == "http" || scheme == "webdav" || scheme == "dav";
}

bool IsUnreserved(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

int HexValue(char c) {
  const auto at = kHexDigits.find(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
  return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

// The names between slashes, empty ones left out.
std::vector<std::string_view> Split(std::string_view path) {
  std::vector<std::string_view> names;
  size_t start = 0;
  while (start < path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    if (end > start) {
      names.push_back(path.substr(start, end - start));
    }
    start = end + 1;
  }
  return names;
}

// Follows a path of encoded names from a folder of decoded ones.
void Append(std::vector<std::string>& folder, std::string_view path) {
  for (const std::string_view encoded : Split(path)) {
    std::string name = DecodeSegment(encoded);
    if (name == "..") {
      if (!folder.empty()) {
        folder.pop_back();
      }
    } else if (name != ".") {
      folder.push_back(std::move(name));
    }
  }
}

// What follows "scheme://authority"; the whole text where that is missing.
std::string_view PathOf(std::string_view reference) {
  size_t authority = std::string_view::npos;
  if (reference.starts_with("//")) {
    authority = 2;
  } else if (const size_t colon = reference.find(':'); colon != std::string_view::npos &&
                                                       colon < reference.find('/') &&
                                                       reference.substr(colon).starts_with("://")) {
    authority = colon + 3;
  }
  if (authority == std::string_view::npos) {
    return reference;
  }
  const size_t path = reference.find('/', authority);
  return path == std::string_view::npos ? "/" : reference.substr(path);
}

bool IsFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

}  // namespace

std::optional<Location> Location::Parse(const std::string& url, bool secure) {
  const std::string text =
      url.find("://") == std::string::npos ? (secure ? "https://" : "http://") + url : url;
  const Url parsed(curl_url(), &curl_url_cleanup);
  if (parsed == nullptr || curl_url_set(parsed.get(), CURLUPART_URL, text.c_str(),
                                        CURLU_NON_SUPPORT_SCHEME | CURLU_ALLOW_SPACE) != 0) {
    return std::nullopt;
  }
  const std::string scheme = Part(parsed.get(), CURLUPART_SCHEME, 0);
  Location location;
  location.secure_scheme = IsSecureScheme(scheme);
  location.host = LowerCase(Part(parsed.get(), CURLUPART_HOST, 0));
  if (location.host.empty() || (secure && !location.secure_scheme) ||
      (!location.secure_scheme && !IsPlainScheme(scheme))) {
    return std::nullopt;
  }
  location.origin = (location.secure_scheme ? "https://" : "http://") + location.host;
  const std::string port = Part(parsed.get(), CURLUPART_PORT, 0);
  if (!port.empty() && port != (location.secure_scheme ? "443" : "80")) {
    location.origin += ":" + port;
  }
  const std::string path = Part(parsed.get(), CURLUPART_PATH, 0);
  for (const std::string_view name : Split(path)) {
    location.base += "/" + EncodeSegment(DecodeSegment(name));
  }
  location.login = {Part(parsed.get(), CURLUPART_USER, CURLU_URLDECODE),
                    Part(parsed.get(), CURLUPART_PASSWORD, CURLU_URLDECODE)};
  return location;
}

std::string Location::FileUrl(std::string_view path) const {
  std::string url = origin + base;
  for (const std::string_view name : Split(path)) {
    url += "/" + EncodeSegment(name);
  }
  return url;
}

std::string Location::FolderUrl(std::string_view path) const {
  return FileUrl(path) + "/";
}

bool Location::AreSame(const std::string& asked_url, const std::string& answered_url) {
  if (asked_url == answered_url) {
    return true;
  }
  const auto asked = Parse(asked_url, false);
  const auto answered = Parse(answered_url, false);
  return asked && answered && answered_url.find('?') == std::string::npos &&
         asked->host == answered->host && asked->base == answered->base &&
         (asked->origin == answered->origin || (!asked->secure_scheme && answered->secure_scheme));
}

bool IsDrivePath(const char* path) {
  if (path == nullptr || path[0] != '/') {
    return false;
  }
  const std::string_view whole = path;
  const auto names = Split(whole);
  return whole.find("//") == std::string_view::npos &&
         std::all_of(names.begin(), names.end(), IsFileName);
}

std::string ParentOf(std::string_view path) {
  const size_t end = path.find_last_not_of('/');
  const size_t slash = end == std::string_view::npos ? end : path.rfind('/', end);
  return slash == std::string_view::npos || slash == 0 ? "/" : std::string(path.substr(0, slash));
}

bool HasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
  });
}

std::string EncodeSegment(std::string_view name) {
  std::string text;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (IsUnreserved(byte)) {
      text += c;
    } else {
      text += {'%', kHexDigits[byte >> 4], kHexDigits[byte & 0xF]};
    }
  }
  return text;
}

std::string DecodeSegment(std::string_view text) {
  std::string name;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool escaped = text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
                         HexValue(text[i + 2]) >= 0;
    if (escaped) {
      name += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      name += text[i];
    }
  }
  return name;
}

References::References(std::string_view url) {
  const std::string_view path = PathOf(url.substr(0, url.find('?')));
  Append(folder, path);
  relative_to = folder;
  if (!path.ends_with('/') && !relative_to.empty()) {
    relative_to.pop_back();
  }
}

References::Kind References::Read(std::string_view reference, std::string& name) const {
  const std::string_view path = PathOf(reference);
  std::vector<std::string> target;
  if (!path.starts_with('/')) {
    target = relative_to;
  }
  Append(target, path);
  if (target == folder) {
    return Kind::kSelf;
  }
  if (target.size() != folder.size() + 1 ||
      !std::equal(folder.begin(), folder.end(), target.begin()) || !IsFileName(target.back())) {
    return Kind::kOther;
  }
  name = std::move(target.back());
  return Kind::kChild;
}

}  // namespace tarn::webdav
