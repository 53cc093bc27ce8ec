#include "tests/support/http/dav_server.h"

#include <pwd.h>
#include <unistd.h>
#include <utility>

#include "tests/support/endpoint.h"

namespace tarn::test {

namespace {

constexpr int kAttempts = 3;                      // somebody else may take the free port first
constexpr const char* kServersUser = "www-data";  // what a server started by root becomes

// The passwords are "open sesame".
constexpr const char* kBasicLogins = "alice:{SHA}W8r/fyL/UzygmbNAjq2HbA67qac=\n";
constexpr const char* kDigestLogins = "alice:dav:9bab765b464a46a8866d905f9217be99\n";

// Paths are relative to the server's folder.
constexpr const char* kApacheModules[] = {"mpm_event",   "authn_core", "authn_file", "authz_core",
                                          "authz_user",  "auth_basic", "dav",        "dav_fs",
                                          "auth_digest", "ssl"};
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

void GiveToServer(const std::filesystem::path& path) {
  const passwd* const account = ::geteuid() == 0 ? ::getpwnam(kServersUser) : nullptr;
  if (account != nullptr) {
    (void)::chown(path.c_str(), account->pw_uid, account->pw_gid);
  }
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
  port = Endpoint().port;
  const bool is_apache = kind == Kind::kApache;
  const std::string base = folder.path();
  const std::string file =
      folder.Write("configuration", is_apache ? ApacheConfiguration() : NginxConfiguration());
  using Arguments = std::vector<std::string>;
  process.emplace(is_apache ? Arguments{"/usr/sbin/apache2", "-DFOREGROUND", "-d", base, "-f", file}
                            : Arguments{"/usr/sbin/nginx", "-p", base, "-c", file, "-e", "log"},
                  base, base, base + "/output");
  // Both listen before they write their process id.
  return WaitUntil([&] { return FileContent(base + "/pid") != "" || !IsAlive(Pid()); }) &&
         IsAlive(Pid());
}

std::string DavServer::Url(const std::string& path) const {
  const std::string scheme = options.secure ? "https" : "http";
  return process ? scheme + "://127.0.0.1:" + std::to_string(port) + path : "";
}

void DavServer::WriteFile(const std::string& name, const std::string& content) const {
  GiveToServer(folder.Write("root/" + name, content));
}

void DavServer::MakeCertificate() const {
  const std::string base = folder.path();
  Program openssl(
      {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
       "-nodes", "-days", "2", "-subj", "/CN=tarn test", "-addext",
       "subjectAltName=" + options.certified, "-keyout", base + "/key", "-out", Certificate()},
      base, base, base + "/output");
  EXPECT_EQ(openssl.WaitForEnd(), 0) << openssl.Output();
}

std::string DavServer::ApacheConfiguration() const {
  std::string lines;
  for (const std::string name : kApacheModules) {
    lines += "LoadModule " + name + "_module /usr/lib/apache2/modules/mod_" + name + ".so\n";
  }
  lines += kApacheLines + ("Listen 127.0.0.1:" + std::to_string(port)) + "\n";
  if (::geteuid() == 0) {
    lines += std::string("User ") + kServersUser + "\nGroup " + kServersUser + "\n";
  }
  lines += options.secure ? kApacheSecureLines : "";
  folder.Write("logins", options.login == "Digest" ? kDigestLogins : kBasicLogins);
  const std::string access =
      options.login.empty() ? "all granted\n" : "valid-user\nAuthType " + options.login + "\n";
  return lines + "<Location />\nDav On\nAuthName dav\nAuthUserFile logins\nRequire " + access +
         "</Location>\n";
}

std::string DavServer::NginxConfiguration() const {
  const std::string user = ::geteuid() == 0 ? std::string("user ") + kServersUser + ";\n" : "";
  return user + kNginxLines + "listen 127.0.0.1:" + std::to_string(port) + ";\n}\n}\n";
}

}  // namespace tarn::test
