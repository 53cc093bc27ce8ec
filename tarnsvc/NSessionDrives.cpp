#include <atomic>
#include <list>
#include <system_error>
#include <thread>
#include <vector>

#include "common/log.h"
#include "common/utils.h"
#include "tarnsvc/DriveList.h"
#include "tarnsvc/NSession.h"
#include "tarnsvc/ParentPipe.h"
#include "tarnsvc/Result.h"
#include "tarnsvc/TCPServer.h"

namespace {

constexpr LOGLEVEL kDebug = LOGLEVEL_DEBUG | LOGLEVEL_SERVICE;
constexpr LOGLEVEL kError = LOGLEVEL_ERROR | LOGLEVEL_SERVICE;
constexpr auto kUnmountAllPause = std::chrono::seconds(1);

std::atomic<int> g_CountID{0};

// Every character cut to its low 8 bits. A zero among them would end the label early.
std::string NarrowLabel(const std::wstring& wide) {
  std::string label = tarn::NarrowName(wide);
  for (char& character : label) {
    character = character == '\0' ? '_' : character;
  }
  return label;
}

std::string Event(const JsonObject& data) {
  Json event;
  event.Insert("cmd", std::string("fs_event"));
  event.Insert("data", data);
  return event.ToText();
}

std::string DriveEvent(const std::string& drive, const char* method) {
  JsonObject data;
  data.Insert("drive", drive);
  data.Insert("method", std::string(method));
  return Event(data);
}

std::string AllDisconnectedEvent() {
  JsonObject data;
  data.Insert("method", std::string("disconnected_all"));
  return Event(data);
}

// The first character of UTF-8 text; half a character would make no JSON text.
std::string FirstCharacter(const std::string& text) {
  size_t length = text.empty() ? 0 : 1;
  while (length < text.size() && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) {
    ++length;
  }
  return text.substr(0, length);
}

// Starts the drive process and has it mount. Returns the result code of the mount.
int StartDrive(CParentPipe& drive, const std::wstring& id, const std::string& label) {
  const std::wstring name = tarn::PipeName(id);
  const std::string name_text = ws2s(name);
  if (!drive.execute_child(id, label)) {
    __LOG__A(logger, kError, "%s:: failed to execute child, label: %s, pipe: %s [%s:%d]", "mount",
             label.c_str(), ws2s(id).c_str(), TARN_SOURCE);
    return kDriveUnreachable;
  }
  if (!drive.create(name, nullptr)) {
    __LOG__A(logger, kError, "%s:: failed to create pipe: %s [%s:%d]", "mount", name_text.c_str(),
             TARN_SOURCE);
    return kDriveUnreachable;
  }
  __LOG__A(logger, kDebug, "%s:: pipe %s is created [%s:%d]", "mount", name_text.c_str(),
           TARN_SOURCE);
  if (!drive.connect(name, nullptr)) {
    __LOG__A(logger, kError, "%s:: failed to connect pipe: %s [%s:%d]", "mount", name_text.c_str(),
             TARN_SOURCE);
    return kDriveUnreachable;
  }
  __LOG__A(logger, kDebug, "%s:: pipe %s is connected [%s:%d]", "mount", name_text.c_str(),
           TARN_SOURCE);
  int result = kDriveUnreachable;
  try {
    result = drive.mount();
  } catch (AERROR) {
    // What the drive process said makes no sense: as if it could not be reached.
  } catch (const std::system_error&) {
    // No thread to receive its events.
  }
  __LOG__A(logger, result == kOk ? kDebug : kError,
           result == kOk ? "%s:: mounted. label :%s, pipe: %s [%s:%d]"
                         : "%s:: failed to mount. label: %s, pipe: %s [%s:%d]",
           "mount", label.c_str(), name_text.c_str(), TARN_SOURCE);
  return result;
}

void ListDrive(const std::shared_ptr<CParentPipe>& drive) {
  tarn::MutexLock lock(childlist_lock);
  child_list.push_back(drive);
}

// Not on the session's thread: a process that does not end by itself takes seconds to end.
void AbandonDrive(const std::shared_ptr<CParentPipe>& drive) {
  try {
    std::thread([drive] { drive->abandon(); }).detach();
  } catch (const std::system_error&) {
    drive->abandon();
  }
}

void UnmountForGood(const std::shared_ptr<CParentPipe>& drive, const std::string& command) {
  drive->state = CParentPipe::kUnmounting;
  (void)drive->unmount(command);  // whatever it answers, it leaves the list
  drive->close();
  drive->state = CParentPipe::kClosed;
}

void UnlistDrive(const std::shared_ptr<CParentPipe>& drive) {
  tarn::MutexLock lock(childlist_lock);
  child_list.remove(drive);
}

}  // namespace

