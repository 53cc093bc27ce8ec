#include "tarnsvc/ParentPipe.h"

#include <chrono>
#include <exception>
#include <system_error>
#include <utility>

#include "common/log.h"
#include "tarnsvc/DriveList.h"
#include "tarnsvc/NSession.h"
#include "tarnsvc/Result.h"
#include "tarnsvc/TCPServer.h"
#include "tarnsvc/main.h"

namespace {

constexpr auto kLastEventsLimit = std::chrono::seconds(1);

// The "/data/result" of an answer; -1 for an answer without one.
int ResultOf(const char* answer) {
  try {
    const Json document(answer);
    if (document.HasObject("/data/result")) {
      return document.GetObject("/data/result");
    }
  } catch (AERROR) {
    // Not JSON.
  }
  return kNoDrive;
}

}  // namespace

CParentPipe::CParentPipe()
    : request_pipe([this] { return process.has_ended() || !ProcessStarted; }),
      event_pipe([this] { return process.has_ended() || !ProcessStarted; }) {}

CParentPipe::~CParentPipe() = default;

void CParentPipe::set_request(const Json& request, std::shared_ptr<CNSession> creator) {
  mount_info = request;
  drive_name = static_cast<std::string>(request.GetObject("/data/drive"));
  creator_session = std::move(creator);
}

bool CParentPipe::execute_child(const std::wstring& id, const std::string& label) {
  pipe_name = tarn::PipeName(id);
  try {
    std::thread([self = shared_from_this(), narrow_id = tarn::NarrowName(id), label] {
      self->wait_for_process(narrow_id, label);
    }).detach();
  } catch (const std::system_error&) {
    process.give_up();
  }
  return true;
}

void CParentPipe::wait_for_process(const std::string& id, const std::string& label) {
  const pid_t pid = process.start(id, label);
  if (pid > 0) {
    __LOG__A(logger, LOGLEVEL_DEBUG, "%s:: success. child process id:%d [%s:%d]", "operator()",
             static_cast<int>(pid), TARN_SOURCE);
    process.wait_for_end();
  }
  // First of all, so that whoever waits for this drive, perhaps with childlist_lock, lets go.
  request_pipe.mark_broken();
  event_pipe.mark_broken();
  clean_up_after_end();
}

void CParentPipe::clean_up_after_end() {
  if (!process.has_ended()) {
    return;
  }
  let_receiver_finish();
  (void)notifyUnexpectedDeathOfChild();  // the receive thread may have been first
  bool was_listed = false;
  {
    tarn::MutexLock lock(childlist_lock);
    const bool may_have_left_a_volume = volume_up || !mount_answered;
    if (may_have_left_a_volume && tarn::IsDeadVolume(drive_name)) {
      tarn::ForceUnmount(drive_name);
    }
    was_listed = child_list.remove(shared_from_this()) > 0;
  }
  if (was_listed) {
    close();  // else whoever mounts or unmounts it still reads what the process has left
  }
  tarn::RemoveFifos(tarn::EventChannel(pipe_name));
}

void CParentPipe::set_mounted() {
  int expected = kStarting;
  // Not when another client unmounts it already.
  (void)state.compare_exchange_strong(expected, kMounted);
  clean_up_after_end();
  if (is_channel_broken()) {
    notice_broken_channel();
  }
}

bool CParentPipe::create(const std::wstring& name, void (*callback)(void*, int)) {
  return request_pipe.create(tarn::RequestChannel(name), callback);
}

bool CParentPipe::connect(const std::wstring& name, void (* /*callback*/)(void*, int)) {
  return event_pipe.connect(tarn::EventChannel(name), nullptr);
}

int CParentPipe::mount() {
  tarn::MutexLock lock(command_lock);
  const std::shared_ptr<char> question = wait_message();
  if (!question) {
    return kDriveUnreachable;
  }
  const Json request(question.get());
  if (!request.HasObject("/cmd") ||
      static_cast<std::string>(request.GetObject("/cmd")) != "request_mount_info") {
    return kDriveUnreachable;
  }
  request_pipe.write(mount_info.ToText());
  const std::shared_ptr<char> answer = wait_message();
  if (!answer) {
    return kDriveUnreachable;
  }
  mount_answered = true;
  const int result = Json(answer.get()).GetObject("/data/result");
  if (result == kOk) {
    volume_up = true;
    start_recv();
  }
  return result;
}

std::shared_ptr<std::thread> CParentPipe::start_recv() {
  tarn::MutexLock lock(receive_lock);
  recv_thread =
      std::make_shared<std::thread>([self = shared_from_this()] { self->receive_events(); });
  receiving = true;
  return recv_thread;
}

void CParentPipe::receive_events() {
  while (event_pipe.is_connected() && state != kClosed) {
    relay_waiting_events();
    tarn::PausePipePoll();
  }
  relay_waiting_events();
  {
    tarn::MutexLock lock(receive_lock);
    receiving = false;
    receive_ended.notify_all();
    recv_thread->detach();  // it holds a handle, so nobody is left to join it when that goes
  }
  notice_broken_channel();
}

