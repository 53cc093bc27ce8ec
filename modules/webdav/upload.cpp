#include "modules/webdav/upload.h"

#include <utility>
#include <vector>

#include "modules/webdav/lookup.h"
#include "modules/webdav/results.h"
#include "modules/webdav/version.h"

namespace tarn::webdav {

namespace {

constexpr long kUploadStallLimitSeconds = 60;  // a server may need time to store what it has got

// Sent a second time to learn what the server does with it.
constexpr unsigned long long kMostBytesToLearnWith = 64ULL * 1024;

// No server has given a file this ETag.
constexpr const char* kImpossibleEtag = "\"no-file-has-this-tag\"";

constexpr const char* kNothingThere = "";  // the version that a new file replaces

using Conditions = Remote::Conditions;
using Header = std::pair<std::string, std::string>;

const Header kOnlyIfNew = {"If-None-Match", "*"};

// A file on its way to its place.
struct Transfer {
  Remote& remote;
  const std::string& path;
  Content& content;
};

Answer Put(const Transfer& transfer, std::vector<Header> condition) {
  Answer answer;
  if (!transfer.content.Rewind()) {
    answer.code = CURLE_SEND_FAIL_REWIND;
    return answer;
  }
  Request request{.method = "PUT",
                  .url = transfer.remote.GetLocation().FileUrl(transfer.path),
                  .headers = std::move(condition),
                  .content = &transfer.content,
                  .stall_limit_s = kUploadStallLimitSeconds};
  return transfer.remote.Send(request);
}

AERROR ResultOf(const Transfer& transfer, const Answer& answer) {
  if (transfer.content.is_broken && !IsDone(answer)) {
    return FILE_READ_FAILED;
  }
  const AERROR error = ResultOfChanging(answer);
  if (error == SUCCESS) {
    const std::string version = VersionOfStored(answer.etag);
    char* const stored = transfer.content.source.version;
    stored[version.copy(stored, FS_VERSION_BYTES - 1)] = '\0';
    return SUCCESS;
  }
  FS_INFO parent{};
  if ((error == FILE_WRITE_FAILED || error == FILE_NOT_FOUND) &&
      GetInfo(transfer.remote, ParentOf(transfer.path), parent) == FILE_NOT_FOUND) {
    return PATH_NOT_FOUND;  // servers tell of a missing folder in many ways
  }
  return error;
}

// Compares what is at the path with what an upload may replace.
AERROR CheckVersion(const Transfer& transfer, const std::string& replaces) {
  FS_INFO info{};
  const AERROR error = GetInfo(transfer.remote, transfer.path, info);
  if (error == FILE_NOT_FOUND) {
    return replaces == kNothingThere ? SUCCESS : SHARING_VIOLATION;
  }
  if (error != SUCCESS) {
    return error;
  }
  return replaces == info.version ? SUCCESS : SHARING_VIOLATION;
}

// Whether a condition did not hold. Some servers rather say that what should be replaced is gone.
bool SaysOtherwise(const Answer& answer, const std::string& replaces) {
  return answer.status == 412 ||
         (replaces != kNothingThere && (answer.status == 404 || answer.status == 410));
}

// Has the server compare, in one way after the other. Where it finds a difference, that is looked
// at once more, because servers do not agree on when tags are equal.
AERROR PutIfServerAgrees(const Transfer& transfer, const std::vector<Header>& conditions,
                         const std::string& replaces) {
  for (const Header& condition : conditions) {
    const Answer answer = Put(transfer, {condition});
    if (!SaysOtherwise(answer, replaces)) {
      return ResultOf(transfer, answer);
    }
    const AERROR error = CheckVersion(transfer, replaces);
    if (error != SUCCESS) {
      return error;
    }
  }
  return ResultOf(transfer, Put(transfer, {}));
}

// If-Match never holds for a weak tag, which some servers give a file in its first second. WebDAV's
// own condition does.
std::vector<Header> ConditionsFor(const std::string& replaces) {
  const std::string etag = QuotedEtag(replaces);
  return {{"If-Match", etag}, {"If", "([" + etag + "])"}};
}

// The first upload of a drive that replaces a file carries a condition that does not hold. A server
// that stores the file all the same, which is what was wanted, ignores the condition.
AERROR ReplaceAndLearn(const Transfer& transfer, const std::string& replaces) {
  const Answer answer = Put(transfer, {{"If-Match", kImpossibleEtag}});
  if (answer.status == 412) {
    transfer.remote.SetMatch(Conditions::kHeeded);
  } else if (IsDone(answer)) {
    transfer.remote.SetMatch(Conditions::kIgnored);
  }
  return SaysOtherwise(answer, replaces)
             ? PutIfServerAgrees(transfer, ConditionsFor(replaces), replaces)
             : ResultOf(transfer, answer);
}

AERROR Replace(const Transfer& transfer, const std::string& replaces) {
  const Conditions match = transfer.remote.GetMatch();
  if (IsEtag(replaces) && match == Conditions::kHeeded) {
    return PutIfServerAgrees(transfer, ConditionsFor(replaces), replaces);
  }
  const AERROR error = CheckVersion(transfer, replaces);
  if (error != SUCCESS) {
    return error;
  }
  return IsEtag(replaces) && match == Conditions::kUnknown ? ReplaceAndLearn(transfer, replaces)
                                                           : ResultOf(transfer, Put(transfer, {}));
}

// A file that was just made is there, so a server that heeds the condition refuses to store it
// once more. Where it does store it, nothing is lost: the content is the same.
AERROR StoreAgainAndLearn(const Transfer& transfer) {
  const Answer answer = Put(transfer, {kOnlyIfNew});
  if (answer.status == 412) {
    transfer.remote.SetNoneMatch(Conditions::kHeeded);
    return SUCCESS;
  }
  if (IsDone(answer)) {
    transfer.remote.SetNoneMatch(Conditions::kIgnored);
    return ResultOf(transfer, answer);
  }
  FS_INFO info{};  // what did the failure leave?
  transfer.content.source.version[0] = '\0';
  const AERROR error = GetInfo(transfer.remote, transfer.path, info);
  return error == SUCCESS && info.size != transfer.content.size ? FILE_WRITE_FAILED : error;
}

AERROR Create(const Transfer& transfer) {
  const Conditions none_match = transfer.remote.GetNoneMatch();
  if (none_match != Conditions::kHeeded) {
    const AERROR error = CheckVersion(transfer, kNothingThere);
    if (error != SUCCESS) {
      return error;
    }
  }
  const AERROR error = PutIfServerAgrees(transfer, {kOnlyIfNew}, kNothingThere);
  if (error != SUCCESS || none_match != Conditions::kUnknown ||
      transfer.content.size > kMostBytesToLearnWith) {
    return error;
  }
  return StoreAgainAndLearn(transfer);
}

}  // namespace

AERROR Upload(Remote& remote, const std::string& path, Content& content) {
  const Transfer transfer{remote, path, content};
  const char* const replaces = content.source.replaces;
  if (replaces == nullptr) {
    return ResultOf(transfer, Put(transfer, {}));
  }
  return *replaces == '\0' ? Create(transfer) : Replace(transfer, replaces);
}

}  // namespace tarn::webdav
