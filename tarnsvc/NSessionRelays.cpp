#include <jansson.h>
#include <memory>

#include "common/log.h"
#include "tarnsvc/DriveList.h"
#include "tarnsvc/NSession.h"
#include "tarnsvc/ParentPipe.h"
#include "tarnsvc/Result.h"

namespace {

constexpr LOGLEVEL kDebug = LOGLEVEL_DEBUG | LOGLEVEL_SERVICE;

// A text as a JSON string value, between its double quotes.
std::string QuotedText(const std::string& text) {
  const std::unique_ptr<json_t, decltype(&json_decref)> value(
      json_stringn(text.data(), text.size()), &json_decref);
  const std::unique_ptr<char, decltype(&free)> quoted(
      json_dumps(value.get(), JSON_ENCODE_ANY | JSON_COMPACT), &free);
  return quoted ? quoted.get() : "\"\"";
}

}  // namespace

void CNSession::get_drive_list() {
  std::string answer = "{\"cmd\":\"get_drive_list\", \"drives\": [";
  {
    tarn::MutexLock lock(childlist_lock);
    for (const auto& drive : child_list) {
      answer += QuotedText(drive->drive()) + ",";
    }
  }
  if (answer.back() == ',') {
    answer.pop_back();
  }
  (void)allsend(answer + "]}");  // a client that is gone needs no answer
}

int CNSession::send_json_n_wait_int(const Json& message) {
  const std::string name = message.GetObject("/data/drive");
  __LOG__A(logger, kDebug, "%s %s [%s:%d]", "send_json_n_wait_int", name.c_str(), TARN_SOURCE);
  const std::shared_ptr<CParentPipe> drive = tarn::FindDrive(name);
  const int result = drive ? drive->send_json_int(message) : kNoDrive;
  send_result(result);
  return result;
}

int CNSession::send_json_n_wait_string(const Json& message) {
  const std::string name = message.GetObject("/data/drive");
  __LOG__A(logger, kDebug, "%s %s [%s:%d]", "send_json_n_wait_string", name.c_str(), TARN_SOURCE);
  const std::shared_ptr<CParentPipe> drive = tarn::FindDrive(name);
  (void)allsend(drive ? drive->send_json_string(message) : "");  // empty: a frame without a body
  return 0;
}

int CNSession::send_json_toall_n_wait_int(const Json& message) {
  {
    tarn::MutexLock lock(childlist_lock);
    for (const auto& drive : child_list) {
      (void)drive->send_json_int(message);  // one drive's failure is no other's
    }
  }
  send_result(kOk);
  return 0;
}
