#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "common/sync.h"
#include "tests/support/endpoint.h"

namespace tarn::test {

// An HTTP server on loopback, in this process, that answers as a script says; for the answers that
// real servers give rarely. Keeps connections alive unless the script says otherwise.
class ScriptedServer {
 public:
  struct Request {
    std::string method{};
    std::string target{};
    std::string head{};
    std::string body{};

    // The value of a header; empty where it is missing.
    [[nodiscard]] std::string Header(const std::string& name) const;
  };
  struct Reply {
    // NOLINTNEXTLINE(google-explicit-constructor): most replies are their bytes alone
    Reply(std::string to_send, bool closes_then = false, std::chrono::milliseconds pause = {})
        : bytes(std::move(to_send)), closes(closes_then), between_bytes(pause) {}
    std::string bytes;                        // as they go over the wire
    bool closes;                              // the connection, after them
    std::chrono::milliseconds between_bytes;  // 0: all at once
  };
  using Script = std::function<Reply(const Request&)>;

  // The script runs on a thread per connection.
  explicit ScriptedServer(Script script_to_follow);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  [[nodiscard]] std::string Url(const std::string& path = "/") const {
    return "http://127.0.0.1:" + std::to_string(endpoint.port) + path;
  }
  [[nodiscard]] std::vector<Request> Requests();

  // How often a method has been asked for.
  [[nodiscard]] int Count(std::string_view method);

 private:
  void Accept();
  void Serve(int socket);

  const Script script;
  Endpoint endpoint;  // where it listens
  Mutex lock;
  std::vector<Request> requests TARN_GUARDED_BY(lock);
  std::list<UniqueFd> sockets TARN_GUARDED_BY(lock);  // closed when all threads have ended
  std::list<std::thread> threads;                     // of Accept
  std::thread acceptor;
};

// A whole answer with its length. `headers` are lines with their ends.
[[nodiscard]] std::string HttpAnswer(int status, const std::string& body = "",
                                     const std::string& headers = "");

// A multistatus answer with these <D:response> elements.
[[nodiscard]] std::string MultistatusAnswer(const std::string& responses);

// A <D:response> element with properties that were found.
[[nodiscard]] std::string DavResponse(const std::string& href, const std::string& properties);
inline constexpr const char* kDavFolder = "<D:resourcetype><D:collection/></D:resourcetype>";

}  // namespace tarn::test
