#include "modules/webdav/settings.h"

#include <optional>
#include <utility>

#include "common/json.h"

namespace tarn::webdav {

namespace {

constexpr const char* kPlainType = "webdav";
constexpr const char* kSecureType = "webdavs";

std::string TextAt(const Json& request, const char* path) {
  return request.HasObject(path) ? std::string(request.GetObject(path)) : std::string();
}

}  // namespace

AERROR ReadSettings(const std::string& connection_id, const std::string& request,
                    Settings& settings, std::string& message) {
  const Json document(request.data(), static_cast<unsigned int>(request.size()), 0UL);
  const Json given = document ? document : Json();
  if (!request.empty() && !document) {
    message = "The mount request cannot be read.";
    return INVALID_PARAMETER;
  }
  const bool secure = TextAt(given, "/data/type") == kSecureType;
  std::optional<Location> location = Location::Parse(connection_id, secure);
  if (!location) {
    message = secure ? "The URL is not that of a folder on an https server."
                     : "The URL is not that of a folder on a web server.";
    return INVALID_PARAMETER;
  }
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
  for (const std::string& text : {settings.user, settings.password, settings.token}) {
    if (HasControlCharacter(text)) {  // would be lines of their own in a request's head
      message = "User, password or token have characters that none can have.";
      return ACCESS_DENIED;
    }
  }
  settings.location = *std::move(location);
  return SUCCESS;
}

}  // namespace tarn::webdav
