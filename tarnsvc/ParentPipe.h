#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "common/json.h"
#include "common/sync.h"
#include "tarnsvc/DriveProcess.h"
#include "tarnsvc/PipeSession.h"

class CNSession;

// The service's handle of one drive process: starts it and waits for its end, hands it the mount
// request, carries commands to it and brings the answers back, receives its events and quota
// questions, and tells the clients when it dies.
//
// Owned by: child_list while mounted, the session that mounts it, its receive thread while that
//           runs, and the waiting thread until the process has ended. Holds its creator session.
// Threads:  the waiting thread (detached), the receive thread, and any session thread that sends a
//           command.
// Locks:    command_lock makes commands go out and come back one at a time; quota_mutex covers a
//           whole quota question; receive_lock guards the receive thread. None of the three is
//           taken while another is held. childlist_lock may be held around send_json_int and
//           close(); the waiting thread marks the channels broken before it asks for it.
// Errors:   result codes. Every wait ends when the process ends, a channel breaks or the service
//           stops.
class CParentPipe : public std::enable_shared_from_this<CParentPipe> {
 public:
  enum State : int { kStarting = 0, kMounted = 1, kUnmounting = 2, kClosed = 3 };

  CParentPipe();
  ~CParentPipe();
  CParentPipe(const CParentPipe&) = delete;
  CParentPipe& operator=(const CParentPipe&) = delete;

  // What to mount and for whom: `request` is the client's message with the "callback" member.
  // Throws ACCESS_VIOLATION without "/data/drive". Before anything else, once.
  void set_request(const Json& request, std::shared_ptr<CNSession> creator);

  // The drive's identity, "/data/drive" of the request.
  [[nodiscard]] const std::string& drive() const { return drive_name; }

  // Starts the drive process on the waiting thread. Always true: what goes wrong counts as the end
  // of the process, and ends every wait below.
  bool execute_child(const std::wstring& id, const std::string& label);

  // The request channel and the event channel of the pipe name.
  [[nodiscard]] bool create(const std::wstring& name, void (*callback)(void*, int));
  [[nodiscard]] bool connect(const std::wstring& name, void (*callback)(void*, int));

  // Hands over the request. Returns the drive's result, or -6 when it could not be asked. Throws an
  // AERROR for an answer that is no JSON or has no result.
  [[nodiscard]] int mount();

  std::shared_ptr<std::thread> start_recv();

  // Sends a command and waits for its answer. The drive's "/data/result", -1 for an answer without
  // one, -6 when the command could not be sent, 0 when the drive went away before it answered.
  [[nodiscard]] int send_json_int(const Json& message);

  // As send_json_int, for a command that unmounts. A drive that answers 0 has taken its volume
  // away.
  [[nodiscard]] int unmount(const std::string& command);

  // The whole answer; empty when there was none.
  [[nodiscard]] std::string send_json_string(const Json& message);

  // Handles one message of the event channel.
  void parse(const std::shared_ptr<char>& message);
  void request_quota();

  // Tells the clients, once, that a mounted drive went away. True: this was the time.
  bool notifyUnexpectedDeathOfChild();

  // Closes both channels; ends every wait on them. Events that had come by then still reach the
  // clients, unless a client takes longer than a second over one.
  void close();

  // After a failed mount: ends the process and removes what it left.
  void abandon();

  // Once the process has ended: the event if the drive was mounted, the forced unmount of a volume
  // that it left behind, the list, the channels. Nothing to do the second time.
  void clean_up_after_end();

  // A drive whose mount the clients have heard of becomes one whose death they hear of too; also of
  // a death in between.
  void set_mounted();

  // Removes the files of the request channel, which nobody opens any more.
  void remove_request_fifos() const;

  std::atomic<int> state{kClosed};
  Json mount_info;
  std::shared_ptr<CNSession> creator_session;

 private:
  void wait_for_process(const std::string& id, const std::string& label);
  void receive_events();
  void relay_waiting_events();
  void let_receiver_finish();
  void notice_broken_channel();
  [[nodiscard]] bool is_broken() const;
  [[nodiscard]] std::shared_ptr<char> wait_message();
  [[nodiscard]] bool is_channel_broken() const;
  [[nodiscard]] std::shared_ptr<char> ask(const std::string& command, bool& sent);
  [[nodiscard]] int result_without_answer(bool sent) const;

  std::string drive_name;
  std::wstring pipe_name;
  std::atomic<bool> volume_up{false};       // mounted, and not taken away by the drive itself
  std::atomic<bool> mount_answered{false};  // whatever the answer was
  tarn::DriveProcess process;
  CPipeSession request_pipe;
  CPipeSession event_pipe;
  std::shared_ptr<std::thread> recv_thread TARN_GUARDED_BY(receive_lock);  // detached at its end
  tarn::Mutex command_lock;
  tarn::Mutex quota_mutex;
  tarn::Mutex receive_lock;
  tarn::CondVar receive_ended;
  bool receiving TARN_GUARDED_BY(receive_lock) = false;
};
