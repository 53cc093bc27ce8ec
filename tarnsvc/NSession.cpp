#include "tarnsvc/NSession.h"

#include <cerrno>
#include <chrono>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "common/frame.h"
#include "common/log.h"
#include "common/posix.h"

namespace {

constexpr int kReceiveWaitMilliseconds = 5000;
constexpr int kSendProgressMilliseconds = 10000;
constexpr auto kStopLimit = std::chrono::seconds(5);
constexpr auto kResultLimit = std::chrono::seconds(30);
constexpr auto kEmptySendPause = std::chrono::milliseconds(5);
constexpr auto kResultPause = std::chrono::milliseconds(10);

// poll(2) for one event on one descriptor: 1 ready, 0 time is up, -1 failed. An interruption counts
// as time that is up: the callers look at their flags and wait again.
int PollOne(int fd, short event, int limit_ms) {
  pollfd entry = {fd, event, 0};
  const int ready = ::poll(&entry, 1, limit_ms);
  return ready == -1 && errno == EINTR ? 0 : ready;
}

}  // namespace

CNSession::CNSession(void* owning_server, int socket, Callback notify)
    : sock(socket), callback(notify), owner(owning_server) {
  const int no_delay = 1;
  (void)::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof no_delay);
  __LOG__A(logger, LOGLEVEL_DEBUG | LOGLEVEL_SERVICE, "%s Create CNSession [%s:%d]", "CNSession",
           TARN_SOURCE);
}

CNSession::~CNSession() {
  running = false;
  tarn::MutexLock lock(sock_lock);
  if (recv_thread && recv_thread->joinable()) {
    recv_thread->detach();  // this may be that thread, dropping the last handle
  }
}

std::shared_ptr<CNSession> CNSession::make(void* owner, int socket, Callback callback) {
  auto session = std::make_shared<CNSession>(owner, socket, callback);
  session->self = session;
  return session;
}

void CNSession::start() {
  running = true;
  {
    tarn::MutexLock lock(result_lock);
    receiving = true;
  }
  tarn::MutexLock lock(sock_lock);
  recv_thread = std::make_shared<std::thread>([session = self.lock()] { session->receive_loop(); });
}

void CNSession::receive_loop() {
  while (running && sock != -1) {
    tarn::FrameHeader header = {};
    const int count = receive(reinterpret_cast<char*>(header.data()), tarn::kFrameHeaderBytes);
    if (count == -1) {
      break;
    }
    if (count == tarn::kFrameHeaderBytes) {
      parse(tarn::DecodeFrameHeader(header));
    }
  }
  disconnect();
  if (callback != nullptr) {
    callback(owner, "remove", this);
  }
  tarn::MutexLock lock(result_lock);
  receiving = false;
  result_cond.notify_all();
}

int CNSession::receive(char* buffer, int count) {
  int received = 0;
  while (received < count) {
    const int ready = PollOne(sock, POLLIN, kReceiveWaitMilliseconds);
    if (ready == -1) {
      return -1;
    }
    if (ready > 0) {
      const ssize_t part =
          ::recv(sock, buffer + received, static_cast<size_t>(count - received), 0);
      if (part <= 0) {
        return -1;
      }
      received += static_cast<int>(part);
    }
    if (!running) {
      break;
    }
  }
  return received;
}

int CNSession::allsend(const char* data, int length) {
  std::uint64_t mark = 0;
  return send_frame(data, length, mark);
}

int CNSession::allsend(const std::string& text) {
  return allsend(text.data(), static_cast<int>(text.size()));
}

// `mark` becomes the number of signals given before the first byte goes out.
int CNSession::send_frame(const char* data, int length, std::uint64_t& mark) {
  tarn::MutexLock lock(send_lock);
  mark = signal_result();
  const tarn::FrameHeader header = tarn::EncodeFrameHeader(length);
  if (_send(reinterpret_cast<const char*>(header.data()), tarn::kFrameHeaderBytes) == -1) {
    return -1;
  }
  return _send(data, length) == -1 ? -1 : length;
}

