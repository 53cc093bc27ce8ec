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

// Paths are relative to the server's folder.
constexpr const char* kApacheLines =
    "ServerName 127.0.0.1\nPidFile pid\nErrorLog log\nDavLockDB work/locks\nDocumentRoot root\n"
    "StartServers 1\nLimitRequestBody 0\nAllowEncodedSlashes NoDecode\n";
constexpr const char* kApacheSecureLines =
    "SSLEngine on\nSSLSessionCache none\n"
    "SSLCertificateFile certificate\nSSLCertificateKeyFile key\n";
constexpr const char* kNginxLines = R"(
load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;
daemon off; worker_processes 1; events {} pid pid;
http {
  access_log off; client_max_body_size 0; client_body_temp_path work/client_body;
  proxy_temp_path work/proxy; fastcgi_temp_path work/fastcgi;
  uwsgi_temp_path work/uwsgi; scgi_temp_path work/scgi;
  server {
    root root; dav_methods PUT DELETE MKCOL MOVE; dav_ext_methods PROPFIND OPTIONS;
)";

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
  const std::string base = folder.path();
  const std::string file =
      folder.Write("configuration", is_apache ? ApacheConfiguration() : NginxConfiguration());
  using Arguments = std::vector<std::string>;
  process.emplace(is_apache ? Arguments{"apache2", "-DFOREGROUND", "-d", base, "-f", file}
                            : Arguments{"nginx", "-p", base, "-c", file, "-e", "log"});
  return WaitUntil([this] { return !process->Running() || PortFor(::connect, port) >= 0; },
                   std::chrono::seconds(10)) &&
         process->Running();
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
  std::string lines = LoadModules({"mpm_event", "authz_core", "dav", "dav_fs"}) + kApacheLines +
                      "Listen 127.0.0.1:" + std::to_string(port) + "\n";
  if (::geteuid() == 0) {
    lines += std::string("User ") + kServersUser + "\nGroup " + kServersUser + "\n";
  }
  std::string access = "Require all granted\n";
  if (options.login != Login::kNone) {
    const bool is_digest = options.login == Login::kDigest;
    folder.Write("logins", is_digest ? kDigestLogins : kBasicLogins);
    lines += LoadModules(
        {"authn_core", "authn_file", "authz_user", is_digest ? "auth_digest" : "auth_basic"});
    access = std::string("AuthName dav\nRequire valid-user\nAuthUserFile logins\nAuthType ") +
             (is_digest ? "Digest\n" : "Basic\n");
  }
  if (options.secure) {
    lines += LoadModules({"ssl"}) + kApacheSecureLines;
  }
  return lines + "<Location />\nDav On\n" + access + "</Location>\n";
}

std::string DavServer::NginxConfiguration() const {
  const std::string user = ::geteuid() == 0 ? std::string("user ") + kServersUser + ";\n" : "";
  return user + kNginxLines + "listen 127.0.0.1:" + std::to_string(port) + ";\n}\n}\n";
}

}  // namespace tarn::test
