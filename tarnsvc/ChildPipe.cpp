#include "tarnsvc/ChildPipe.h"

#include <chrono>
#include <exception>
#include <string_view>
#include <unistd.h>

#include "common/log.h"
#include "tarnsvc/LogSettings.h"
#include "tarnsvc/Result.h"
#include "tarnsvc/ServiceWatch.h"
#include "tarnsvc/main.h"

namespace {

constexpr LOGLEVEL kDebug = LOGLEVEL_DEBUG | LOGLEVEL_SERVICE;
constexpr LOGLEVEL kError = LOGLEVEL_ERROR | LOGLEVEL_SERVICE;
constexpr auto kTextAnswerPause = std::chrono::milliseconds(10);
constexpr auto kQuotaLimit = std::chrono::seconds(60);
constexpr int kIncomplete = -1;

std::string Message(const char* command, const JsonObject& data) {
  Json message;
  message.Insert("cmd", std::string(command));
  message.Insert("data", data);
  return message.ToText();
}

std::string ResultMessage(const char* command, int result) {
  JsonObject data;
  data.Insert("result", result);
  return Message(command, data);
}

}  // namespace

// A handler that answers by itself ends the process's part in the exchange; the others' value goes
// back as the result.
struct CChildPipe::Command {
  std::string_view name;
  int (CChildPipe::*run)(const Json& message);
  bool answers_itself = false;
};

const CChildPipe::Command CChildPipe::kCommands[] = {
    {"disconnect", &CChildPipe::unmount, true},
    {"disconnect_all", &CChildPipe::unmount, true},
    {"set_size", &CChildPipe::set_size},
    {"set_move_folder", &CChildPipe::set_move_folder},
    {"set_speedlimit", &CChildPipe::set_speedlimit},
    {"set_speedlimit_all", &CChildPipe::set_speedlimit},
    {"set_loglevel", &CChildPipe::set_loglevel},
    {"get_credential", &CChildPipe::get_credential, true},
    {"get_username", &CChildPipe::get_username, true},
    {"set_drivesize_callback", &CChildPipe::set_drivesize_callback},
    {"set_callback", &CChildPipe::set_callback, true},
    {"spindle_add_protocol", &CChildPipe::add_protocol},
    {"spindle_remove_protocol", &CChildPipe::remove_protocol},
};

CChildPipe::CChildPipe() : request_pipe(tarn::ServiceIsGone), event_pipe(tarn::ServiceIsGone) {}

CChildPipe::~CChildPipe() {
  (void)let_go();   // whoever needs to know has asked before
  mounter.reset();  // while what its last events go through is still there
}

bool CChildPipe::let_go() {
  if (recv_thread && recv_thread->joinable()) {
    recv_thread->join();
  }
  return !mounter || mounter->let_go();
}

bool CChildPipe::connect(const std::wstring& name, void (*callback)(void*, int)) {
  return request_pipe.connect(tarn::RequestChannel(name), callback);
}

bool CChildPipe::create(const std::wstring& name, void (*callback)(void*, int)) {
  return event_pipe.create(tarn::EventChannel(name), callback);
}

bool CChildPipe::is_broken() const {
  return !request_pipe.is_connected() || !event_pipe.is_connected() || tarn::ServiceIsGone();
}

bool CChildPipe::request_info() {
  const int process = static_cast<int>(::getpid());
  __LOG__A(logger, LOGLEVEL_DEBUG, "%s:: %d request [%s:%d]", "request_info", process, TARN_SOURCE);
  Json question;
  question.Insert("cmd", std::string("request_mount_info"));
  if (!request_pipe.write(question.ToText())) {
    return false;
  }
  std::shared_ptr<char> answer;
  while (!(answer = request_pipe.read())) {
    if (is_broken()) {
      return false;
    }
    tarn::PausePipePoll();
  }
  __LOG__A(logger, LOGLEVEL_DEBUG, "%s:: %d received response [%s:%d]", "request_info", process,
           TARN_SOURCE);
  try {
    mount_info = Json(answer.get());
  } catch (AERROR) {
    return false;
  }
  if (mount_info.HasObject("callback")) {
    const int mode = mount_info.GetObject("callback");
    tarn::MutexLock lock(handler_mutex);
    events_enabled = mode != 0;
  }
  return true;
}

