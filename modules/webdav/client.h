#pragma once

#include <curl/curl.h>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/curlauth.h"
#include "common/curlimpl.h"
#include "common/throttle.h"
#include "interfaces/fs_types.h"
#include "modules/webdav/settings.h"
#include "modules/webdav/trace.h"

namespace tarn::webdav {

// What came back, its texts for people without secrets. `code` is not CURLE_OK where there was no
// whole answer; `status` tells the rest.
struct Answer {
  CURLcode code = CURLE_OK;
  long status = 0;           // HTTP status; 0: none came
  std::string error;         // libcurl's words
  std::string url;           // what was answered in the end, after redirects
  std::string reason;        // what follows the status in the status line
  std::string excerpt;       // beginning of the body of an answer that tells of a failure
  std::string etag;          // empty: none
  std::string range;         // "Content-Range", empty: none
  std::string modified;      // "Last-Modified", empty: none
  std::string type;          // "Content-Type", empty: none
  long long length = -1;     // "Content-Length" in bytes; -1: none
  long offered_schemes = 0;  // CURLAUTH_ bits of a server that wanted a login
  bool cancelled = false;
  bool was_enough = false;  // the sink wanted no more
  bool is_garbled = false;  // the sink could make nothing of it

  [[nodiscard]] bool IsGood() const {
    return (code == CURLE_OK || was_enough) && status >= 200 && status < 300;
  }
};

// Takes the body of a good answer.
class BodySink {
 public:
  enum class Verdict { kMore, kEnough, kBad };

  virtual ~BodySink() = default;
  virtual void Begin() = 0;  // an answer follows; what an attempt before gave is void
  virtual Verdict Take(const Answer& head, std::string_view part) = 0;
};

// The content of a file on its way out.
struct Content {
  FS_SOURCE& source;
  unsigned long long size;  // bytes
  FS_PROGRESS progress;     // null: nobody wants to know
  void* context;
  unsigned long long position = 0;
  bool is_broken = false;  // the source failed

  // Back to the first byte. False: the source cannot.
  [[nodiscard]] bool Rewind();
};

struct Request {
  std::string method{};
  std::string url{};
  std::vector<std::pair<std::string, std::string>> headers{};
  std::string body{};               // of a PROPFIND
  BodySink* sink = nullptr;         // null: the body of the answer does not matter
  Content* content = nullptr;       // of a PUT
  bool counts_as_transfer = false;  // the answer's body is held to the speed limit
  long stall_limit_s = 20;          // at less than kSlowestBytesPerSecond, either way
  long deadline_s = 0;              // for the whole answer; 0: none, as long as it goes on
};

// What is slower for the time of a request's stall limit counts as not moving. A drive with a speed
// limit that is shared by many transfers bears less.
inline constexpr long kSlowestBytesPerSecond = 100;

// One connection to the server, on which one request runs at a time.
// Owns:    its easy handle and connection. Refers to settings, secrets, signature and throttle of
//          the drive.
// Threads: Perform on the thread that holds the client; Wake on any.
// Errors:  all in Answer.
class Client : public CURLImpl {
 public:
  // `signature`: what signs requests with a token; null: user and password, if any.
  Client(const Settings& drive_settings, const Secrets& drive_secrets, CURLAuth* signature,
         Throttle& drive_throttle);
  ~Client() override;

  // `schemes`: the CURLAUTH_ bits to answer a server's wish for a login with. `fresh`: not on a
  // connection that was used before; nor is one that was used before the last Cancel.
  [[nodiscard]] Answer Perform(Request& asked, Throttle::Ticket ticket, long schemes, bool fresh);

  // Has a running Perform look whether it was cancelled.
  void Wake();

 private:
  struct Running;
  struct Callbacks;

  using HeaderLines = std::unique_ptr<curl_slist, void (*)(curl_slist*)>;
  [[nodiscard]] HeaderLines Prepare(Running& running);
  void PrepareUpload(Running& running);
  void SetTimeLimits(const Request& asked);
  void Run(Running& running);
  void Conclude(Answer& answer, CURLcode code);
  [[nodiscard]] long long GetLength() const;  // of the answer in bytes; -1: unknown
  void KnowNonce(Throttle::Ticket ticket);

  const Settings& settings;
  const Secrets& secrets;
  CURLAuth* const auth;
  Throttle& throttle;
  std::unique_ptr<CURLM, CURLMcode (*)(CURLM*)> multi;
  Throttle::Ticket last_ticket = 0;
  bool knows_nonce = false;  // a digest login has succeeded on this client
};

}  // namespace tarn::webdav
