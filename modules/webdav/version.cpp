#include "modules/webdav/version.h"

#include "interfaces/fs_types.h"
#include "modules/webdav/location.h"

namespace tarn::webdav {

namespace {

constexpr char kMadeUp = '~';  // begins versions that are no ETags
constexpr const char* kWeak = "W/";

// An ETag with control characters could not be sent back, and so counts as none.
bool IsUsable(const std::string& etag) {
  return !etag.empty() && etag.size() < FS_VERSION_BYTES && !HasControlCharacter(etag);
}

}  // namespace

// A weak ETag often becomes a strong one with the same text a second after the file was written.
std::string VersionOf(const Resource& resource) {
  const std::string& etag = resource.etag;
  std::string version = etag.starts_with(kWeak) ? etag.substr(2) : etag;
  if (!IsUsable(version) || version.front() == kMadeUp) {
    version = kMadeUp + std::to_string(resource.modified.value_or(0)) + "-" +
              std::to_string(resource.size.value_or(0));
  }
  return version;
}

std::string VersionOfStored(const std::string& etag) {
  return etag.starts_with('"') && IsUsable(etag) ? etag : std::string();
}

bool IsEtag(const std::string& version) {
  return IsUsable(version) && version.front() != kMadeUp;
}

std::string QuotedEtag(const std::string& version) {
  return version.starts_with('"') ? version : '"' + version + '"';
}

}  // namespace tarn::webdav
