#include <algorithm>
#include <exception>
#include <string_view>
#include <vector>

#include "common/frame.h"
#include "common/log.h"
#include "tarnsvc/LogSettings.h"
#include "tarnsvc/NSession.h"
#include "tarnsvc/Result.h"
#include "tarnsvc/main.h"

namespace {

// How a command is written to the log. The two forms differ by a blank, which people filter by.
enum class LogForm { kNone, kOneBlank, kTwoBlanks };

// What a client gets for a command that lacks a member.
enum class Incomplete { kNoDrive, kRefuse, kSilence };

// What a body grows by while it arrives: memory follows the bytes that really came.
constexpr int kBodyStepBytes = 64 * 1024;

int CallbackMode(int global) {
  return global == 1 ? CNSession::kAllEvents : CNSession::kOwnEvents;
}

void LogCommand(LogForm form, const Json& message) {
  constexpr LOGLEVEL level = LOGLEVEL_DEBUG | LOGLEVEL_SERVICE;
  if (logger == nullptr || (logger->GetLevel() & LOGLEVEL_DEBUG) == 0) {
    return;  // a message may hold megabytes of text
  }
  if (form == LogForm::kOneBlank) {
    __LOG__A(logger, level, "%s parse : %s [%s:%d]", "parse", message.ToText().c_str(),
             TARN_SOURCE);
  } else if (form == LogForm::kTwoBlanks) {
    __LOG__A(logger, level, "%s  parse : %s [%s:%d]", "parse", message.ToText().c_str(),
             TARN_SOURCE);
  }
}

void LogIgnored(const char* reason) {
  __LOG__A(logger, LOGLEVEL_ERROR | LOGLEVEL_SERVICE, "%s:: message ignored: %s [%s:%d]", "parse",
           reason, TARN_SOURCE);
}

}  // namespace

struct CNSession::Command {
  std::string_view name;
  void (CNSession::*run)(const Json& message);
  LogForm log;
  Incomplete incomplete = Incomplete::kNoDrive;
};

const CNSession::Command CNSession::kCommands[] = {
    {"connect", &CNSession::on_connect, LogForm::kNone},
    {"disconnect", &CNSession::on_disconnect, LogForm::kOneBlank},
    {"disconnect_all", &CNSession::unmount_all, LogForm::kTwoBlanks},
    {"set_size", &CNSession::on_relay_int, LogForm::kTwoBlanks},
    {"set_drivesize_callback", &CNSession::on_set_drivesize_callback, LogForm::kTwoBlanks},
    {"result_quota", &CNSession::on_result_quota, LogForm::kTwoBlanks, Incomplete::kSilence},
    {"init", &CNSession::on_init, LogForm::kNone, Incomplete::kRefuse},
    {"set_move_folder", &CNSession::on_relay_int, LogForm::kOneBlank},
    {"get_credential", &CNSession::on_relay_string, LogForm::kOneBlank},
    {"get_username", &CNSession::on_relay_string, LogForm::kOneBlank},
    {"set_speedlimit", &CNSession::on_relay_int, LogForm::kOneBlank},
    {"set_speedlimit_all", &CNSession::on_relay_all, LogForm::kOneBlank},
    {"set_loglevel", &CNSession::on_set_loglevel, LogForm::kOneBlank},
    {"set_callback", &CNSession::on_set_callback, LogForm::kTwoBlanks},
    {"spindle_mount", &CNSession::on_connect, LogForm::kOneBlank},
    {"spindle_add_protocol", &CNSession::on_relay_int, LogForm::kOneBlank},
    {"spindle_remove_protocol", &CNSession::on_relay_int, LogForm::kOneBlank},
    {"kill", &CNSession::on_kill, LogForm::kOneBlank},
    {"get_drive_list", &CNSession::on_get_drive_list, LogForm::kOneBlank},
};

const CNSession::Command* CNSession::FindCommand(const std::string& name) {
  for (const Command& command : kCommands) {
    if (command.name == name) {
      return &command;
    }
  }
  return nullptr;
}

