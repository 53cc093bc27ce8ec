#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "common/json.h"
#include "common/sync.h"

// How long a client may keep the service waiting.
struct SessionLimits {
  std::chrono::milliseconds answer = std::chrono::seconds(30);         // to a quota question
  std::chrono::milliseconds send_progress = std::chrono::seconds(10);  // without taking a byte
};

// One connected client: its socket, its receive thread, the commands it sends and the answers and
// events that go to it. A class in four source files, one for each subject: NSession.cpp transport,
// NSessionDispatch.cpp the command set, NSessionDrives.cpp mounting, NSessionRelays.cpp queries.
//
// Owned by: the server's list, its own receive thread while that runs, and the drives it mounted.
//           Made by make(), because it hands its own handle to those.
// Threads:  the receive thread runs all commands, one at a time. allsend() and ask_quota() on any
//           thread; stop() on one other thread, and at its end on the receive thread itself.
// Locks:    send_lock covers one outgoing frame and the closing of the socket (it comes after the
//           server's sessionlist_lock); sock_lock covers the socket's number for an instant;
//           result_lock the quota answer, whose turn it is to ask, and the end of the receive
//           thread. result_lock and sock_lock are innermost.
// Errors:   results; whatever a handler throws ends in parse(), which answers and goes on.
class CNSession {
 public:
  using Callback = void (*)(void* owner, const std::string& message, CNSession* session);

  CNSession(void* owning_server, int socket, Callback notify, SessionLimits longest = {});
  // Does not close the socket: the end of the receive thread, or stop(), does.
  ~CNSession();
  CNSession(const CNSession&) = delete;
  CNSession& operator=(const CNSession&) = delete;

  static std::shared_ptr<CNSession> make(void* owner, int socket, Callback callback,
                                         SessionLimits longest = {});

  // Starts the receive thread. Throws std::system_error where no thread can be had.
  void start();

  // Ends the connection and waits for the receive thread, until the deadline at most: a command
  // that waits for something else outlives it. On the receive thread itself it only closes the
  // socket.
  using Deadline = std::chrono::steady_clock::time_point;
  void stop(Deadline deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5));
  void disconnect() { stop(); }

  // Makes the receive thread end soon, without waiting for it.
  void shut_down();

  // Reads `count` bytes. Returns fewer only when the session is being stopped; -1 when the
  // connection is gone.
  [[nodiscard]] int receive(char* buffer, int count);

  // Sends one frame. Returns `length`; -1 when the connection is gone, or was ended here because
  // the client took nothing for as long as the limits allow.
  int allsend(const char* data, int length);
  int allsend(const std::string& text);

  // Answers {"cmd":"result","error":code}.
  void send_result(int code);

  // Sends one frame and waits as wait_result() does for a signal that comes after it.
  [[nodiscard]] int sendNwait(const char* data, int length);

  // Waits for the next signal of result_cond: a quota answer, or any frame that goes out. Returns
  // quota_error; sets it to -1 after the limit and when the session has ended.
  [[nodiscard]] int wait_result();

  struct Quota {
    std::int64_t total_bytes = 0;
    std::int64_t free_bytes = 0;
    std::int32_t error = -1;  // greater than 0: the answer counts
  };
  // Asks the client for a drive's quota, one question at a time. Invalid at once without a client,
  // and soon when `asker_gone` answers true.
  [[nodiscard]] Quota ask_quota(const std::string& question,
                                const std::function<bool()>& asker_gone);

  // Reads a body of that many bytes, runs its command and answers.
  void parse(int length);
  [[nodiscard]] bool do_init(const Json& message);

  int mount(Json message);
  void announce_drivesize_callback();
  static std::wstring GenRandomString();
  int unmount(const Json& message);
  void unmount_all(const Json& message);

  void get_drive_list();
  int send_json_n_wait_int(const Json& message);
  int send_json_n_wait_string(const Json& message);
  int send_json_toall_n_wait_int(const Json& message);

  enum Mode : int { kNoEvents = 0, kOwnEvents = 1, kAllEvents = 2 };
  // Which events the client asked for.
  [[nodiscard]] int mode() const { return callback_mode; }

 private:
  struct Command;
  static const Command kCommands[];
  static const Command* FindCommand(const std::string& name);

  void receive_loop();
  void detach_receive_thread();
  void close_socket();
  [[nodiscard]] int _send(const char* data, int length) TARN_REQUIRES(send_lock);
  [[nodiscard]] bool wait_until_writable(int fd);
  int send_frame(const char* data, int length, std::uint64_t& mark);
  std::uint64_t signal_result();
  [[nodiscard]] int wait_result_after(std::uint64_t mark, const std::function<bool()>& given_up);
  [[nodiscard]] bool take_turn(const std::function<bool()>& given_up);
  void give_turn();

  void run(const Command& command, const Json& message);
  void answer_incomplete(const Command& command);
  void end_refused();

  void on_connect(const Json& message);
  void on_disconnect(const Json& message);
  void on_set_drivesize_callback(const Json& message);
  void on_result_quota(const Json& message);
  void on_init(const Json& message);
  void on_relay_int(const Json& message);
  void on_relay_string(const Json& message);
  void on_relay_all(const Json& message);
  void on_set_loglevel(const Json& message);
  void on_set_callback(const Json& message);
  void on_kill(const Json& message);
  void on_get_drive_list(const Json& message);

  std::atomic<int> sock;  // -1 once closed, which close_socket() alone does
  const Callback callback;
  tarn::Mutex send_lock;
  void* const owner;
  std::shared_ptr<std::thread> recv_thread TARN_GUARDED_BY(sock_lock);
  bool drivesize_callback = false;
  std::atomic<int> callback_mode{kNoEvents};
  std::wstring winuser;
  int pid = 0;
  std::atomic<bool> running{false};
  tarn::CondVar result_cond;
  tarn::Mutex result_lock;
  std::int32_t quota_error TARN_GUARDED_BY(result_lock) = 0;
  std::int64_t quota_total TARN_GUARDED_BY(result_lock) = 0;
  std::int64_t quota_free TARN_GUARDED_BY(result_lock) = 0;

  std::uint64_t result_signals TARN_GUARDED_BY(result_lock) = 0;
  bool receiving TARN_GUARDED_BY(result_lock) = false;
  tarn::Mutex sock_lock;
  bool asking TARN_GUARDED_BY(result_lock) = false;
  const SessionLimits limits;
  std::weak_ptr<CNSession> self;
};
