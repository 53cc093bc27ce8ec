#include "modules/webdav/size.h"

#include <charconv>

#include "modules/webdav/results.h"

namespace tarn::webdav {

namespace {

constexpr long kQuestionDeadlineSeconds = 30;

// More than this is read of no file to learn its size.
constexpr unsigned long long kMostBytesToCount = 16ULL * 1024 * 1024;

// Counts the bytes of an answer that does not say how many they are.
class Counter final : public BodySink {
 public:
  void Begin() override { count = 0; }
  Verdict Take(const Answer& head, std::string_view part) override {
    count += part.size();
    return head.length > 1 || count > kMostBytesToCount ? Verdict::kEnough : Verdict::kMore;
  }

  unsigned long long count = 0;
};

void Learn(const Answer& answer, std::optional<unsigned long long> size, Resource& resource) {
  const time_t modified = curl_getdate(answer.modified.c_str(), nullptr);
  resource.size = size;
  if (!resource.modified && modified != -1) {
    resource.modified = modified;
  }
}

// What the server says of an empty file, of which not even the first byte can be had.
bool SaysThatItIsEmpty(const Answer& answer) {
  return answer.status == 416 && answer.code == CURLE_OK && WholeSize(answer).value_or(0) == 0;
}

AERROR AskForFirstByte(Remote& remote, const std::string& url, Resource& resource) {
  Counter counter;
  Request request{.method = "GET",
                  .url = url,
                  .headers = {{"Range", "bytes=0-0"}},
                  .sink = &counter,
                  .counts_as_transfer = true,
                  .deadline_s = kQuestionDeadlineSeconds};
  const Answer answer = remote.Send(request);
  const bool is_empty = SaysThatItIsEmpty(answer);
  const AERROR error = is_empty ? SUCCESS : ResultOfReading(answer);
  if (error != SUCCESS) {
    return error;
  }
  std::optional<unsigned long long> size = is_empty ? 0 : WholeSize(answer);
  if (!size && answer.status == 200 && !answer.was_enough) {
    size = counter.count;
  }
  if (!size || !Location::AreSame(url, answer.url)) {
    return FAILED;
  }
  Learn(answer, size, resource);
  return SUCCESS;
}

}  // namespace

std::optional<unsigned long long> WholeSize(const Answer& answer) {
  if (answer.status == 200) {
    return answer.length < 0 ? std::nullopt
                             : std::optional(static_cast<unsigned long long>(answer.length));
  }
  const size_t slash = answer.range.find('/');
  if (slash == std::string::npos) {
    return std::nullopt;
  }
  unsigned long long size = 0;
  const char* const digits = answer.range.data() + slash + 1;
  const char* const end = answer.range.data() + answer.range.size();
  return std::from_chars(digits, end, size).ec == std::errc() ? std::optional(size) : std::nullopt;
}

// A length of 0 is also what servers say that know none when they are only asked for the head.
AERROR FindSize(Remote& remote, const std::string& url, Resource& resource) {
  Request request{.method = "HEAD", .url = url, .deadline_s = kQuestionDeadlineSeconds};
  const Answer answer = remote.Send(request);
  const AERROR error = ResultOfReading(answer);
  if (error == READ_CANCELED || error == DEVICE_NOT_READY || error == FILE_NOT_FOUND) {
    return error;
  }
  if (error != SUCCESS || answer.length <= 0 || !Location::AreSame(url, answer.url)) {
    return AskForFirstByte(remote, url, resource);
  }
  Learn(answer, static_cast<unsigned long long>(answer.length), resource);
  return SUCCESS;
}

}  // namespace tarn::webdav