// A drive whose channel broke is gone for the clients. If its process lives on, it goes too: nobody
// reads its events, and its programs would hang once the channel is full.
void CParentPipe::notice_broken_channel() {
  if (notifyUnexpectedDeathOfChild() && !process.has_ended()) {
    close();
    process.end();
  }
}

void CParentPipe::relay_waiting_events() {
  while (const std::shared_ptr<char> message = event_pipe.read()) {
    parse(message);
  }
}

void CParentPipe::parse(const std::shared_ptr<char>& message) {
  try {
    const Json document(message.get());
    if (!document.HasObject("/cmd")) {
      return;
    }
    const std::string command = document.GetObject("/cmd");
    if (command == "request_quota") {
      request_quota();
    } else if (command == "fs_event") {
      api_server.send_fsevent(creator_session.get(), message);
    }
  } catch (AERROR error) {
    __LOG__A(logger, LOGLEVEL_ERROR | LOGLEVEL_SERVICE,
             "%s:: event of %s not understood: %d [%s:%d]", "parse", drive_name.c_str(), error,
             TARN_SOURCE);
  } catch (const std::exception& error) {
    __LOG__A(logger, LOGLEVEL_ERROR | LOGLEVEL_SERVICE, "%s:: event of %s lost: %s [%s:%d]",
             "parse", drive_name.c_str(), error.what(), TARN_SOURCE);
  }
}

void CParentPipe::request_quota() {
  tarn::MutexLock lock(quota_mutex);
  JsonObject question_data;
  question_data.Insert("drive", drive_name);
  Json question;
  question.Insert("cmd", std::string("request_quota"));
  question.Insert("data", question_data);

  const CNSession::Quota quota =
      creator_session->ask_quota(question.ToText(), [this] { return is_broken(); });

  JsonObject answer_data;
  answer_data.Insert("total", static_cast<long long>(quota.total_bytes));
  answer_data.Insert("free", static_cast<long long>(quota.free_bytes));
  answer_data.Insert("error", static_cast<long long>(quota.error));
  Json answer;
  answer.Insert("cmd", std::string("result_quota"));
  answer.Insert("data", answer_data);
  event_pipe.write(answer.ToText());
}

bool CParentPipe::notifyUnexpectedDeathOfChild() {
  int expected = kMounted;
  if (!state.compare_exchange_strong(expected, kClosed)) {
    return false;
  }
  JsonObject data;
  data.Insert("drive", drive_name);
  data.Insert("method", std::string("disconnected"));
  data.Insert("state", std::string("unexpected"));
  Json event;
  event.Insert("cmd", std::string("fs_event"));
  event.Insert("data", data);
  api_server.send_fsevent(creator_session.get(), event.ToText());
  return true;
}

int CParentPipe::send_json_int(const Json& message) {
  bool sent = false;
  const std::shared_ptr<char> answer = ask(message.ToText(), sent);
  return answer ? ResultOf(answer.get()) : result_without_answer(sent);
}

int CParentPipe::unmount(const std::string& command) {
  bool sent = false;
  const std::shared_ptr<char> answer = ask(command, sent);
  const int result = answer ? ResultOf(answer.get()) : result_without_answer(sent);
  if (answer && result == kOk) {
    volume_up = false;
  }
  return result;
}

std::string CParentPipe::send_json_string(const Json& message) {
  bool sent = false;
  const std::shared_ptr<char> answer = ask(message.ToText(), sent);
  return answer ? answer.get() : "";
}

std::shared_ptr<char> CParentPipe::ask(const std::string& command, bool& sent) {
  tarn::MutexLock lock(command_lock);
  sent = request_pipe.write(command);
  return sent ? wait_message() : nullptr;
}

// A drive that went away before it answered needs its command no more; one that a stopping service
// no longer waits for may not have carried it out.
int CParentPipe::result_without_answer(bool sent) const {
  return sent && is_channel_broken() ? kOk : kDriveUnreachable;
}

bool CParentPipe::is_channel_broken() const {
  return !request_pipe.is_connected() || !event_pipe.is_connected();
}

bool CParentPipe::is_broken() const {
  return is_channel_broken() || !ProcessStarted;
}

// The next message of the request channel; empty when none can come any more.
std::shared_ptr<char> CParentPipe::wait_message() {
  for (;;) {
    const bool last_chance = is_broken();
    if (std::shared_ptr<char> message = request_pipe.read()) {
      return message;
    }
    if (last_chance) {
      return {};
    }
    tarn::PausePipePoll();
  }
}

void CParentPipe::close() {
  request_pipe.mark_broken();
  event_pipe.mark_broken();
  let_receiver_finish();
  request_pipe.close();
  event_pipe.close();
}

void CParentPipe::let_receiver_finish() {
  const auto deadline = std::chrono::steady_clock::now() + kLastEventsLimit;
  tarn::MutexLock lock(receive_lock);
  while (receiving && receive_ended.wait_until(receive_lock, deadline)) {
  }
}

void CParentPipe::abandon() {
  state = kClosed;
  close();
  process.end();
  remove_request_fifos();
  tarn::RemoveFifos(tarn::EventChannel(pipe_name));
}

void CParentPipe::remove_request_fifos() const {
  tarn::RemoveFifos(tarn::RequestChannel(pipe_name));
}
