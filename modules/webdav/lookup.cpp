#include "modules/webdav/lookup.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <vector>

#include "common/log.h"
#include "common/utils.h"
#include "modules/webdav/results.h"
#include "modules/webdav/size.h"
#include "modules/webdav/version.h"

namespace tarn::webdav {

namespace {

constexpr const char* kWantedProperties =
    R"(<?xml version="1.0" encoding="utf-8"?><D:propfind xmlns:D="DAV:"><D:prop>)"
    "<D:resourcetype/><D:getcontentlength/><D:getlastmodified/><D:getetag/>"
    "</D:prop></D:propfind>";
constexpr const char* kQuotaProperties =
    R"(<?xml version="1.0" encoding="utf-8"?><D:propfind xmlns:D="DAV:"><D:prop>)"
    "<D:resourcetype/><D:quota-available-bytes/><D:quota-used-bytes/>"
    "</D:prop></D:propfind>";

constexpr long kQuestionDeadlineSeconds = 30;
constexpr long kListingDeadlineSeconds = 120;

// Collects the resources of a multistatus answer.
class ResourceSink final : public BodySink {
 public:
  void Begin() override {
    resources.clear();
    reader = std::make_unique<MultistatusReader>(
        [this](Resource found) { resources.push_back(std::move(found)); });
  }
  Verdict Take(const Answer&, std::string_view part) override {
    return reader->Feed(part.data(), part.size()) ? Verdict::kMore : Verdict::kBad;
  }
  // The whole document has been read.
  [[nodiscard]] bool IsComplete() { return reader != nullptr && reader->Finish(); }

  std::vector<Resource> resources;

