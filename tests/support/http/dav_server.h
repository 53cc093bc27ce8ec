#pragma once

#include <filesystem>
#include <optional>
#include <ostream>
#include <string>

#include "tests/support/program.h"
#include "tests/support/temp_folder.h"

namespace tarn::test {

// A real WebDAV server on loopback for the life of this object, over an empty folder of its own and
// with a configuration of its own.
class DavServer {
 public:
  enum class Kind { kApache, kNginx };
  struct Options {           // Apache only
    std::string login = {};  // "Basic" or "Digest": for user "alice", password "open sesame"
    bool secure = false;     // with a certificate for `certified`, signed by itself
    std::string certified = "IP:127.0.0.1";
  };

  explicit DavServer(Kind server_kind) : DavServer(server_kind, Options{}) {}
  DavServer(Kind server_kind, Options server_options);

  // Empty when the server could not be started.
  [[nodiscard]] std::string Url(const std::string& path = "/") const;

  // Of the server's first process, the parent of the others.
  [[nodiscard]] pid_t Pid() const { return process ? process->Pid() : -1; }
  [[nodiscard]] std::filesystem::path Root() const { return folder.path() / "root"; }  // served
  [[nodiscard]] std::string Certificate() const { return folder.path() / "certificate"; }

  // Puts a file there as if another client had done it.
  void WriteFile(const std::string& name, const std::string& content) const;
  [[nodiscard]] std::string ReadFile(const std::string& name) const {
    return folder.Read("root/" + name);
  }

 private:
  void MakeCertificate() const;
  [[nodiscard]] std::string ApacheConfiguration() const;
  [[nodiscard]] std::string NginxConfiguration() const;
  [[nodiscard]] bool Start();

  Kind kind;
  Options options;
  TempFolder folder;
  int port = 0;
  std::optional<Program> process;
};

// For the names of tests.
inline std::ostream& operator<<(std::ostream& stream, DavServer::Kind kind) {
  return stream << (kind == DavServer::Kind::kApache ? "Apache" : "Nginx");
}

}  // namespace tarn::test
