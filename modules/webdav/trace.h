#pragma once

#include <curl/curl.h>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::webdav {

// What a drive has to keep to itself. Any thread; lives as long as what is traced with it.
class Secrets {
 public:
  // All may be empty.
  Secrets(const std::string& user, const std::string& password, const std::string& token);

  // Header lines, a page or a message of libcurl without what must not be known: credentials are
  // cut to their scheme, cookies and the queries of URLs are cut away, and the secrets themselves
  // wherever a server repeats them, as they are or encoded.
  [[nodiscard]] std::string CutFrom(std::string_view text) const;

  // The same for a text that was cut off at this length, perhaps within a secret.
  [[nodiscard]] std::string CutFromBeginning(std::string_view text, size_t cut_at_bytes) const;

  // Switches libcurl's trace on the handle into the log on or off, after the logger's threshold.
  void InstallTrace(CURL* handle) const;

 private:
  void Add(const std::string& secret);

  std::vector<std::string> forms;  // longest first
};

}  // namespace tarn::webdav
