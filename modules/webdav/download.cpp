#include "modules/webdav/download.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <strings.h>

#include "modules/webdav/lookup.h"
#include "modules/webdav/results.h"
#include "modules/webdav/size.h"
#include "modules/webdav/version.h"

namespace tarn::webdav {

namespace {

constexpr int kMostPieces = 64;  // of one part
constexpr const char* kPageType = "text/html";

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

// A page to log in on, for instance, has a place of its own or comes as a whole in the place of a
// part of the file.
bool MayBeAnotherPage(const Answer& answer, const std::string& asked_url) {
  const bool is_page = ::strncasecmp(answer.type.c_str(), kPageType, std::strlen(kPageType)) == 0;
  return !Location::AreSame(asked_url, answer.url) || (answer.status == 200 && is_page);
}

// A file that is to be read: one version of it, or the one that is there.
struct Wanted {
  Remote& remote;
  const std::string& path;
  const std::string* version;  // null: any

  [[nodiscard]] std::string Url() const { return remote.GetLocation().FileUrl(path); }
};

// Makes sure that an answer is the file. Not all servers say with a file what they say of it in a
// listing; those are asked again after the bytes have come, which is late enough to learn of a
// change in between.
AERROR CheckAnswer(const Wanted& wanted, const Answer& answer) {
  const bool may_be_another = MayBeAnotherPage(answer, wanted.Url());
  if (wanted.version != nullptr ? TellsVersion(answer, *wanted.version) : !may_be_another) {
    return SUCCESS;
  }
  FS_INFO info{};
  const AERROR error = GetInfo(wanted.remote, wanted.path, info);
  if (error != SUCCESS) {
    return error;
  }
  if (wanted.version != nullptr && *wanted.version != info.version) {
    return SHARING_VIOLATION;
  }
  const auto size = WholeSize(answer);
  const bool is_the_file =
      TellsVersion(answer, info.version) || (size ? *size == info.size : !may_be_another);
  return is_the_file ? SUCCESS : FILE_READ_FAILED;
}

// One request and its answer, which may hold less than the part.
AERROR GetPiece(const Wanted& wanted, const FilePart& part, unsigned long long& received,
                Answer& answer) {
  RangeSink sink(part);
  Request request{.method = "GET",
                  .url = wanted.Url(),
                  .headers = {{"Range", "bytes=" + std::to_string(part.offset) + "-" +
                                            std::to_string(part.offset + part.length - 1)}},
                  .sink = &sink,
                  .counts_as_transfer = true};
  answer = wanted.remote.Send(request);
  const bool is_past_the_end = answer.status == 416 && answer.code == CURLE_OK;
  const AERROR error = is_past_the_end ? SUCCESS : ResultOfReading(answer);
  if (error != SUCCESS) {
    return error == FAILED ? FILE_READ_FAILED : error;
  }
  if (!is_past_the_end && answer.status != 200 && answer.status != 206) {
    return FILE_READ_FAILED;
  }
  received = is_past_the_end ? 0 : sink.Received();
  return CheckAnswer(wanted, answer);
}

// Whether two answers can be parts of the same content.
bool Agree(const Answer& one, const Answer& other) {
  const auto size = WholeSize(one);
  const auto other_size = WholeSize(other);
  Resource resource;
  resource.etag = one.etag;
  return (one.etag.empty() || other.etag.empty() || TellsVersion(other, VersionOf(resource))) &&
         (!size || !other_size || *size == *other_size);
}

// Servers may give less than was asked for; then the rest is asked for.
AERROR GetPart(const Wanted& wanted, const FilePart& part, unsigned long long& received) {
  received = 0;
  if (part.length == 0) {
    return SUCCESS;
  }
  if (part.offset + part.length - 1 < part.offset) {
    return INVALID_PARAMETER;
  }
  Answer first;
  unsigned long long done = 0;
  for (int piece = 0; piece < kMostPieces; ++piece) {
    Answer answer;
    unsigned long long more = 0;
    const AERROR error = GetPiece(
        wanted, {part.offset + done, part.buffer + done, part.length - done}, more, answer);
    if (error != SUCCESS) {
      return error;
    }
    first = piece == 0 ? answer : first;
    if (!Agree(first, answer)) {
      return SHARING_VIOLATION;
    }
    done += more;
    const auto size = WholeSize(answer);
    const bool is_at_end = size ? part.offset + done >= *size : answer.status == 416;
    if (done == part.length || is_at_end || answer.status == 200) {
      received = done;
      return SUCCESS;
    }
    if (more == 0) {
      break;
    }
  }
  return FILE_READ_FAILED;
}

}  // namespace

AERROR Read(Remote& remote, const std::string& path, const FilePart& part,
            unsigned long long& received) {
  return GetPart({remote, path, nullptr}, part, received);
}

AERROR ReadVersion(Remote& remote, const std::string& path, const std::string& version,
                   const FilePart& part, unsigned long long& received) {
  return GetPart({remote, path, &version}, part, received);
}

}  // namespace tarn::webdav
