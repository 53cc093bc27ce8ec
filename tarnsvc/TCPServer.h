#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <thread>

#include "common/sync.h"
#include "common/unique_fd.h"

class CNSession;

// The listener for client applications, the list of their sessions, and the relay of events to
// them.
//
// Owned by: the process; there is one, api_server.
// Threads:  start() and stop() on the main thread, once each; the rest on any thread.
// Locks:    sessionlist_lock comes before a session's send_lock, and is held while an event is
//           sent. Never taken while childlist_lock is held.
// Errors:   results only.
class CTCPServer {
 public:
  CTCPServer() = default;
  ~CTCPServer();
  CTCPServer(const CTCPServer&) = delete;
  CTCPServer& operator=(const CTCPServer&) = delete;

  // Listens on the first free port from `requested` up to 65535 and starts accepting. Returns the
  // port; -1 when there is none, with nothing started.
  [[nodiscard]] int start(int requested);

  // Stops accepting and disconnects every session.
  void stop();

  // Takes a session out of the list; nothing happens when it is not in it.
  void remove_session(CNSession* session);

  // Sends an event to the session that it belongs to and to every session that asked for all
  // events.
  void send_fsevent(CNSession* origin, const std::shared_ptr<char>& text);
  void send_fsevent(CNSession* origin, const std::string& text);

 private:
  [[nodiscard]] bool listen(int requested_port);
  static void ListenThread(void* server);
  void create_session(int connected_socket);
  void refuse_connection();
  static void session_callback(void* owner, const std::string& message, CNSession* session);
  void send_to_receivers(const CNSession* origin, const char* text, int length_bytes);

  int port = -1;
  std::atomic<int> listen_socket{-1};  // stop() closes it, once the accept thread has ended
  sockaddr_in listen_addr = {};
  std::shared_ptr<std::thread> listen_thread;
  tarn::Mutex sessionlist_lock;
  std::list<std::shared_ptr<CNSession>> session_list TARN_GUARDED_BY(sessionlist_lock);

  std::atomic<bool> stopping{false};
  tarn::UniqueFd spare;  // given up for a moment when descriptors run out (accept thread)
};

// Never destroyed, because drives may end, and tell so, while the process exits.
extern CTCPServer& api_server;
