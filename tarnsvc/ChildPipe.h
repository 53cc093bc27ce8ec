#pragma once

#include <memory>
#include <string>
#include <thread>

#include "common/json.h"
#include "common/sync.h"
#include "tarnsvc/Mounter.h"
#include "tarnsvc/PipeSession.h"

// The drive process's end of the two channels: asks the service what to mount, mounts, then carries
// out the service's commands one at a time, and sends the drive's events.
//
// Owned by: StartChild, for the life of the drive process. Owns the mounter.
// Threads:  connect(), create(), request_info() and mount() on the main thread, in this order; the
//           commands on the receive thread, joined by the destructor; send_fsevent() and
//           request_drive_quota() on threads of the file-system library and of modules.
// Locks:    handler_mutex guards events_enabled; quota_mutex makes questions go one at a time. Each
//           is held while a message is written, and neither while the other is taken.
// Errors:   result codes. Waits end when a channel breaks or the service is gone.
class CChildPipe {
 public:
  CChildPipe();
  ~CChildPipe();
  CChildPipe(const CChildPipe&) = delete;
  CChildPipe& operator=(const CChildPipe&) = delete;

  [[nodiscard]] bool connect(const std::wstring& name, void (*callback)(void*, int));
  [[nodiscard]] bool create(const std::wstring& name, void (*callback)(void*, int));

  // Gets the mount information. False: the service could not be asked.
  [[nodiscard]] bool request_info();

  // Mounts, tells the service the result and, when that is 0, starts carrying out commands. Returns
  // the result; -5 for mount information that is missing or incomplete.
  [[nodiscard]] int mount();

  std::shared_ptr<std::thread> start_recv();

  // Carries out one command and answers it.
  void parse(const std::shared_ptr<char>& message);

  // Sends an event while events are enabled. Always 0.
  int send_fsevent(const std::string& text);

  // Asks the service for the drive's total and free bytes; waits for the answer, 60 s at most.
  // True: the answer counts. `context` is a CChildPipe.
  static bool request_drive_quota(void* context, char* drive, long long* total, long long* free);

  [[nodiscard]] const std::shared_ptr<CMounter>& get_mounter() const { return mounter; }

  // Waits for the receive thread and unmounts a drive that is still mounted. False: the drive, or a
  // call inside a module, would not end; this object must then not be destroyed.
  [[nodiscard]] bool let_go();

 private:
  struct Command;
  static const Command kCommands[];

  [[nodiscard]] int mount_request();
  void receive_commands();
  void run(const Command& command, const Json& message);
  void send_result(int result);
  void send_text_result(const char* command, const JsonObject& result);
  [[nodiscard]] bool is_broken() const;
  [[nodiscard]] bool ask_quota(const char* drive, long long* total, long long* free);

  int unmount(const Json& message);
  int set_size(const Json& message);
  int set_move_folder(const Json& message);
  int set_speedlimit(const Json& message);
  int set_loglevel(const Json& message);
  int get_credential(const Json& message);
  int get_username(const Json& message);
  int set_drivesize_callback(const Json& message);
  int set_callback(const Json& message);
  int add_protocol(const Json& message);
  int remove_protocol(const Json& message);

  std::shared_ptr<std::thread> recv_thread;
  std::shared_ptr<CMounter> mounter;
  Json mount_info;
  bool events_enabled TARN_GUARDED_BY(handler_mutex) = false;
  tarn::Mutex handler_mutex;
  CPipeSession request_pipe;
  CPipeSession event_pipe;
  tarn::Mutex quota_mutex;
};
