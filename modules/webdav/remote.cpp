#include "modules/webdav/remote.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "common/log.h"
#include "modules/webdav/lookup.h"
#include "modules/webdav/results.h"

namespace tarn::webdav {

namespace {

constexpr long kBasic = static_cast<long>(CURLAUTH_BASIC);
constexpr long kDigest = static_cast<long>(CURLAUTH_DIGEST);
constexpr std::chrono::milliseconds kBeforeRetry{250};

// Gives out the token of a mount request, which cannot be renewed.
class FixedToken final : public IAuth {
 public:
  explicit FixedToken(std::string text) : token(std::move(text)) {}

  bool GetValue(const char* key, char* buffer, int* length) override {
    if (std::strcmp(key, "access_token") != 0 || token.size() >= static_cast<size_t>(*length)) {
      return false;
    }
    std::memcpy(buffer, token.c_str(), token.size() + 1);
    return true;
  }
  bool Refresh() override { return false; }

 private:
  const std::string token;
};

bool OnlyReads(const Request& request) {
  return request.method == "GET" || request.method == "HEAD" || request.method == "PROPFIND";
}

bool ConnectionBroke(const Answer& answer) {
  return answer.code == CURLE_SEND_ERROR || answer.code == CURLE_RECV_ERROR ||
         answer.code == CURLE_GOT_NOTHING || answer.code == CURLE_PARTIAL_FILE;
}

bool ServerIsBusy(const Answer& answer) {
  return answer.status == 502 || answer.status == 503 || answer.status == 504;
}

}  // namespace

Remote::Remote(Settings drive_settings, Throttle& drive_throttle)
    : settings(std::move(drive_settings)),
      identity(settings.type + ":" + settings.user + "@" + settings.location.FolderUrl("/")),
      secrets(settings.user, settings.password, settings.token),
      throttle(drive_throttle),
      signature(settings.token.empty()
                    ? nullptr
                    : std::make_unique<CURLAuth>(std::make_shared<FixedToken>(settings.token))),
      pool(
          [this] { return std::make_unique<Client>(settings, secrets, signature.get(), throttle); },
          throttle) {}

AERROR Remote::Connect(std::string& message) {
  Resource root;
  Answer answer;
  AERROR error = FindRoot(*this, root, answer);
  if (Adopt(answer.url) && answer.status == 401) {  // the login was not shown to the other address
    error = FindRoot(*this, root, answer);
  }
  const bool is_file = error == SUCCESS ? !root.is_folder : error == INVALID_DIRECTORY;
  if (is_file || error == FILE_NOT_FOUND) {
    error = PATH_NOT_FOUND;
  }
  if (error != SUCCESS) {
    message = DescribeForPeople(answer, settings.location);
    __LOG__A(logger, LOGLEVEL_ERROR | LOGLEVEL_HTTP, "%s:: %s [%s:%d]", __func__, message.c_str(),
             TARN_SOURCE);
    return error;
  }
  tells_quota = root.quota_available.value_or(-1) >= 0;
  return SUCCESS;
}

// A server that sent us elsewhere on the same host is asked there from now on.
bool Remote::Adopt(const std::string& url) {
  auto found = Location::Parse(url, settings.location.IsSecure());
  if (!found || found->Host() != settings.location.Host() ||
      found->FolderUrl("/") == settings.location.FolderUrl("/")) {
    return false;
  }
  settings.location = *std::move(found);
  return true;
}

Answer Remote::Send(Request& request) {
  const Throttle::Ticket ticket = throttle.Begin();
  Answer answer = Perform(request, ticket, false);
  if (!answer.cancelled && OnlyReads(request) && ConnectionBroke(answer)) {
    return Perform(request, ticket, true);
  }
  if (OnlyReads(request) && ServerIsBusy(answer) && throttle.Rest(ticket, kBeforeRetry)) {
    return Perform(request, ticket, false);
  }
  return answer;
}

Answer Remote::Perform(Request& request, Throttle::Ticket ticket, bool fresh) {
  const Pool::Lease client = pool.Take(ticket);
  if (client == nullptr) {
    Answer cancelled;
    cancelled.code = CURLE_ABORTED_BY_CALLBACK;
    cancelled.cancelled = true;
    return cancelled;
  }
  Answer answer = client->Perform(request, ticket, schemes, fresh);
  LearnSchemes(answer);
  __LOG__A(logger, LOGLEVEL_DEBUG | LOGLEVEL_HTTP, "%s:: %s %s: %ld %s [%s:%d]", __func__,
           request.method.c_str(), secrets.CutFrom(request.url).c_str(), answer.status,
           answer.error.c_str(), TARN_SOURCE);
  return answer;
}

// With several schemes to choose from, libcurl begins every request without a login. Another host
// that requests were sent on to has no say in how this one is logged in to.
void Remote::LearnSchemes(const Answer& answer) {
  if (answer.offered_schemes == 0) {
    return;
  }
  const auto answered = Location::Parse(answer.url, false);
  if (!answered || answered->Host() != settings.location.Host()) {
    return;
  }
  if ((answer.offered_schemes & kDigest) != 0) {
    schemes = kDigest;
  } else if ((answer.offered_schemes & kBasic) != 0 && schemes != kDigest) {
    schemes = kBasic;
  }
}

}  // namespace tarn::webdav
