#include "modules/webdav/client.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "common/log.h"

namespace tarn::webdav {

namespace {

constexpr long kDigest = static_cast<long>(CURLAUTH_DIGEST);
constexpr long kBufferBytes = 256L * 1024;
// From this size on the server is asked whether it wants a file before it is sent. For less, the
// question would cost more time than a refusal.
constexpr unsigned long long kExpectFromBytes = 1024ULL * 1024;
constexpr size_t kMaxExcerptBytes = 4096;
constexpr size_t kMaxDiscardedBytes = size_t{1024} * 1024;
constexpr long long kMostShares = 64;  // of a speed limit, some transfers getting less than others
constexpr long kNonceDeadlineSeconds = 30;
constexpr int kPollMs = 500;  // libcurl shortens it to what its own timers need

// What is kept of an answer's head beside its status.
constexpr std::pair<std::string_view, std::string Answer::*> kKeptHeaders[] = {
    {"ETag", &Answer::etag},
    {"Content-Range", &Answer::range},
    {"Last-Modified", &Answer::modified},
    {"Content-Type", &Answer::type},
};

// The value of a header line that has this name; empty otherwise.
std::string_view ValueOf(std::string_view line, std::string_view name) {
  if (line.size() <= name.size() || line[name.size()] != ':' ||
      ::strncasecmp(line.data(), name.data(), name.size()) != 0) {
    return {};
  }
  line.remove_prefix(name.size() + 1);
  const size_t first = line.find_first_not_of(" \t");
  const size_t last = line.find_last_not_of(" \t\r\n");
  return first == std::string_view::npos ? std::string_view()
                                         : line.substr(first, last - first + 1);
}

}  // namespace

bool Content::Rewind() {
  if (position > 0 && source.rewind(source.context) != 0) {
    is_broken = true;
    return false;
  }
  position = 0;
  return true;
}

// One request while it runs; what the callbacks see.
struct Client::Running {
  Client& client;
  Request& request;
  const Throttle::Ticket ticket;
  Answer answer{};
  bool has_head = false;       // of an answer to what has been sent since the last rewind
  size_t discarded_bytes = 0;  // of bodies that nobody takes
};

// libcurl's callbacks. None lets an exception through.
struct Client::Callbacks {
  static size_t Head(char* data, size_t size, size_t count, void* context) noexcept {
    auto& running = *static_cast<Running*>(context);
    const std::string_view line(data, size * count);
    Answer& answer = running.answer;
    running.has_head = true;
    if (line.starts_with("HTTP/")) {  // the answers before, to redirects for instance, are void
      answer = {};
      ReadStatusLine(line, answer);
      return line.size();
    }
    for (const auto& [name, field] : kKeptHeaders) {
      if (const auto value = ValueOf(line, name); !value.empty()) {
        answer.*field = value;
      }
    }
    return line.size();
  }

  static size_t Body(char* data, size_t size, size_t count, void* context) noexcept {
    auto& running = *static_cast<Running*>(context);
    Request& request = running.request;
    const std::string_view part(data, size * count);
    if (request.sink == nullptr || running.answer.status / 100 != 2) {
      return Discard(running, part) ? part.size() : 0;
    }
    if (request.counts_as_transfer &&
        !running.client.throttle.Pass(running.ticket, static_cast<long long>(part.size()))) {
      return 0;
    }
    running.answer.length = running.client.GetLength();
    const BodySink::Verdict verdict = request.sink->Take(running.answer, part);
    running.answer.was_enough = verdict == BodySink::Verdict::kEnough;
    running.answer.is_garbled = verdict == BodySink::Verdict::kBad;
    return verdict == BodySink::Verdict::kMore ? part.size() : 0;
  }

  static size_t Content(char* data, size_t size, size_t count, void* context) noexcept {
    auto& running = *static_cast<Running*>(context);
    webdav::Content& content = *running.request.content;
    Throttle& throttle = running.client.throttle;
    const auto wanted =
        std::min<unsigned long long>({size * count, content.size - content.position,
                                      static_cast<unsigned long long>(throttle.PartBytes())});
    if (wanted == 0) {
      return 0;
    }
    const long long bytes =
        content.source.read(content.source.context, data, static_cast<long long>(wanted));
    content.is_broken = bytes <= 0 || static_cast<unsigned long long>(bytes) > wanted;
    if (content.is_broken || !throttle.Pass(running.ticket, bytes)) {
      return CURL_READFUNC_ABORT;
    }
    content.position += static_cast<unsigned long long>(bytes);
    return static_cast<size_t>(bytes);
  }

