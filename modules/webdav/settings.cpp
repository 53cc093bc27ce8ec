#include "modules/webdav/settings.h"

#include <algorithm>
#include <utility>

#include "common/json.h"

namespace tarn::webdav {

namespace {

constexpr const char* kPlainType = "webdav";
constexpr const char* kSecureType = "webdavs";

std::string TextAt(const Json& request, const char* path) {
  return request.HasObject(path) ? std::string(request.GetObject(path)) : std::string();
}

bool HasControlCharacter(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
  });
}

}  // namespace

std::optional<Settings> ReadSettings(const std::string& connection_id, const std::string& request,
                                     std::string& message) {
  const Json document(request.data(), static_cast<unsigned int>(request.size()), 0UL);
  const Json given = document ? document : Json();
  if (!request.empty() && !document) {
    message = "The mount request cannot be read.";
    return std::nullopt;
  }
  const bool secure = TextAt(given, "/data/type") == kSecureType;
  std::optional<Location> location = Location::Parse(connection_id, secure);
  if (!location) {
    message = secure ? "The URL is not that of a folder on an https server."
                     : "The URL is not that of a folder on a web server.";
    return std::nullopt;
  }
  Settings settings;
  settings.type = location->IsSecure() ? kSecureType : kPlainType;
  settings.user = TextAt(given, "/data/user");
  settings.password = TextAt(given, "/data/password");
  settings.token = TextAt(given, "/data/token");
  settings.ca_file = TextAt(given, "/data/ca_file");
  settings.verifies_certificates =
      !given.HasObject("/data/insecure") || int{given.GetObject("/data/insecure")} != 1;
  if (settings.user.empty() && settings.token.empty()) {
    settings.user = location->GetLogin().user;
    settings.password = location->GetLogin().password;
  }
  if (HasControlCharacter(settings.token)) {
    message = "The token has characters that no token can have.";
    return std::nullopt;
  }
  settings.location = *std::move(location);
  return settings;
}

}  // namespace tarn::webdav
