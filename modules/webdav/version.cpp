#include "modules/webdav/version.h"

#include "interfaces/fs_types.h"

namespace tarn::webdav {

namespace {

constexpr char kMadeUp = '~';  // begins versions that are no ETags
constexpr const char* kWeak = "W/";

bool Fits(const std::string& version) {
  return !version.empty() && version.size() < FS_VERSION_BYTES;
}

}  // namespace

// A weak ETag often becomes a strong one with the same text a second after the file was written.
std::string VersionOf(const Resource& resource) {
  const std::string& etag = resource.etag;
  std::string version = etag.starts_with(kWeak) ? etag.substr(2) : etag;
  if (!Fits(version) || version.front() == kMadeUp) {
    version = kMadeUp + std::to_string(resource.modified.value_or(0)) + "-" +
              std::to_string(resource.size.value_or(0));
  }
  return version;
}

std::string VersionOfStored(const std::string& etag) {
  return etag.starts_with('"') && Fits(etag) ? etag : std::string();
}

bool IsEtag(const std::string& version) {
  return !version.empty() && version.front() != kMadeUp;
}

std::string QuotedEtag(const std::string& version) {
  return version.starts_with('"') ? version : '"' + version + '"';
}

}  // namespace tarn::webdav
