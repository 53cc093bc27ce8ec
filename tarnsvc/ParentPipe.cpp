#include "tarnsvc/ParentPipe.h"

#include <cerrno>
#include <chrono>
#include <sys/stat.h>
#include <utility>

#include "common/log.h"
#include "tarnsvc/DriveList.h"
#include "tarnsvc/NSession.h"
#include "tarnsvc/Result.h"
#include "tarnsvc/TCPServer.h"
#include "tarnsvc/main.h"

namespace {

constexpr auto kLastEventsLimit = std::chrono::seconds(1);

}  // namespace

CParentPipe::CParentPipe()
    : request_pipe([this] { return process.has_ended() || !ProcessStarted; }),
      event_pipe([this] { return process.has_ended() || !ProcessStarted; }) {}

CParentPipe::~CParentPipe() {
  if (recv_thread && recv_thread->joinable()) {
    recv_thread->join();
  }
}

void CParentPipe::set_request(const Json& request, std::shared_ptr<CNSession> creator) {
  mount_info = request;
  drive_name = static_cast<std::string>(request.GetObject("/data/drive"));
  creator_session = std::move(creator);
}

bool CParentPipe::execute_child(const std::wstring& id, const std::string& label) {
  pipe_name = tarn::PipeName(id);
  std::thread([self = shared_from_this(), narrow_id = tarn::NarrowName(id), label] {
    self->wait_for_process(narrow_id, label);
  }).detach();
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
  notifyUnexpectedDeathOfChild();
  const std::shared_ptr<CParentPipe> self = shared_from_this();
  tarn::MutexLock lock(childlist_lock);
  for (const auto& child : child_list) {
    if (child == self) {
      tarn::ForceUnmount(drive_name);
      child_list.remove(self);
      close();
      tarn::RemoveFifos(tarn::EventChannel(pipe_name));
      break;
    }
  }
}

void CParentPipe::set_mounted() {
  int expected = kStarting;
  if (!state.compare_exchange_strong(expected, kMounted)) {
    return;  // another client unmounts it already
  }
  if (process.has_ended()) {
    clean_up_after_end();
  } else if (!event_pipe.is_connected()) {
    notifyUnexpectedDeathOfChild();
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
  const int result = Json(answer.get()).GetObject("/data/result");
  if (result == kOk) {
    start_recv();
  }
  return result;
}

std::shared_ptr<std::thread> CParentPipe::start_recv() {
  {
    tarn::MutexLock lock(receive_lock);
    receiving = true;
  }
  // Without a handle of its own: the destructor waits for this thread.
  recv_thread = std::make_shared<std::thread>([this] { receive_events(); });
  return recv_thread;
}

void CParentPipe::receive_events() {
  while (event_pipe.is_connected() && state != kClosed) {
    relay_waiting_events();
    tarn::PausePipePoll();
  }
  relay_waiting_events();
  notifyUnexpectedDeathOfChild();
  tarn::MutexLock lock(receive_lock);
  receiving = false;
  receive_ended.notify_all();
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
  }
}

void CParentPipe::request_quota() {
  tarn::MutexLock lock(quota_mutex);
  JsonObject question_data;
  question_data.Insert("drive", drive_name);
  Json question;
  question.Insert("cmd", std::string("request_quota"));
  question.Insert("data", question_data);

  const CNSession::Quota quota = creator_session->ask_quota(question.ToText());

  JsonObject answer_data;
  answer_data.Insert("total", static_cast<long long>(quota.total_bytes));
  answer_data.Insert("free", static_cast<long long>(quota.free_bytes));
  answer_data.Insert("error", static_cast<long long>(quota.error));
  Json answer;
  answer.Insert("cmd", std::string("result_quota"));
  answer.Insert("data", answer_data);
  event_pipe.write(answer.ToText());
}

void CParentPipe::notifyUnexpectedDeathOfChild() {
  int expected = kMounted;
  if (!state.compare_exchange_strong(expected, kClosed)) {
    return;
  }
  JsonObject data;
  data.Insert("drive", drive_name);
  data.Insert("method", std::string("disconnected"));
  data.Insert("state", std::string("unexpected"));
  Json event;
  event.Insert("cmd", std::string("fs_event"));
  event.Insert("data", data);
  api_server.send_fsevent(creator_session.get(), event.ToText());
}

int CParentPipe::send_json_int(const Json& message) {
  bool sent = false;
  const std::shared_ptr<char> answer = ask(message, sent);
  if (!answer) {
    return sent ? kOk : kDriveUnreachable;
  }
  try {
    const Json document(answer.get());
    if (document.HasObject("/data/result")) {
      return document.GetObject("/data/result");
    }
  } catch (AERROR) {
    // Not JSON: an answer without a result.
  }
  return kNoDrive;
}

std::string CParentPipe::send_json_string(const Json& message) {
  bool sent = false;
  const std::shared_ptr<char> answer = ask(message, sent);
  return answer ? answer.get() : "";
}

std::shared_ptr<char> CParentPipe::ask(const Json& message, bool& sent) {
  tarn::MutexLock lock(command_lock);
  sent = request_pipe.write(message.ToText());
  return sent ? wait_message() : nullptr;
}

bool CParentPipe::is_broken() const {
  return !request_pipe.is_connected() || !event_pipe.is_connected() || !ProcessStarted;
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
  const bool ended_by_itself = process.end();
  struct stat status = {};
  if (!ended_by_itself && ::stat(drive_name.c_str(), &status) != 0 && errno == ENOTCONN) {
    tarn::ForceUnmount(drive_name);  // killed between its mount and its answer
  }
  // The request channel's files go with its object; a process that was killed leaves the others.
  tarn::RemoveFifos(tarn::RequestChannel(pipe_name));
  tarn::RemoveFifos(tarn::EventChannel(pipe_name));
}
