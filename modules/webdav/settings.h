#pragma once

#include <string>

#include "interfaces/aerror.h"
#include "modules/webdav/location.h"

namespace tarn::webdav {

// What a mount request says about a server and how to get in.
struct Settings {
  std::string type;  // "webdav" or "webdavs"
  Location location;
  std::string user;
  std::string password;
  std::string token;    // a bearer token, which is used instead of user and password; empty: none
  std::string ca_file;  // certificates to trust instead of the system's; empty: the system's
  bool verifies_certificates = true;
};

// `connection_id` is the server's folder URL, `request` the mount request as JSON text (may be
// empty). Where that makes no sense, `message` tells people why: INVALID_PARAMETER, and
// ACCESS_DENIED for a login that no server can be shown.
[[nodiscard]] AERROR ReadSettings(const std::string& connection_id, const std::string& request,
                                  Settings& settings, std::string& message);

}  // namespace tarn::webdav
