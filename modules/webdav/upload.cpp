#include "modules/webdav/upload.h"

#include <utility>
#include <vector>

#include "modules/webdav/lookup.h"
#include "modules/webdav/results.h"
#include "modules/webdav/version.h"

namespace tarn::webdav {

namespace {

constexpr long kUploadStallLimitSeconds = 60;  // a server may need time to store what it has got

// No server has given a file this ETag.
constexpr const char* kImpossibleEtag = "\"no-file-has-this-tag\"";

using Header = std::pair<std::string, std::string>;

Answer Put(Remote& remote, const std::string& path, Content& content,
           std::vector<Header> condition) {
  Answer answer;
  if (!content.Rewind()) {
    answer.code = CURLE_SEND_FAIL_REWIND;
    return answer;
  }
  Request request{.method = "PUT",
                  .url = remote.GetLocation().FileUrl(path),
                  .headers = std::move(condition),
                  .content = &content,
                  .stall_limit_s = kUploadStallLimitSeconds};
  return remote.Send(request);
}

AERROR ResultOfPut(Remote& remote, const std::string& path, const Answer& answer,
                   Content& content) {
  if (content.is_broken && !answer.IsGood()) {
    return FILE_READ_FAILED;
  }
  const AERROR error = ResultOfChanging(answer);
  if (error == SUCCESS) {
    const std::string version = VersionOfStored(answer.etag);
    version.copy(content.source.version, FS_VERSION_BYTES - 1);
    return SUCCESS;
  }
  FS_INFO parent{};
  if ((error == FILE_WRITE_FAILED || error == FILE_NOT_FOUND) &&
      GetInfo(remote, ParentOf(path), parent) == FILE_NOT_FOUND) {
    return PATH_NOT_FOUND;  // servers tell of a missing folder in many ways
  }
  return error == NOT_SUPPORTED ? FILE_WRITE_FAILED : error;
}

// Compares what is at the path with what an upload may replace.
AERROR CheckVersion(Remote& remote, const std::string& path, const std::string& replaces) {
  FS_INFO info{};
  const AERROR error = GetInfo(remote, path, info);
  if (error == FILE_NOT_FOUND) {
    return replaces.empty() ? SUCCESS : SHARING_VIOLATION;
  }
  if (error != SUCCESS) {
    return error;
  }
  return replaces == info.version ? SUCCESS : SHARING_VIOLATION;
}

Header ConditionFor(const std::string& replaces) {
  return replaces.empty() ? Header{"If-None-Match", "*"} : Header{"If-Match", QuotedEtag(replaces)};
}

// Has the server compare. Where it finds a difference, that is looked at once more, because servers
// do not agree on when tags are equal.
AERROR PutIfServerAgrees(Remote& remote, const std::string& path, Content& content,
                         const std::string& replaces) {
  const Answer answer = Put(remote, path, content, {ConditionFor(replaces)});
  if (answer.status != 412) {
    return ResultOfPut(remote, path, answer, content);
  }
  const AERROR error = CheckVersion(remote, path, replaces);
  return error != SUCCESS ? error
                          : ResultOfPut(remote, path, Put(remote, path, content, {}), content);
}

// The first upload of a drive carries a condition that does not hold. A server that stores the file
// all the same, which is what was wanted, ignores conditions.
AERROR PutAndLearn(Remote& remote, const std::string& path, Content& content,
                   const std::string& replaces) {
  const Answer answer = Put(remote, path, content, {{"If-Match", kImpossibleEtag}});
  if (answer.status == 412) {
    remote.SetConditions(Remote::Conditions::kHeeded);
    return PutIfServerAgrees(remote, path, content, replaces);
  }
  if (answer.IsGood()) {
    remote.SetConditions(Remote::Conditions::kIgnored);
  }
  return ResultOfPut(remote, path, answer, content);
}

}  // namespace

AERROR Upload(Remote& remote, const std::string& path, Content& content) {
  content.source.version[0] = '\0';
  if (content.source.replaces == nullptr) {
    return ResultOfPut(remote, path, Put(remote, path, content, {}), content);
  }
  const std::string replaces = content.source.replaces;
  const bool can_ask = replaces.empty() || IsEtag(replaces);
  const Remote::Conditions conditions = remote.GetConditions();
  if (can_ask && conditions == Remote::Conditions::kHeeded) {
    return PutIfServerAgrees(remote, path, content, replaces);
  }
  const AERROR error = CheckVersion(remote, path, replaces);
  if (error != SUCCESS) {
    return error;
  }
  if (can_ask && conditions == Remote::Conditions::kUnknown) {
    return PutAndLearn(remote, path, content, replaces);
  }
  return ResultOfPut(remote, path, Put(remote, path, content, {}), content);
}

}  // namespace tarn::webdav