int CChildPipe::mount() {
  int result = kMountFailed;
  try {
    result = mount_request();
  } catch (AERROR) {
    __LOG__A(logger, kError, "%s:: mount information is incomplete [%s:%d]", "mount", TARN_SOURCE);
  } catch (const std::exception& error) {
    __LOG__A(logger, kError, "%s:: %s [%s:%d]", "mount", error.what(), TARN_SOURCE);
  }
  request_pipe.write(ResultMessage("mount_result", result));
  if (result == kOk) {
    start_recv();
  }
  return result;
}

// Throws for mount information that lacks a member or holds text that cannot be used.
int CChildPipe::mount_request() {
  const std::string command = mount_info.GetObject("/cmd");
  mounter = std::make_shared<CMounter>(this);
  mounter->type = static_cast<std::string>(mount_info.GetObject("/data/type"));
  if (mount_info.HasObject("/data/url")) {
    mounter->url = static_cast<std::string>(mount_info.GetObject("/data/url"));
  }
  mounter->label = static_cast<std::string>(mount_info.GetObject("/data/label"));
  mounter->drive = static_cast<std::string>(mount_info.GetObject("/data/drive"));
  mounter->option = mount_info.GetObject("/data/option");
  mounter->quota_callback = &CChildPipe::request_drive_quota;
  __LOG__A(logger, kDebug, "%s type %s, url %s, drive %s, option %d [%s:%d]", "mount",
           mounter->type.c_str(), mounter->url.c_str(), mounter->drive.c_str(), mounter->option,
           TARN_SOURCE);
  return command == "connect" ? mounter->mount(mount_info, nullptr)
                              : mounter->empty_mount(mount_info, nullptr);
}

std::shared_ptr<std::thread> CChildPipe::start_recv() {
  recv_thread = std::make_shared<std::thread>([this] { receive_commands(); });
  return recv_thread;
}

void CChildPipe::receive_commands() {
  while (ProcessStarted) {
    if (const std::shared_ptr<char> message = request_pipe.read()) {
      parse(message);
    } else if (tarn::ServiceIsGone()) {
      (void)mounter->unmount();  // nobody is left to hear of a failure; the destructor tries again
      ProcessStarted = false;
    } else {
      tarn::PausePipePoll();
    }
  }
}

void CChildPipe::parse(const std::shared_ptr<char>& message) {
  try {
    const Json document(message.get());
    if (!document.HasObject("/cmd")) {
      return;
    }
    const std::string name = document.GetObject("/cmd");
    __LOG__A(logger, kDebug, "%s command %s [%s:%d]", "parse", name.c_str(), TARN_SOURCE);
    for (const Command& command : kCommands) {
      if (command.name == name) {
        run(command, document);
        return;
      }
    }
  } catch (AERROR) {
    __LOG__A(logger, kError, "%s:: command ignored: not JSON [%s:%d]", "parse", TARN_SOURCE);
  } catch (const std::exception& error) {
    __LOG__A(logger, kError, "%s:: command lost: %s [%s:%d]", "parse", error.what(), TARN_SOURCE);
  }
}

// Nothing that a command holds or lacks gets further than here.
void CChildPipe::run(const Command& command, const Json& message) {
  int result = kIncomplete;
  bool answered = false;
  try {
    result = (this->*command.run)(message);
    answered = command.answers_itself;
  } catch (AERROR) {
    __LOG__A(logger, kError, "%s:: a member is missing [%s:%d]", "parse", TARN_SOURCE);
  } catch (const std::exception& error) {
    __LOG__A(logger, kError, "%s:: %s [%s:%d]", "parse", error.what(), TARN_SOURCE);
  }
  if (!answered) {
    send_result(result);
  }
}

