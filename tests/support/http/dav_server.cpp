#include "tests/support/http/dav_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <utility>

#include "common/posix.h"

namespace tarn::test {

namespace {

constexpr int kAttempts = 3;                      // somebody else may take the free port first
constexpr const char* kServersUser = "www-data";  // what a server started by root becomes

// The passwords are "open sesame".
constexpr const char* kBasicLogins = "alice:{SHA}W8r/fyL/UzygmbNAjq2HbA67qac=\n";
constexpr const char* kDigestLogins = "alice:dav:9bab765b464a46a8866d905f9217be99\n";

// Calls ::bind or ::connect with a port on loopback; 0: any. Returns the port, -1 after a failure.
template <typename Call>
int PortFor(Call call, int port) {
  const UniqueFd socket = OpenSocket(AF_INET, SOCK_STREAM);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  const bool is_done = call(socket.get(), generic, length) == 0;
  (void)::getsockname(socket.get(), generic, &length);
  return is_done ? ntohs(address.sin_port) : -1;
}

void GiveToServer(const std::filesystem::path& path) {
  const passwd* const account = ::geteuid() == 0 ? ::getpwnam(kServersUser) : nullptr;
  if (account != nullptr) {
    (void)::chown(path.c_str(), account->pw_uid, account->pw_gid);
  }
}

std::string LoadModules(std::initializer_list<const char*> names) {
  std::string lines;
  for (const std::string name : names) {
    lines.append("LoadModule ").append(name).append("_module /usr/lib/apache2/modules/mod_");
    lines.append(name).append(".so\n");
  }
  return lines;
}

}  // namespace

DavServer::DavServer(Kind server_kind, Options server_options)
    : kind(server_kind), options(std::move(server_options)) {
  for (const char* name : {"root", "work"}) {
    std::filesystem::create_directory(folder.path() / name);
    GiveToServer(folder.path() / name);
  }
  std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
  if (options.secure) {
    MakeCertificate();
  }
  for (int attempt = 0; attempt < kAttempts && !Start(); ++attempt) {
    process.reset();
  }
}

bool DavServer::Start() {
  port = PortFor(::bind, 0);
  const bool is_apache = kind == Kind::kApache;
  const std::string file =
      folder.Write("configuration", is_apache ? ApacheConfiguration() : NginxConfiguration());
  process.emplace(is_apache
                      ? std::vector<std::string>{"apache2", "-DFOREGROUND", "-f", file}
                      : std::vector<std::string>{"nginx", "-c", file, "-e", folder.path() / "log"});
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  bool answers = false;
  while (process->Running() && !answers && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    answers = PortFor(::connect, port) >= 0;
  }
  return answers && process->Running();
}

std::string DavServer::Url(const std::string& path) const {
  const std::string scheme = options.secure ? "https" : "http";
  return process ? scheme + "://127.0.0.1:" + std::to_string(port) + path : "";
}

void DavServer::WriteFile(const std::string& name, const std::string& content) const {
  GiveToServer(folder.Write("root/" + name, content));
}

void DavServer::MakeCertificate() const {
  ChildProcess openssl({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                        "/CN=tarn test", "-addext", "subjectAltName=" + options.certified,
                        "-keyout", folder.path() / "key", "-out", Certificate()});
  openssl.WaitForEnd();
}

std::string DavServer::ApacheConfiguration() const {
  const std::string base = folder.path();
  std::string lines = LoadModules({"mpm_event", "authz_core", "dav", "dav_fs"});
  lines += "ServerRoot " + base +
           "\nServerName 127.0.0.1\nListen 127.0.0.1:" + std::to_string(port) + "\nPidFile " +
           base + "/pid\nErrorLog " + base + "/log\nDavLockDB " + base +
           "/work/locks\nDocumentRoot " + base +
           "/root\nStartServers 1\nLimitRequestBody 0\nAllowEncodedSlashes NoDecode\n";
  if (::geteuid() == 0) {
    lines += std::string("User ") + kServersUser + "\nGroup " + kServersUser + "\n";
  }
  std::string access = "Require all granted\n";
  if (options.login != Login::kNone) {
    const bool is_digest = options.login == Login::kDigest;
    const std::string file = folder.Write("logins", is_digest ? kDigestLogins : kBasicLogins);
    lines += LoadModules(
        {"authn_core", "authn_file", "authz_user", is_digest ? "auth_digest" : "auth_basic"});
    access = std::string("AuthName dav\nRequire valid-user\nAuthUserFile ") + file + "\nAuthType " +
             (is_digest ? "Digest\n" : "Basic\n");
  }
  if (options.secure) {
    lines += LoadModules({"ssl"}) + "SSLEngine on\nSSLSessionCache none\nSSLCertificateFile " +
             Certificate() + "\nSSLCertificateKeyFile " + base + "/key\n";
  }
  return lines + "<Directory " + base + "/root>\nDav On\n" + access + "</Directory>\n";
}

std::string DavServer::NginxConfiguration() const {
  const std::string base = folder.path();
  std::string lines =
      "load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;\n"
      "daemon off;\nworker_processes 1;\nevents {}\npid " +
      base + "/pid;\n";
  if (::geteuid() == 0) {
    lines += std::string("user ") + kServersUser + ";\n";
  }
  std::string temporary;
  for (const char* kind_of_file : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    temporary += std::string(kind_of_file) + "_temp_path " + base + "/work/" + kind_of_file + ";\n";
  }
  return lines + "http {\naccess_log off;\nclient_max_body_size 0;\n" + temporary +
         "server {\nlisten 127.0.0.1:" + std::to_string(port) + ";\nroot " + base +
         "/root;\ndav_methods PUT DELETE MKCOL MOVE;\ndav_ext_methods PROPFIND OPTIONS;\n}\n}\n";
}

}  // namespace tarn::test
