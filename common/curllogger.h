#pragma once

#include <string>

#include "common/curlimpl.h"

// A CURLImpl that traces its transfers into the process's log: headers while the logger's threshold
// shows debug messages, and a summary after each request. Results carry libcurl's error text.
// The trace shows headers as they are sent, credentials among them.
class CURLLogger : public CURLImpl {
 public:
  CURLLogger();

  _CURLRTN PerformGet(void* write_function, void* write_data) override;
  _CURLRTN PerformPost(std::string body) override;
  _CURLRTN PerformPost(void* read_function, void* read_data, long long size) override;

  // Switches the trace on or off after the logger's current threshold; every request does it.
  void InstallLogger();

  // The URL of the last request with its parameters, percent-decoded.
  [[nodiscard]] std::string GetLastURL() const { return last_url; }

 private:
  void BeginRequest();
  void LogUpload(const _CURLRTN& result, long long size_bytes) const;

  std::string last_url;
};

// libcurl's debug callback behind the trace. Returns 0.
int CURLDebug(CURL* handle, curl_infotype type, char* data, size_t size, void* user);
