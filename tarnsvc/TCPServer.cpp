#include "tarnsvc/TCPServer.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "common/log.h"
#include "common/never_destroyed.h"
#include "common/posix.h"
#include "tarnsvc/NSession.h"

namespace {

constexpr int kBacklog = 128;
constexpr int kLastPort = 65535;
constexpr auto kStopLimit = std::chrono::seconds(5);
constexpr auto kShortagePause = std::chrono::milliseconds(50);

tarn::NeverDestroyed<CTCPServer> server_object;

bool OutOfDescriptors(int error) {
  return error == EMFILE || error == ENFILE;
}

// The listening socket itself is no good any more; anything else concerns one connection or passes.
bool IsForGood(int error) {
  return error == EBADF || error == EINVAL || error == ENOTSOCK || error == EOPNOTSUPP;
}

// Returns when there is something to accept, or the socket was shut down. Accepting without a free
// descriptor fails at once, whether anybody waits or not.
void WaitForConnection(int listening_socket) {
  pollfd entry = {listening_socket, POLLIN, 0};
  (void)tarn::RetryOnInterrupt([&] { return ::poll(&entry, 1, -1); });
}

}  // namespace

CTCPServer& api_server = server_object.get();

CTCPServer::~CTCPServer() {
  stop();
}

int CTCPServer::start(int requested) {
  for (int candidate = requested; candidate <= kLastPort; ++candidate) {
    // A fresh socket each time: one that is bound but could not listen can't be bound again.
    tarn::UniqueFd socket = tarn::OpenSocket(AF_INET, SOCK_STREAM);
    if (!socket.valid()) {
      return -1;
    }
    listen_socket = socket.get();
    if (listen(candidate)) {
      (void)socket.release();
      port = candidate;
      spare = tarn::OpenFile("/dev/null", O_RDONLY);
      try {
        listen_thread = std::make_shared<std::thread>(&CTCPServer::ListenThread, this);
      } catch (const std::system_error&) {
        stop();
        port = -1;
      }
      return port;
    }
    listen_socket = -1;
  }
  return -1;
}

bool CTCPServer::listen(int requested_port) {
  listen_addr = {};
  listen_addr.sin_family = AF_INET;
  listen_addr.sin_addr.s_addr = htonl(INADDR_ANY);
  listen_addr.sin_port = htons(static_cast<std::uint16_t>(requested_port));
  return ::bind(listen_socket, reinterpret_cast<const sockaddr*>(&listen_addr),
                sizeof listen_addr) == 0 &&
         ::listen(listen_socket, kBacklog) == 0;
}

void CTCPServer::ListenThread(void* server) {
  auto* const self = static_cast<CTCPServer*>(server);
  while (!self->stopping) {
    WaitForConnection(self->listen_socket);
    tarn::UniqueFd connection = tarn::AcceptConnection(self->listen_socket);
    if (connection.valid()) {
      self->create_session(connection.release());
    } else if (IsForGood(errno)) {
      break;
    } else if (OutOfDescriptors(errno)) {
      self->refuse_connection();
    }
  }
}

// Takes the waiting connection with the spare descriptor and ends it: the client learns at once
// that there is no room, and the next one is not waited for in vain.
void CTCPServer::refuse_connection() {
  spare.reset();
  tarn::AcceptConnection(listen_socket).reset();
  spare = tarn::OpenFile("/dev/null", O_RDONLY);
  if (!spare.valid()) {
    std::this_thread::sleep_for(kShortagePause);  // another thread got it: let it finish
  }
}

void CTCPServer::create_session(int connected_socket) {
  const auto session = CNSession::make(this, connected_socket, &CTCPServer::session_callback);
  tarn::MutexLock lock(sessionlist_lock);
  session_list.push_back(session);
  try {
    session->start();
  } catch (const std::system_error&) {
    __LOG__A(logger, LOGLEVEL_ERROR | LOGLEVEL_SERVICE, "%s:: no thread for a client [%s:%d]",
             "create_session", TARN_SOURCE);
    session_list.remove(session);
    session->stop();
  }
}

void CTCPServer::session_callback(void* owner, const std::string& message, CNSession* session) {
  if (message == "remove") {
    static_cast<CTCPServer*>(owner)->remove_session(session);
  }
}

void CTCPServer::remove_session(CNSession* session) {
  std::list<std::shared_ptr<CNSession>> removed;  // declared first, so dropped after the lock
  tarn::MutexLock lock(sessionlist_lock);
  for (auto entry = session_list.begin(); entry != session_list.end();) {
    const auto next = std::next(entry);
    if (entry->get() == session) {
      removed.splice(removed.end(), session_list, entry);
    }
    entry = next;
  }
}

void CTCPServer::stop() {
  stopping = true;
  if (const int socket = listen_socket; socket != -1) {
    (void)::shutdown(socket, SHUT_RDWR);  // wakes the accept
  }
  if (listen_thread && listen_thread->joinable()) {
    listen_thread->join();
  }
  listen_thread.reset();
  if (const int socket = listen_socket.exchange(-1); socket != -1) {
    ::close(socket);
  }
  std::list<std::shared_ptr<CNSession>> sessions;
  {
    tarn::MutexLock lock(sessionlist_lock);
    sessions.swap(session_list);
  }
  for (const auto& session : sessions) {
    session->shut_down();  // all of them first, so that they end side by side
  }
  const auto deadline = std::chrono::steady_clock::now() + kStopLimit;
  for (const auto& session : sessions) {
    session->stop(deadline);
  }
}

void CTCPServer::send_fsevent(CNSession* origin, const std::shared_ptr<char>& text) {
  send_to_receivers(origin, text.get(), static_cast<int>(std::strlen(text.get())));
}

void CTCPServer::send_fsevent(CNSession* origin, const std::string& text) {
  send_to_receivers(origin, text.data(), static_cast<int>(text.size()));
}

void CTCPServer::send_to_receivers(const CNSession* origin, const char* text, int length_bytes) {
  tarn::MutexLock lock(sessionlist_lock);
  for (const auto& session : session_list) {
    if (session.get() == origin || session->mode() == CNSession::kAllEvents) {
      (void)session->allsend(text,
                             length_bytes);  // a client that is gone is no other client's loss
    }
  }
}