void CNSession::parse(int length) {
  if (!tarn::IsFrameLength(length)) {
    LogIgnored("its length makes no sense; the connection ends");
    shut_down();
    return;
  }
  std::vector<char> body;
  try {
    while (static_cast<int>(body.size()) < length) {
      const int step = std::min(length - static_cast<int>(body.size()), kBodyStepBytes);
      const size_t already = body.size();
      body.resize(already + static_cast<size_t>(step));
      if (receive(body.data() + already, step) != step) {
        return;
      }
    }
    body.push_back('\0');
    const Json message(body.data());
    if (!message.HasObject("/cmd")) {
      LogIgnored("no command");
    } else if (const Command* command = FindCommand(message.GetObject("/cmd"))) {
      run(*command, message);
    }
  } catch (AERROR) {
    LogIgnored("not JSON");
  } catch (const std::exception& error) {
    LogIgnored(error.what());
  }
}

// Nothing that a message holds or lacks gets further than here.
void CNSession::run(const Command& command, const Json& message) {
  LogCommand(command.log, message);
  try {
    (this->*command.run)(message);
    return;
  } catch (AERROR) {
    LogIgnored("a member is missing");
  } catch (const std::exception& error) {
    LogIgnored(error.what());
  }
  answer_incomplete(command);
}

void CNSession::answer_incomplete(const Command& command) {
  switch (command.incomplete) {
    case Incomplete::kNoDrive:
      send_result(kNoDrive);
      break;
    case Incomplete::kRefuse:
      send_result(kInitRefused);
      end_refused();
      break;
    case Incomplete::kSilence:
      break;
  }
}

// The server drops the session, and the connection ends with the receive loop.
void CNSession::end_refused() {
  if (callback != nullptr) {
    callback(owner, "remove", this);
  }
  running = false;
}

void CNSession::on_init(const Json& message) {
  if (!do_init(message)) {
    end_refused();
  }
}

bool CNSession::do_init(const Json& message) {
  const std::string key = message.GetObject("/data/key");
  if (key != tarn::ServiceName()) {
    send_result(kInitRefused);
    return false;
  }
  if (message.HasObject("/data/winuser")) {
    winuser = static_cast<std::wstring>(message.GetObject("data/winuser"));
  }
  if (message.HasObject("/data/pid")) {
    pid = message.GetObject("/data/pid");
  }
  if (message.HasObject("/data/set_callback")) {
    callback_mode = CallbackMode(message.GetObject("/data/set_callback/data/global"));
  }
  send_result(kInitAccepted);
  return true;
}

void CNSession::on_connect(const Json& message) {
  (void)mount(message);
}

void CNSession::on_disconnect(const Json& message) {
  (void)unmount(message);
}

void CNSession::on_set_drivesize_callback(const Json& message) {
  drivesize_callback = true;
  (void)send_json_toall_n_wait_int(message);
}

void CNSession::on_result_quota(const Json& message) {
  const int error = message.GetObject("error");
  const long long total = message.GetObject("/data/total");
  const long long free = message.GetObject("/data/free");
  {
    tarn::MutexLock lock(result_lock);
    quota_error = error;
    quota_total = total;
    quota_free = free;
  }
  (void)signal_result();
}

void CNSession::on_relay_int(const Json& message) {
  (void)send_json_n_wait_int(message);
}

void CNSession::on_relay_string(const Json& message) {
  (void)send_json_n_wait_string(message);
}

void CNSession::on_relay_all(const Json& message) {
  (void)send_json_toall_n_wait_int(message);
}

void CNSession::on_set_loglevel(const Json& message) {
  if (logger != nullptr && message.HasObject("/data/level")) {
    logger->SetLevel(tarn::ThresholdFromText(message.GetObject("/data/level")));
  }
  (void)send_json_toall_n_wait_int(message);
}

void CNSession::on_set_callback(const Json& message) {
  callback_mode = CallbackMode(message.GetObject("/data/global"));
  (void)send_json_toall_n_wait_int(message);
}

void CNSession::on_kill(const Json& /*message*/) {
  Json disconnect_all;
  disconnect_all.Insert("cmd", std::string("disconnect_all"));
  unmount_all(disconnect_all);
  ProcessStarted = false;
}

void CNSession::on_get_drive_list(const Json& /*message*/) {
  get_drive_list();
}