 private:
  std::unique_ptr<MultistatusReader> reader;
};

enum class Depth { kItself, kWithContents };

AERROR Find(Remote& remote, const std::string& url, Depth depth, const char* properties,
            std::vector<Resource>& resources, Answer& answer) {
  const bool is_listing = depth == Depth::kWithContents;
  ResourceSink sink;
  Request request{.method = "PROPFIND",
                  .url = url,
                  .headers = {{"Depth", is_listing ? "1" : "0"}},
                  .body = properties,
                  .sink = &sink,
                  .deadline_s = is_listing ? kListingDeadlineSeconds : kQuestionDeadlineSeconds};
  answer = remote.Send(request);
  if (answer.status == 400 && url.ends_with('/')) {  // what some servers say of a file
    return INVALID_DIRECTORY;
  }
  const AERROR error = ResultOfReading(answer);
  if (error != SUCCESS) {
    return error;
  }
  if (answer.status != 207 || !sink.IsComplete()) {
    return FAILED;
  }
  resources = std::move(sink.resources);
  return SUCCESS;
}

// The one resource that was asked for; others are not expected, but servers have sent them.
AERROR FindOne(Remote& remote, const std::string& url, const char* properties, Resource& found,
               Answer& answer) {
  std::vector<Resource> resources;
  const AERROR error = Find(remote, url, Depth::kItself, properties, resources, answer);
  if (error != SUCCESS) {
    return error;
  }
  const References references(answer.url);
  const Resource* chosen = resources.empty() ? nullptr : &resources.front();
  std::string name;
  for (const Resource& resource : resources) {
    if (references.Read(resource.href, name) == References::Kind::kSelf) {
      chosen = &resource;
      break;
    }
  }
  if (chosen == nullptr || chosen->status == 404) {
    return FILE_NOT_FOUND;
  }
  found = *chosen;
  return SUCCESS;
}

bool LacksSize(const Resource& resource) {
  return !resource.is_folder && !resource.size;
}

FS_INFO InfoOf(const Resource& resource) {
  FS_INFO info{};
  info.is_folder = resource.is_folder ? 1 : 0;
  info.size = resource.is_folder ? 0 : resource.size.value_or(0);
  info.modified.seconds = resource.modified.value_or(0);
  const std::string version = VersionOf(resource);
  version.copy(info.version, sizeof(info.version) - 1);
  return info;
}

bool IsUtf8(const std::string& name) {
  try {
    (void)s2ws(name);
    return true;
  } catch (const std::range_error&) {
    return false;
  }
}

void LogLeftOut(const Remote& remote, const std::string& name, const char* reason) {
  __LOG__A(logger, LOGLEVEL_ERROR | LOGLEVEL_HTTP, "%s:: %s is left out: %s [%s:%d]", __func__,
           reason, remote.GetSecrets().CutFrom(EncodeSegment(name)).c_str(), TARN_SOURCE);
}

struct Entry {
  std::string name;
  Resource resource;
};

// What a listing's resources are called in the folder; the folder itself and strangers left out.
AERROR EntriesOf(const Remote& remote, std::vector<Resource> resources, const std::string& url,
                 std::vector<Entry>& entries) {
  const References references(url);
  for (Resource& resource : resources) {
    std::string name;
    const References::Kind kind = references.Read(resource.href, name);
    if (kind == References::Kind::kSelf && !resource.is_folder && resource.status == 0) {
      return INVALID_DIRECTORY;
    }
    if (kind != References::Kind::kChild || resource.status >= 400) {
      continue;
    }
    if (!IsUtf8(name)) {
      LogLeftOut(remote, name, "a name that is not UTF-8");
      continue;
    }
    entries.push_back({std::move(name), std::move(resource)});
  }
  return SUCCESS;
}

}  // namespace

AERROR FindRoot(Remote& remote, Resource& root, Answer& answer) {
  return FindOne(remote, remote.GetLocation().FolderUrl("/"), kQuotaProperties, root, answer);
}

AERROR GetInfo(Remote& remote, const std::string& path, FS_INFO& info) {
  const Location& location = remote.GetLocation();
  const std::string url = path == "/" ? location.FolderUrl(path) : location.FileUrl(path);
  Resource found;
  Answer answer;
  AERROR error = FindOne(remote, url, kWantedProperties, found, answer);
  if (error == SUCCESS && LacksSize(found)) {
    error = FindSize(remote, url, found);
  }
  if (error == SUCCESS) {
    info = InfoOf(found);
  }
  return error;
}

AERROR List(Remote& remote, const std::string& path, FS_LIST_SINK sink, void* context) {
  const std::string url = remote.GetLocation().FolderUrl(path);
  std::vector<Resource> resources;
  std::vector<Entry> entries;
  Answer answer;
  AERROR error = Find(remote, url, Depth::kWithContents, kWantedProperties, resources, answer);
  if (error == SUCCESS) {
    error = EntriesOf(remote, std::move(resources), answer.url, entries);
  }
  if (error != SUCCESS) {
    return error;
  }
  for (Entry& entry : entries) {
    if (LacksSize(entry.resource)) {
      error = FindSize(remote, url + EncodeSegment(entry.name), entry.resource);
      if (error == READ_CANCELED || error == DEVICE_NOT_READY) {
        return error;
      }
      if (error != SUCCESS) {
        LogLeftOut(remote, entry.name, "a file of unknown size");
        continue;
      }
    }
    const FS_INFO info = InfoOf(entry.resource);
    if (sink(context, entry.name.c_str(), &info) == 0) {
      break;
    }
  }
  return SUCCESS;
}

AERROR CheckEmpty(Remote& remote, const std::string& path) {
  std::vector<Resource> resources;
  Answer answer;
  const std::string url = remote.GetLocation().FolderUrl(path);
  const AERROR error =
      Find(remote, url, Depth::kWithContents, kWantedProperties, resources, answer);
  if (error != SUCCESS) {
    return error;
  }
  const References references(answer.url);
  for (const Resource& resource : resources) {
    std::string name;
    if (references.Read(resource.href, name) != References::Kind::kSelf) {
      return DIR_NOT_EMPTY;
    }
    if (!resource.is_folder && resource.status == 0) {
      return INVALID_DIRECTORY;
    }
  }
  return SUCCESS;
}

AERROR GetQuota(Remote& remote, unsigned long long& total, unsigned long long& free) {
  Resource root;
  Answer answer;
  const AERROR error = FindRoot(remote, root, answer);
  if (error != SUCCESS) {
    return error;
  }
  const long long available = root.quota_available.value_or(-1);
  if (available < 0) {
    return NOT_SUPPORTED;
  }
  free = static_cast<unsigned long long>(available);
  total = free + static_cast<unsigned long long>(std::max(0LL, root.quota_used.value_or(0)));
  return SUCCESS;
}

}  // namespace tarn::webdav
