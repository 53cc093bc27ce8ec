#pragma once

#include <string>

#include "modules/webdav/multistatus.h"

namespace tarn::webdav {

// The version text of a resource: its ETag, else made of time and size, which cannot tell apart
// what a server that counts in seconds changed twice within one of them. Fits FS_VERSION_BYTES.
[[nodiscard]] std::string VersionOf(const Resource& resource);

// The version that an ETag in a header stands for; empty for a weak one, which proves nothing.
[[nodiscard]] std::string VersionOfStored(const std::string& etag);

// True for a version that is an ETag, which a server can compare.
[[nodiscard]] bool IsEtag(const std::string& version);

// An ETag version as a server wants it in If-Match.
[[nodiscard]] std::string QuotedEtag(const std::string& version);

}  // namespace tarn::webdav
