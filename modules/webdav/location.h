#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::webdav {

// A folder on a server: what a mount request calls the URL, taken apart, and the URLs of all that
// lies below it. A value; credentials are kept apart from everything that is shown or logged.
class Location {
 public:
  // What a URL may carry before its host.
  struct Login {
    std::string user;
    std::string password;
  };

  // Understands [scheme://][user[:password]@]host[:port][/path]. Schemes are http, webdav, dav and
  // their secure forms with an "s"; `secure` asks for a secure one and is the choice where there is
  // none. Query and fragment are ignored. Empty for anything else, and for an insecure scheme where
  // a secure one is asked for.
  static std::optional<Location> Parse(const std::string& url, bool secure);

  // Whether what was answered is what was asked for, after redirects: they may have added or taken
  // away a "/" at the end, or have led to a secure port of the same host.
  [[nodiscard]] static bool AreSame(const std::string& asked_url, const std::string& answered_url);

  // The URL of a drive path ("/" is the folder itself), percent-encoded. Paths come from
  // IsDrivePath.
  [[nodiscard]] std::string FileUrl(std::string_view path) const;    // no "/" at the end
  [[nodiscard]] std::string FolderUrl(std::string_view path) const;  // "/" at the end

  [[nodiscard]] bool IsSecure() const { return secure_scheme; }
  [[nodiscard]] const std::string& Host() const { return host; }
  [[nodiscard]] const Login& GetLogin() const { return login; }

 private:
  bool secure_scheme = false;
  std::string host;    // lower case
  std::string origin;  // scheme://host[:port]
  std::string base;    // percent-encoded path, "/" at neither end but the first: "/a/b"
  Login login;
};

// True for an absolute path whose names are neither empty, "." nor "..". A "/" at the end is borne.
[[nodiscard]] bool IsDrivePath(const char* path);

// The folder that holds what a path names; "/" for the root.
[[nodiscard]] std::string ParentOf(std::string_view path);

// True for a text that would end the header line it is put into, or worse.
[[nodiscard]] bool HasControlCharacter(std::string_view text);

// Percent-encodes all but letters, digits and "-._~".
[[nodiscard]] std::string EncodeSegment(std::string_view name);
// Decodes what is a percent sign with two hexadecimal digits and leaves everything else.
[[nodiscard]] std::string DecodeSegment(std::string_view text);

// Tells what the references in an answer to a request for a folder mean. Servers write them as
// whole URLs, as absolute or relative paths, with or without a "/" at the end, and encoded as they
// please.
class References {
 public:
  // `url`: the URL that was answered, after redirects.
  explicit References(std::string_view url);

  enum class Kind {
    kSelf,   // what was asked for
    kChild,  // something directly in it, whose name is given
    kOther,  // anything else, and what no file could be called
  };
  Kind Read(std::string_view reference, std::string& name) const;

 private:
  std::vector<std::string> folder;       // decoded segments of what was asked for
  std::vector<std::string> relative_to;  // where relative references start
};

}  // namespace tarn::webdav
