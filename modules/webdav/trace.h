#pragma once

#include <curl/curl.h>
#include <string>
#include <string_view>

namespace tarn::webdav {

// Header lines or a message of libcurl without what must not be known: credentials are cut to their
// scheme, cookies and the queries of URLs are cut away.
[[nodiscard]] std::string WithoutSecrets(std::string_view text);

// Switches libcurl's trace on the handle into the log on or off, after the logger's threshold.
void InstallTrace(CURL* handle);

}  // namespace tarn::webdav