  // A redirect or a wish for a login asks for the content again. A connection that broke does so
  // too, but then nobody knows what the server has done with what was sent.
  static int Seek(void* context, curl_off_t offset, int origin) noexcept {
    auto& running = *static_cast<Running*>(context);
    webdav::Content& content = *running.request.content;
    const bool may_rewind = content.position == 0 || running.has_head;
    running.has_head = false;
    return offset == 0 && origin == SEEK_SET && may_rewind && content.Rewind() ? CURL_SEEKFUNC_OK
                                                                               : CURL_SEEKFUNC_FAIL;
  }

 private:
  static void ReadStatusLine(std::string_view line, Answer& answer) {
    const size_t status = std::min(line.find(' '), line.size());
    const size_t reason = std::min(line.find(' ', status + 1), line.size());
    answer.status = std::strtol(std::string(line.substr(status)).c_str(), nullptr, 10);
    answer.reason = line.substr(reason, line.find_last_not_of(" \t\r\n") + 1 - reason);
  }

  // Keeps the beginning of an answer that tells of a failure. False: enough of it.
  static bool Discard(Running& running, std::string_view part) {
    std::string& excerpt = running.answer.excerpt;
    excerpt += part.substr(0, kMaxExcerptBytes - excerpt.size());
    running.discarded_bytes += part.size();
    running.answer.was_enough = running.discarded_bytes > kMaxDiscardedBytes;
    return !running.answer.was_enough;
  }
};

Client::Client(const Settings& drive_settings, const Secrets& drive_secrets, CURLAuth* signature,
               Throttle& drive_throttle)
    : settings(drive_settings),
      secrets(drive_secrets),
      auth(signature),
      throttle(drive_throttle),
      multi(curl_multi_init(), &curl_multi_cleanup) {
  CURL* const curl = easy.get();
  curl_multi_setopt(multi.get(), CURLMOPT_MAXCONNECTS, 1L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error_text.data());
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
#if LIBCURL_VERSION_NUM >= 0x075700
  curl_easy_setopt(curl, CURLOPT_QUICK_EXIT,
                   1L);  // no waiting for a name that nobody needs any more
#endif
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kBufferBytes);
  curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, kBufferBytes);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, Callbacks::Head);
  // A redirect keeps the method, and never leads from a secure connection to an open one.
  curl_easy_setopt(curl, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
  const char* const schemes = settings.location.IsSecure() ? "https" : "http,https";
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, schemes);
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, schemes);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, settings.verifies_certificates ? 1L : 0L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, settings.verifies_certificates ? 2L : 0L);
  if (!settings.ca_file.empty()) {
    curl_easy_setopt(curl, CURLOPT_CAINFO, settings.ca_file.c_str());
    curl_easy_setopt(curl, CURLOPT_CAPATH, static_cast<char*>(nullptr));
  }
  if (auth == nullptr && !settings.user.empty()) {
    curl_easy_setopt(curl, CURLOPT_USERNAME, settings.user.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, settings.password.c_str());
  }
}

Client::~Client() = default;

Answer Client::Perform(Request& asked, Throttle::Ticket ticket, long schemes, bool fresh) {
  if (easy == nullptr || multi == nullptr) {
    Answer failed;
    failed.code = CURLE_FAILED_INIT;
    return failed;
  }
  if (asked.content != nullptr && schemes == kDigest && !knows_nonce) {
    KnowNonce(ticket);
  }
  Running running{.client = *this, .request = asked, .ticket = ticket};
  if (asked.sink != nullptr) {
    asked.sink->Begin();
  }
  const HeaderLines lines = Prepare(running);
  curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, lines.get());
  curl_easy_setopt(easy.get(), CURLOPT_HTTPAUTH, schemes);
  // After a Cancel, because the machine has slept for instance, a connection may be dead untold.
  const bool is_old = throttle.IsCancelled(std::exchange(last_ticket, ticket));
  curl_easy_setopt(easy.get(), CURLOPT_FRESH_CONNECT, fresh || is_old ? 1L : 0L);
  Run(running);
  Clear();
  curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
  knows_nonce |= schemes == kDigest && running.answer.IsGood();
  return std::move(running.answer);
}