std::wstring CNSession::GenRandomString() {
  return L"_" + std::to_wstring(g_CountID++);
}

int CNSession::mount(Json message) {
  const auto drive = std::make_shared<CParentPipe>();
  message.Insert("callback", callback_mode != kNoEvents ? 1 : 0);
  drive->set_request(message, self.lock());
  (void)drive->mount_info.GetObject("/data");
  const std::wstring id = GenRandomString();
  __LOG__A(logger, kDebug, " pipe id %s, [%s:%d]", ws2s(id).c_str(), TARN_SOURCE);
  const std::string label =
      NarrowLabel(static_cast<std::wstring>(message.GetObject("/data/label")));
  const std::wstring name = tarn::PipeName(id);
  tarn::RemoveFifos(tarn::RequestChannel(name));
  tarn::RemoveFifos(tarn::EventChannel(name));
  drive->state = CParentPipe::kStarting;

  const int result = StartDrive(*drive, id, label);
  if (result == kOk) {
    ListDrive(drive);
    drive->clean_up_after_end();  // if it ended before it was listed
  }
  send_result(result);
  if (result == kOk) {
    api_server.send_fsevent(this, DriveEvent(drive->drive(), "connected"));
    drive->set_mounted();
  } else {
    AbandonDrive(drive);
  }
  announce_drivesize_callback();
  return result;
}

// A client that provides sizes says so to every drive again once there may be one more.
void CNSession::announce_drivesize_callback() {
  if (drivesize_callback) {
    Json announcement;
    announcement.Insert("cmd", std::string("set_drivesize_callback"));
    (void)send_json_toall_n_wait_int(announcement);
  }
}

int CNSession::unmount(const Json& message) {
  const std::string name = message.GetObject("/data/drive");
  __LOG__A(logger, kDebug, "%s %s [%s:%d]", "unmount", name.c_str(), TARN_SOURCE);
  const std::shared_ptr<CParentPipe> drive = tarn::FindDrive(name);
  int result = kNoDrive;
  if (drive) {
    drive->state = CParentPipe::kUnmounting;
    result = drive->unmount(message.ToText());
  }
  send_result(result);
  if (drive && result == kOk) {
    drive->state = CParentPipe::kClosed;
    api_server.send_fsevent(this, DriveEvent(name, "disconnected"));
    UnlistDrive(drive);
    drive->close();
  }
  return result;
}

void CNSession::unmount_all(const Json& message) {
  __LOG__A(logger, kDebug, "%s disconnect all [%s:%d]", "unmount_all", TARN_SOURCE);
  const std::string command = message.ToText();
  std::string letters;
  std::list<std::shared_ptr<CParentPipe>> unmounted;  // dropped after the lock: that may wait
  {
    tarn::MutexLock lock(childlist_lock);
    std::vector<std::jthread> threads;
    for (const auto& drive : child_list) {
      letters += FirstCharacter(drive->drive());
      try {
        threads.emplace_back([drive, command] { UnmountForGood(drive, command); });
      } catch (const std::system_error&) {
        UnmountForGood(drive, command);  // no thread to be had: one after the other then
      }
    }
    threads.clear();  // waits for them
    unmounted.swap(child_list);
  }
  unmounted.clear();
  std::this_thread::sleep_for(kUnmountAllPause);
  Json answer;
  answer.Insert("cmd", std::string("disconnect_all"));
  answer.Insert("result", letters);
  (void)allsend(answer.ToText());  // a client that is gone needs no answer
  __LOG__A(logger, kDebug, "unmount all drive for %s [%s:%d]", answer.ToText().c_str(),
           TARN_SOURCE);
  api_server.send_fsevent(this, AllDisconnectedEvent());
}
