#include "modules/webdav/results.h"

#include <algorithm>

#include "common/log.h"

namespace tarn::webdav {

namespace {

constexpr size_t kMaxReasonBytes = 300;

// What the server says: the reason in its status line and the words of its page.
std::string WordsOf(const Answer& answer) {
  std::string words = std::to_string(answer.status) + answer.reason + ": ";
  bool in_markup = false;
  for (const char c : answer.excerpt) {
    const auto byte = static_cast<unsigned char>(c);
    const bool is_blank = byte <= ' ' || byte == 0x7F || in_markup || c == '<' || c == '>';
    in_markup = (in_markup || c == '<') && c != '>';
    if (!is_blank) {
      words += c;
    } else if (words.back() != ' ') {
      words += ' ';
    }
  }
  return words.substr(0, kMaxReasonBytes);
}

bool IsCertificateFailure(CURLcode code) {
  return code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_ISSUER_ERROR;
}

AERROR ResultOfStatus(long status) {
  switch (status) {
    case 401:
    case 403:
    case 407:
      return ACCESS_DENIED;
    case 404:
    case 410:
      return FILE_NOT_FOUND;
    case 409:
      return PATH_NOT_FOUND;
    case 412:
    case 423:
      return SHARING_VIOLATION;
    case 414:
      return INVALID_NAME;
    case 405:
    case 501:
      return NOT_SUPPORTED;
    case 408:
    case 429:
    case 502:
    case 503:
    case 504:
      return DEVICE_NOT_READY;
    default:
      return FAILED;
  }
}

// A refusal counts also when the connection broke after it: servers do not always wait for the rest
// of a file that they refuse.
bool HasStatus(const Answer& answer) {
  return answer.status >= 400 ||
         (answer.status >= 200 && (answer.code == CURLE_OK || answer.was_enough));
}

}  // namespace

AERROR ResultOfReading(const Answer& answer) {
  if (answer.IsGood()) {
    return SUCCESS;
  }
  if (answer.cancelled) {
    return READ_CANCELED;
  }
  if (answer.is_garbled) {
    return FAILED;
  }
  if (!HasStatus(answer)) {
    return DEVICE_NOT_READY;
  }
  return ResultOfStatus(answer.status);
}

bool IsDone(const Answer& answer) {
  return answer.IsGood() && (answer.status == 200 || answer.status == 201 || answer.status == 204);
}

AERROR ResultOfChanging(const Answer& answer) {
  if (IsDone(answer)) {
    return SUCCESS;
  }
  if (answer.cancelled) {
    return UPLOAD_CANCELED;
  }
  const std::string words = HasStatus(answer) ? WordsOf(answer) : answer.error;
  __LOG__A(logger, LOGLEVEL_ERROR | LOGLEVEL_HTTP, "%s:: refused: %s [%s:%d]", __func__,
           words.c_str(), TARN_SOURCE);
  if (!HasStatus(answer)) {
    return DEVICE_NOT_READY;
  }
  const AERROR error = ResultOfStatus(answer.status);
  return error == FAILED || error == NOT_SUPPORTED ? FILE_WRITE_FAILED : error;
}

std::string DescribeForPeople(const Answer& answer, const Location& location) {
  const std::string& host = location.Host();
  if (answer.code == CURLE_COULDNT_RESOLVE_HOST) {
    return "The server name " + host + " cannot be resolved.";
  }
  if (answer.code == CURLE_COULDNT_CONNECT) {
    return "The server " + host + " refuses connections or cannot be reached: " + answer.error;
  }
  if (IsCertificateFailure(answer.code)) {
    return "The certificate of the server " + host + " cannot be verified: " + answer.error;
  }
  if (answer.is_garbled) {
    return "The server " + host + " sends what is no WebDAV answer.";
  }
  if (!HasStatus(answer)) {
    return "The server " + host + " does not answer: " + answer.error;
  }
  if (answer.status == 401) {
    return "The server " + host + " does not accept this user and password or token.";
  }
  if (answer.status == 403) {
    return "The server " + host + " forbids access to this folder.";
  }
  if (answer.status == 404 || answer.status == 410) {
    return "The server " + host + " has no such folder.";
  }
  if (answer.status == 207 || answer.status == 400) {
    return "What the URL names on the server " + host + " is no folder.";
  }
  return "The server " + host + " does not offer this folder through WebDAV: " + WordsOf(answer);
}

}  // namespace tarn::webdav