// Sets everything that differs from request to request. The list of header lines is in use until
// the request has ended.
Client::HeaderLines Client::Prepare(Running& running) {
  CURL* const curl = easy.get();
  const Request& asked = running.request;
  secrets.InstallTrace(curl);
  error_text.fill('\0');
  SetTimeLimits(asked);
  curl_easy_setopt(curl, CURLOPT_URL, asked.url.c_str());
  // Only reading is led elsewhere: a change that lands on another resource, a login page perhaps,
  // would be taken for done.
  const bool reads = asked.method == "GET" || asked.method == "HEAD" || asked.method == "PROPFIND";
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, reads ? 1L : 0L);
  curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);  // ends what an upload or a HEAD before had set
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, asked.method.c_str());
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &running);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Callbacks::Body);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &running);
  // The ranges and the length of a file are those of its own bytes, never of packed ones.
  curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, asked.body.empty() ? nullptr : "");
  if (asked.method == "HEAD") {
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  }
  if (!asked.body.empty()) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, asked.body.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(asked.body.size()));
    AddHeader("Content-Type", "application/xml; charset=utf-8");
  }
  if (asked.content != nullptr) {
    PrepareUpload(running);
  }
  for (const auto& [name, value] : asked.headers) {
    AddHeader(name, value);
  }
  if (auth != nullptr) {
    auth->SignAuthentication(this);
  }
  return HeaderLines(BuildHeader(), &curl_slist_free_all);
}

void Client::SetTimeLimits(const Request& asked) {
  const long long speed_limit = throttle.GetLimit();
  const long long fair_share = speed_limit / kMostShares;
  const long slowest =
      speed_limit == 0
          ? kSlowestBytesPerSecond
          : static_cast<long>(std::clamp(fair_share, 1LL, 0LL + kSlowestBytesPerSecond));
  curl_easy_setopt(easy.get(), CURLOPT_LOW_SPEED_LIMIT, slowest);
  SetLowSpeedTimeout(asked.stall_limit_s);
  curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT, asked.deadline_s);
}

void Client::PrepareUpload(Running& running) {
  const Content& content = *running.request.content;
  CURL* const curl = easy.get();
  curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
  SetPostFileSize(static_cast<long long>(content.size));
  curl_easy_setopt(curl, CURLOPT_READFUNCTION, Callbacks::Content);
  curl_easy_setopt(curl, CURLOPT_READDATA, &running);
  curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, Callbacks::Seek);
  curl_easy_setopt(curl, CURLOPT_SEEKDATA, &running);
  if (content.size < kExpectFromBytes) {
    AddHeader("Expect", "");
  }
  if (content.progress != nullptr) {
    BindHandle(std::make_shared<_FS_HANDLE>(
        _FS_HANDLE{.upload_progress = content.progress, .upload_context = content.context}));
  }
}

void Client::Run(Running& running) {
  CURLcode code = CURLE_ABORTED_BY_CALLBACK;
  curl_multi_add_handle(multi.get(), easy.get());
  int active = 1;
  while (curl_multi_perform(multi.get(), &active) == CURLM_OK && active > 0 &&
         !throttle.IsCancelled(running.ticket)) {
    curl_multi_poll(multi.get(), nullptr, 0, kPollMs, nullptr);
  }
  int left = 0;
  while (const CURLMsg* const message = curl_multi_info_read(multi.get(), &left)) {
    code = message->msg == CURLMSG_DONE ? message->data.result : code;
  }
  Conclude(running.answer, code);
  running.answer.cancelled = code != CURLE_OK && throttle.IsCancelled(running.ticket);
  curl_multi_remove_handle(multi.get(), easy.get());
}

long long Client::GetLength() const {
  curl_off_t length = -1;
  curl_easy_getinfo(easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  return length;
}

void Client::Conclude(Answer& answer, CURLcode code) {
  char* effective_url = nullptr;
  curl_easy_getinfo(easy.get(), CURLINFO_EFFECTIVE_URL, &effective_url);
  curl_easy_getinfo(easy.get(), CURLINFO_HTTPAUTH_AVAIL, &answer.offered_schemes);
  answer.code = code;
  answer.error =
      secrets.CutFrom(error_text[0] != '\0' ? error_text.data() : curl_easy_strerror(code));
  answer.reason = secrets.CutFrom(answer.reason);
  answer.excerpt = secrets.CutFromBeginning(answer.excerpt, kMaxExcerptBytes);
  answer.url = effective_url != nullptr ? effective_url : "";
  answer.length = GetLength();
}

// Without a nonce, libcurl sends an empty PUT to be asked for a login, which a server that does not
// ask would store. A request that changes nothing gets the nonce instead.
void Client::KnowNonce(Throttle::Ticket ticket) {
  Request head{.method = "HEAD",
               .url = settings.location.FolderUrl("/"),
               .deadline_s = kNonceDeadlineSeconds};
  (void)Perform(head, ticket, kDigest, false);
}

void Client::Wake() {
  (void)curl_multi_wakeup(multi.get());  // fails only without a handle, and then nothing runs
}

}  // namespace tarn::webdav