void CChildPipe::send_result(int result) {
  request_pipe.write(ResultMessage("result", result));
}

void CChildPipe::send_text_result(const char* command, const JsonObject& result) {
  Json answer;
  answer.Insert("cmd", std::string(command));
  answer.Insert("result", result);
  std::this_thread::sleep_for(kTextAnswerPause);
  request_pipe.write(answer.ToText());
}

int CChildPipe::unmount(const Json& /*message*/) {
  const int result = mounter->unmount();
  send_result(result);
  ProcessStarted = false;
  return result;
}

int CChildPipe::set_size(const Json& message) {
  mounter->set_size(message.GetObject("/data/total"), message.GetObject("/data/free"));
  return kOk;
}

int CChildPipe::set_move_folder(const Json& message) {
  mounter->set_move_folder(message.GetObject("/data/flag"));
  return kOk;
}

int CChildPipe::set_speedlimit(const Json& message) {
  mounter->set_speedlimit(message.GetObject("/data/speed"));
  return kOk;
}

int CChildPipe::set_loglevel(const Json& message) {
  const std::string level = message.GetObject("/data/level");
  if (logger != nullptr) {
    logger->SetLevel(tarn::ThresholdFromText(level));
  }
  return kOk;
}

int CChildPipe::get_credential(const Json& message) {
  (void)message.GetObject("/data/drive");
  JsonObject text;
  text = mounter->get_credential();
  send_text_result("result_credential", text);
  return kOk;
}

int CChildPipe::get_username(const Json& message) {
  (void)message.GetObject("/data/drive");
  const std::wstring name = mounter->get_username();
  JsonObject holder;
  holder.Insert("name", name);
  send_text_result("result_username", holder.GetObject("name"));
  return kOk;
}

int CChildPipe::set_drivesize_callback(const Json& /*message*/) {
  mounter->size_callback_enabled = true;
  return kOk;
}

int CChildPipe::set_callback(const Json& /*message*/) {
  tarn::MutexLock lock(handler_mutex);
  events_enabled = true;
  send_result(kOk);
  return kOk;
}

int CChildPipe::add_protocol(const Json& message) {
  return mounter->get_add_protocol(message);
}

int CChildPipe::remove_protocol(const Json& message) {
  return mounter->remove_protocol(message);
}

int CChildPipe::send_fsevent(const std::string& text) {
  tarn::MutexLock lock(handler_mutex);
  if (events_enabled) {
    __LOG__A(logger, kDebug, "%s fsevent %s [%s:%d]", "send_fsevent", text.c_str(), TARN_SOURCE);
    event_pipe.write(text);
  }
  return 0;
}

bool CChildPipe::request_drive_quota(void* context, char* drive, long long* total,
                                     long long* free) {
  return static_cast<CChildPipe*>(context)->ask_quota(drive, total, free);
}

bool CChildPipe::ask_quota(const char* drive, long long* total, long long* free) {
  tarn::MutexLock one_at_a_time(quota_mutex);
  while (event_pipe.read()) {
    // The answer to an earlier question that was no longer waited for.
  }
  JsonObject data;
  data.Insert("drive", std::string(drive));
  event_pipe.write(Message("request_quota", data));
  const auto deadline = std::chrono::steady_clock::now() + kQuotaLimit;
  std::shared_ptr<char> reply;
  while (!(reply = event_pipe.read())) {
    if (is_broken() || !ProcessStarted || mounter->unmounting ||
        std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    tarn::PausePipePoll();
  }
  try {
    const Json answer(reply.get());
    if (answer.HasObject("/data/total")) {
      *total = answer.GetObject("/data/total");
    }
    if (answer.HasObject("/data/free")) {
      *free = answer.GetObject("/data/free");
    }
    const long long error = answer.HasObject("/data/error")
                                ? static_cast<long long>(answer.GetObject("/data/error"))
                                : 0;
    return error > 0;
  } catch (AERROR) {
    return false;
  }
}
