#include "modules/webdav/transfer.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>

#include "modules/webdav/lookup.h"
#include "modules/webdav/results.h"
#include "modules/webdav/version.h"

namespace tarn::webdav {

namespace {

constexpr long kUploadStallLimitSeconds = 60;  // a server may need time to store what it has got

// No server has given a file this ETag.
constexpr const char* kImpossibleEtag = "\"no-file-has-this-tag\"";

// The first byte of "bytes 100-199/1000".
std::optional<unsigned long long> StartOf(std::string_view content_range) {
  const size_t digits = content_range.find_first_of("0123456789");
  unsigned long long start = 0;
  if (digits == std::string_view::npos ||
      std::from_chars(content_range.data() + digits, content_range.data() + content_range.size(),
                      start)
              .ec != std::errc()) {
    return std::nullopt;
  }
  return start;
}

// Puts a part of a file into a buffer, also where the server sends more than was asked for.
class RangeSink final : public BodySink {
 public:
  RangeSink(unsigned long long first_byte, void* target, unsigned long long length)
      : offset(first_byte), buffer(static_cast<char*>(target)), capacity(length) {}

  void Begin() override {
    begun = false;
    skip = 0;
    received = 0;
  }

  Verdict Take(const Answer& head, std::string_view part) override {
    if (!begun && !FindPlace(head)) {
      return Verdict::kBad;
    }
    const auto skipped = std::min<unsigned long long>(skip, part.size());
    skip -= skipped;
    part.remove_prefix(skipped);
    const auto taken = std::min<unsigned long long>(part.size(), capacity - received);
    std::memcpy(buffer + received, part.data(), taken);
    received += taken;
    return taken < part.size() ? Verdict::kEnough : Verdict::kMore;
  }

  [[nodiscard]] unsigned long long Received() const { return received; }

 private:
  // A server without ranges answers 200 and sends the file from its beginning.
  bool FindPlace(const Answer& head) {
    begun = true;
    const std::optional<unsigned long long> start =
        head.status == 206 ? StartOf(head.range) : std::optional<unsigned long long>(0);
    if (!start || *start > offset) {
      return false;
    }
    skip = offset - *start;
    return true;
  }

  const unsigned long long offset;
  char* const buffer;
  const unsigned long long capacity;
  bool begun = false;
  unsigned long long skip = 0;
  unsigned long long received = 0;
};

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

AERROR Read(Remote& remote, const std::string& path, unsigned long long offset, void* buffer,
            unsigned long long length, unsigned long long& received) {
  received = 0;
  if (length == 0) {
    return SUCCESS;
  }
  if (offset + length - 1 < offset) {
    return INVALID_PARAMETER;
  }
  RangeSink sink(offset, buffer, length);
  Request request{.method = "GET",
                  .url = remote.GetLocation().FileUrl(path),
                  .headers = {{"Range", "bytes=" + std::to_string(offset) + "-" +
                                            std::to_string(offset + length - 1)}},
                  .sink = &sink,
                  .counts_as_transfer = true};
  const Answer answer = remote.Send(request);
  if (answer.status == 416 && answer.code == CURLE_OK) {  // at or past the end
    return SUCCESS;
  }
  const AERROR error = ResultOfReading(answer);
  received = error == SUCCESS ? sink.Received() : 0;
  return error == FAILED ? FILE_READ_FAILED : error;
}

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
