#include "modules/webdav/download.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>

#include "modules/webdav/lookup.h"
#include "modules/webdav/results.h"
#include "modules/webdav/version.h"

namespace tarn::webdav {

namespace {

std::optional<unsigned long long> NumberOf(std::string_view text) {
  unsigned long long number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() ? std::optional(number) : std::nullopt;
}

// The first byte of "bytes 100-199/1000".
std::optional<unsigned long long> StartOf(std::string_view content_range) {
  const size_t digits = content_range.find_first_of("0123456789");
  return digits == std::string_view::npos ? std::nullopt : NumberOf(content_range.substr(digits));
}

// Puts a part of a file into a buffer, also where the server sends more than was asked for.
class RangeSink final : public BodySink {
 public:
  explicit RangeSink(const FilePart& wanted_part) : wanted(wanted_part) {}

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
    const auto taken = std::min<unsigned long long>(part.size(), wanted.length - received);
    std::memcpy(wanted.buffer + received, part.data(), taken);
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
    if (!start || *start > wanted.offset) {
      return false;
    }
    skip = wanted.offset - *start;
    return true;
  }

  const FilePart& wanted;
  bool begun = false;
  unsigned long long skip = 0;
  unsigned long long received = 0;
};

AERROR GetPart(Remote& remote, const std::string& path, const FilePart& part,
               unsigned long long& received, Answer& answer) {
  if (part.length == 0) {
    return SUCCESS;
  }
  if (part.offset + part.length - 1 < part.offset) {
    return INVALID_PARAMETER;
  }
  RangeSink sink(part);
  Request request{.method = "GET",
                  .url = remote.GetLocation().FileUrl(path),
                  .headers = {{"Range", "bytes=" + std::to_string(part.offset) + "-" +
                                            std::to_string(part.offset + part.length - 1)}},
                  .sink = &sink,
                  .counts_as_transfer = true};
  answer = remote.Send(request);
  if (answer.status == 416 && answer.code == CURLE_OK) {  // at or past the end
    return SUCCESS;
  }
  const AERROR error = ResultOfReading(answer);
  received = error == SUCCESS ? sink.Received() : 0;
  return error == FAILED ? FILE_READ_FAILED : error;
}

// The size of the whole file that an answer with a part of it tells of.
std::optional<unsigned long long> WholeSize(const Answer& answer) {
  if (answer.status == 200 && answer.length >= 0) {
    return static_cast<unsigned long long>(answer.length);
  }
  const size_t slash = answer.range.find('/');
  return slash == std::string::npos ? std::nullopt
                                    : NumberOf(std::string_view(answer.range).substr(slash + 1));
}

// Whether the answer itself says that its bytes are of this version.
bool TellsVersion(const Answer& answer, const std::string& version) {
  Resource resource;
  if (IsEtag(version)) {
    resource.etag = answer.etag;
    return !answer.etag.empty() && QuotedEtag(VersionOf(resource)) == QuotedEtag(version);
  }
  resource.size = WholeSize(answer);
  resource.modified = curl_getdate(answer.modified.c_str(), nullptr);
  return resource.size && *resource.modified != -1 && VersionOf(resource) == version;
}

}  // namespace

AERROR Read(Remote& remote, const std::string& path, const FilePart& part,
            unsigned long long& received) {
  Answer answer;
  received = 0;
  return GetPart(remote, path, part, received, answer);
}

// Not all servers say with a file what they say of it in a listing; those are asked again after the
// bytes have come, which is late enough to learn of a change in between.
AERROR ReadVersion(Remote& remote, const std::string& path, const std::string& version,
                   const FilePart& part, unsigned long long& received) {
  Answer answer;
  received = 0;
  AERROR error = GetPart(remote, path, part, received, answer);
  if (error == SUCCESS && part.length > 0 && !TellsVersion(answer, version)) {
    FS_INFO info{};
    error = GetInfo(remote, path, info);
    if (error == SUCCESS && version != info.version) {
      error = SHARING_VIOLATION;
    }
  }
  received = error == SUCCESS ? received : 0;
  return error;
}

}  // namespace tarn::webdav
