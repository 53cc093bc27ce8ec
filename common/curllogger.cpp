#include "common/curllogger.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "common/log.h"

namespace {

// A figure for "%d": what is too large for an int is shown as the largest.
template <typename Number>
int Figure(Number value) {
  constexpr int largest = std::numeric_limits<int>::max();
  if (value >= static_cast<Number>(largest)) {
    return largest;
  }
  return static_cast<int>(value);
}

}  // namespace

CURLLogger::CURLLogger() {
  curl_easy_setopt(easy.get(), CURLOPT_ERRORBUFFER, error_text.data());
}

void CURLLogger::InstallLogger() {
  if (logger == nullptr) {
    return;
  }
  const bool traced = (logger->GetLevel() & LOGLEVEL_DEBUG) != 0;
  curl_easy_setopt(easy.get(), CURLOPT_VERBOSE, traced ? 1L : 0L);
  curl_easy_setopt(easy.get(), CURLOPT_DEBUGFUNCTION,
                   traced ? CURLDebug : static_cast<curl_debug_callback>(nullptr));
}

void CURLLogger::BeginRequest() {
  const std::string requested = ComposeURL(BuildQueryString(false));
  InstallLogger();
  last_url = Unescape(requested);
}

_CURLRTN CURLLogger::PerformGet(void* write_function, void* write_data) {
  BeginRequest();
  _CURLRTN result = CURLImpl::PerformGet(write_function, write_data);
  __LOG__A(logger, LOGLEVEL_DEBUG | LOGLEVEL_TRANSFER, "Download %db/s : %s(%d bytes)",
           Figure(result.download_speed), url.c_str(), Figure(result.body_length));
  return result;
}

_CURLRTN CURLLogger::PerformPost(std::string body) {
  BeginRequest();
  const auto size_bytes = static_cast<long long>(body.size());
  _CURLRTN result = CURLImpl::PerformPost(std::move(body));
  LogUpload(result, size_bytes);
  return result;
}

_CURLRTN CURLLogger::PerformPost(void* read_function, void* read_data, long long size) {
  BeginRequest();
  _CURLRTN result = CURLImpl::PerformPost(read_function, read_data, size);
  LogUpload(result, size);
  return result;
}

void CURLLogger::LogUpload(const _CURLRTN& result, long long size_bytes) const {
  __LOG__A(logger, LOGLEVEL_DEBUG | LOGLEVEL_TRANSFER,
           "Upload %db/s / Download %db/s : %s(%d / %d bytes)", Figure(result.upload_speed),
           Figure(result.download_speed), url.c_str(), Figure(size_bytes),
           Figure(result.body_length));
}

int CURLDebug(CURL*, curl_infotype type, char* data, size_t size, void*) {
  const std::string text(data, size);
  const bool ends_header = text.starts_with('\r');
  if (type == CURLINFO_TEXT) {
    __LOG__A(logger, LOGLEVEL_INFO | LOGLEVEL_HTTP, "[INFORMATION] %s", text.c_str());
  } else if (type == CURLINFO_HEADER_IN && !ends_header) {
    __LOG__A(logger, LOGLEVEL_DEBUG | LOGLEVEL_HTTP, "[HEADER   >>] %s", text.c_str());
  } else if (type == CURLINFO_HEADER_OUT && !ends_header && !text.starts_with("PASS ")) {
    __LOG__A(logger, LOGLEVEL_DEBUG | LOGLEVEL_HTTP, "[HEADER   <<] %s", text.c_str());
  }
  return 0;
}
