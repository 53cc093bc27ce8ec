#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "common/throttle.h"
#include "interfaces/aerror.h"
#include "modules/webdav/client.h"
#include "modules/webdav/pool.h"
#include "modules/webdav/settings.h"

namespace tarn::webdav {

// The server's folder that a drive shows, and the way to it.
// Owns:    the connections. Refers to the throttle of the drive.
// Threads: Connect before everything else; then any.
class Remote {
 public:
  Remote(Settings drive_settings, Throttle& drive_throttle);

  // Asks for the folder. Where that fails, `message` tells people why.
  [[nodiscard]] AERROR Connect(std::string& message);

  // Sends a request and waits for the answer. What only reads is sent once more when the connection
  // broke or the server was busy.
  [[nodiscard]] Answer Send(Request& request);

  // What must not be told of the drive.
  [[nodiscard]] const Secrets& GetSecrets() const { return secrets; }

  // Has running requests end that the throttle has cancelled.
  void Wake() { pool.Wake(); }

  [[nodiscard]] const Location& GetLocation() const { return settings.location; }
  [[nodiscard]] const Settings& GetSettings() const { return settings; }
  // Names server, folder and user as the mount request did.
  [[nodiscard]] const std::string& GetIdentity() const { return identity; }
  [[nodiscard]] bool TellsQuota() const { return tells_quota; }

  // Whether the server heeds If-Match and If-None-Match with an upload. Not all do, some only one
  // of them, and those that do not store the file.
  enum class Conditions { kUnknown, kHeeded, kIgnored };
  [[nodiscard]] Conditions GetMatch() const { return match; }
  void SetMatch(Conditions known) { match = known; }
  [[nodiscard]] Conditions GetNoneMatch() const { return none_match; }
  void SetNoneMatch(Conditions known) { none_match = known; }

 private:
  [[nodiscard]] Answer Perform(Request& request, Throttle::Ticket ticket, bool fresh);
  [[nodiscard]] bool Adopt(const std::string& url);
  void LearnSchemes(const Answer& answer);

  Settings settings;
  const std::string identity;
  const Secrets secrets;
  Throttle& throttle;
  std::unique_ptr<CURLAuth> signature;  // null without a token
  std::atomic<long> schemes{CURLAUTH_BASIC | CURLAUTH_DIGEST};
  std::atomic<Conditions> match{Conditions::kUnknown};
  std::atomic<Conditions> none_match{Conditions::kUnknown};
  bool tells_quota = false;
  Pool pool;
};

}  // namespace tarn::webdav