int CNSession::_send(const char* data, int length) {
  int sent = 0;
  do {
    const int fd = sock;
    const ssize_t part = ::send(fd, data + sent, static_cast<size_t>(length - sent), MSG_DONTWAIT);
    if (part == -1) {
      if (errno == EINTR ||
          ((errno == EAGAIN || errno == EWOULDBLOCK) && wait_until_writable(fd))) {
        continue;
      }
      shut_down();  // half a frame may be out: nothing after it could be understood
      return -1;
    }
    if (part == 0) {
      std::this_thread::sleep_for(kEmptySendPause);
    }
    sent += static_cast<int>(part);
  } while (sent < length);
  return sent;
}

bool CNSession::wait_until_writable(int fd) {
  return PollOne(fd, POLLOUT, kSendProgressMilliseconds) > 0;
}

void CNSession::send_result(int code) {
  Json message;
  message.Insert("cmd", std::string("result"));
  message.Insert("error", code);
  std::this_thread::sleep_for(kResultPause);
  (void)allsend(message.ToText());  // a client that is gone needs no answer
}

int CNSession::sendNwait(const char* data, int length) {
  std::uint64_t mark = 0;
  (void)send_frame(data, length, mark);  // a session that has ended ends the wait too
  return wait_result_after(mark);
}

int CNSession::wait_result() {
  std::uint64_t mark = 0;
  {
    tarn::MutexLock lock(result_lock);
    mark = result_signals;
  }
  return wait_result_after(mark);
}

int CNSession::wait_result_after(std::uint64_t mark) {
  const auto deadline = std::chrono::steady_clock::now() + kResultLimit;
  tarn::MutexLock lock(result_lock);
  while (result_signals == mark) {
    if (!running || !result_cond.wait_until(result_lock, deadline)) {
      quota_error = -1;
      break;
    }
  }
  return quota_error;
}

// Counts a signal of result_cond and returns the count with it.
std::uint64_t CNSession::signal_result() {
  tarn::MutexLock lock(result_lock);
  ++result_signals;
  result_cond.notify_all();
  return result_signals;
}

CNSession::Quota CNSession::ask_quota(const std::string& question) {
  tarn::MutexLock one_at_a_time(question_lock);
  {
    tarn::MutexLock lock(result_lock);
    quota_total = 0;
    quota_free = 0;
  }
  const int error = sendNwait(question.data(), static_cast<int>(question.size()));
  tarn::MutexLock lock(result_lock);
  return {quota_total, quota_free, error};
}

void CNSession::shut_down() {
  running = false;
  {
    tarn::MutexLock lock(sock_lock);
    if (sock != -1) {
      (void)::shutdown(sock, SHUT_RDWR);  // wakes whoever waits on it
    }
  }
  tarn::MutexLock lock(result_lock);
  result_cond.notify_all();
}

void CNSession::close_socket() {
  tarn::MutexLock no_sender(send_lock);
  tarn::MutexLock lock(sock_lock);
  if (const int open = sock.exchange(-1); open != -1) {
    ::close(open);
  }
}

void CNSession::stop() {
  shut_down();
  std::shared_ptr<std::thread> thread;
  {
    tarn::MutexLock lock(sock_lock);
    if (recv_thread && recv_thread->get_id() == std::this_thread::get_id()) {
      thread = nullptr;  // must not wait for itself; the destructor detaches it
    } else {
      thread = std::exchange(recv_thread, nullptr);
    }
  }
  if (thread && thread->joinable()) {
    const auto deadline = std::chrono::steady_clock::now() + kStopLimit;
    tarn::MutexLock lock(result_lock);
    while (receiving && result_cond.wait_until(result_lock, deadline)) {
    }
    const bool ended = !receiving;
    lock.unlock();
    if (!ended) {
      thread->detach();  // holds a handle of its own and closes the socket when it gets there
      return;
    }
    thread->join();
  }
  close_socket();
}
