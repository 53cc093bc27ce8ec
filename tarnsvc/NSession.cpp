#include "tarnsvc/NSession.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "common/frame.h"
#include "common/log.h"
#include "common/posix.h"
#include "tarnsvc/main.h"

namespace {

constexpr int kReceiveWaitMilliseconds = 5000;
constexpr int kSendSliceMilliseconds = 100;
constexpr int kUnsentBytes = 16384;
constexpr auto kResultSlice = std::chrono::milliseconds(100);
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

CNSession::CNSession(void* owning_server, int socket, Callback notify, SessionLimits longest)
    : sock(socket), callback(notify), owner(owning_server), limits(longest) {
  const int no_delay = 1;
  (void)::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof no_delay);
  // Room shows after every few kilobytes that the client takes, not after megabytes.
  const int unsent = kUnsentBytes;
  (void)::setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &unsent, sizeof unsent);
  __LOG__A(logger, LOGLEVEL_DEBUG | LOGLEVEL_SERVICE, "%s Create CNSession [%s:%d]", "CNSession",
           TARN_SOURCE);
}

CNSession::~CNSession() {
  running = false;
  detach_receive_thread();  // this may be that thread, dropping the last handle
}

std::shared_ptr<CNSession> CNSession::make(void* owner, int socket, Callback callback,
                                           SessionLimits longest) {
  auto session = std::make_shared<CNSession>(owner, socket, callback, longest);
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
  try {
    disconnect();
    if (callback != nullptr) {
      callback(owner, "remove", this);
    }
  } catch (const std::exception&) {
    // The thread ends all the same.
  }
  detach_receive_thread();  // the drives that it mounted may keep the session long after it has
                            // ended
  tarn::MutexLock lock(result_lock);
  receiving = false;
  result_cond.notify_all();
}

void CNSession::detach_receive_thread() {
  tarn::MutexLock lock(sock_lock);
  if (recv_thread) {
    recv_thread->detach();
    recv_thread.reset();
  }
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

// As long as the limit without room for a byte; not at all once the session or the service is to
// end.
bool CNSession::wait_until_writable(int fd) {
  const auto deadline = std::chrono::steady_clock::now() + limits.send_progress;
  while (running && ProcessStarted && std::chrono::steady_clock::now() < deadline) {
    const int ready = PollOne(fd, POLLOUT, kSendSliceMilliseconds);
    if (ready != 0) {
      return ready > 0;
    }
  }
  return false;
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
  return wait_result_after(mark, [] { return false; });
}

int CNSession::wait_result() {
  std::uint64_t mark = 0;
  {
    tarn::MutexLock lock(result_lock);
    mark = result_signals;
  }
  return wait_result_after(mark, [] { return false; });
}

int CNSession::wait_result_after(std::uint64_t mark, const std::function<bool()>& given_up) {
  const auto deadline = std::chrono::steady_clock::now() + limits.answer;
  tarn::MutexLock lock(result_lock);
  while (result_signals == mark) {
    const auto now = std::chrono::steady_clock::now();
    if (!running || now >= deadline || given_up()) {
      quota_error = -1;
      break;
    }
    (void)result_cond.wait_until(result_lock, std::min(deadline, now + kResultSlice));
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

CNSession::Quota CNSession::ask_quota(const std::string& question,
                                      const std::function<bool()>& asker_gone) {
  if (!take_turn(asker_gone)) {
    return {};
  }
  std::uint64_t mark = 0;
  (void)send_frame(question.data(), static_cast<int>(question.size()), mark);
  const int error = wait_result_after(mark, asker_gone);
  Quota quota;
  {
    tarn::MutexLock lock(result_lock);
    quota = {quota_total, quota_free, error};
  }
  give_turn();
  return quota;
}

// The answers name no drive, so one question is out at a time. True: it is this thread's turn.
bool CNSession::take_turn(const std::function<bool()>& given_up) {
  tarn::MutexLock lock(result_lock);
  while (asking) {
    if (!running || given_up()) {
      return false;
    }
    (void)result_cond.wait_until(result_lock, std::chrono::steady_clock::now() + kResultSlice);
  }
  asking = true;
  quota_total = 0;
  quota_free = 0;
  return true;
}

void CNSession::give_turn() {
  tarn::MutexLock lock(result_lock);
  asking = false;
  result_cond.notify_all();
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

void CNSession::stop(Deadline deadline) {
  shut_down();
  // Stays empty on the receive thread, which can't wait for itself and detaches itself in the end.
  std::shared_ptr<std::thread> thread;
  {
    tarn::MutexLock lock(sock_lock);
    if (recv_thread && recv_thread->get_id() != std::this_thread::get_id()) {
      thread = std::exchange(recv_thread, nullptr);
    }
  }
  if (thread) {
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
