#include "tarnctl/client.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include "common/frame.h"
#include "common/posix.h"

namespace tarn {

namespace {

constexpr int kAccepted = 1;  // the result of an "init"

#if defined(MSG_NOSIGNAL)
constexpr int kSendFlags = MSG_NOSIGNAL;
#else
constexpr int kSendFlags = 0;
#endif

void PrepareSocket(int socket) {
  const int on = 1;
  (void)::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // speed only
#if defined(SO_NOSIGPIPE)
  (void)::setsockopt(socket, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
  (void)::fcntl(socket, F_SETFL, O_NONBLOCK);  // cannot fail for an open socket
}

int MillisecondsUntil(Deadline deadline) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, INT_MAX));
}

// False when the deadline came first.
bool WaitFor(int socket, short events, Deadline deadline) {
  pollfd entry{socket, events, 0};
  for (;;) {
    const int ready = ::poll(&entry, 1, MillisecondsUntil(deadline));
    if (ready > 0) {
      return true;
    }
    if (ready == 0 && std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    if (ready < 0 && errno != EINTR) {
      return false;
    }
  }
}

bool IsConnected(int socket) {
  int error = 0;
  socklen_t length = sizeof error;
  return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

// Nothing for a text that is no JSON.
Json Parsed(const std::string& text) {
  return Json(text.data(), static_cast<unsigned>(text.size()), 0UL);
}

bool IsEvent(const std::string& body) {
  const Json message = Parsed(body);
  if (!message || !message.HasObject("/cmd")) {
    return false;
  }
  const std::string command = message.GetObject("/cmd");
  return command == "fs_event" || command == "request_quota";
}

}  // namespace

bool Client::Connect(int port, Deadline deadline) {
  received.clear();
  kept_events.clear();
  socket = OpenSocket(AF_INET, SOCK_STREAM);
  if (!socket.valid()) {
    return false;
  }
  PrepareSocket(socket.get());
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int result =
      ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const bool is_under_way = result != 0 && errno == EINPROGRESS;
  const bool is_connected =
      result == 0 ||
      (is_under_way && WaitFor(socket.get(), POLLOUT, deadline) && IsConnected(socket.get()));
  if (!is_connected) {
    Close();
  }
  return is_connected;
}

Client::Result Client::Send(const std::string& body, Deadline deadline) {
  const FrameHeader header = EncodeFrameHeader(static_cast<std::int32_t>(body.size()));
  std::string frame(header.begin(), header.end());
  frame += body;
  return SendBytes(frame, deadline);
}

Client::Result Client::SendBytes(std::string_view bytes, Deadline deadline) {
  while (IsOpen() && !bytes.empty()) {
    const ssize_t sent = ::send(socket.get(), bytes.data(), bytes.size(), kSendFlags);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
    } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      Close();
    } else if (!WaitFor(socket.get(), POLLOUT, deadline)) {
      Close();  // half a frame went out
      return Result::kTimeout;
    }
  }
  return IsOpen() ? Result::kOk : Result::kClosed;
}

// Goes on until `received` holds as many bytes as wanted.
Client::Result Client::ReadBytes(size_t wanted, Deadline deadline) {
  std::array<char, 65536> part;
  while (IsOpen() && received.size() < wanted) {
    const size_t room = std::min(part.size(), wanted - received.size());
    const ssize_t count = ::recv(socket.get(), part.data(), room, 0);
    if (count > 0) {
      received.append(part.data(), static_cast<size_t>(count));
    } else if (count == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
      Close();
    } else if (!WaitFor(socket.get(), POLLIN, deadline)) {
      return Result::kTimeout;
    }
  }
  return received.size() >= wanted ? Result::kOk : Result::kClosed;
}

Client::Result Client::ReceiveFrame(std::string& body, Deadline deadline) {
  Result result = ReadBytes(kFrameHeaderBytes, deadline);
  if (result != Result::kOk) {
    return result;
  }
  FrameHeader header{};
  std::copy_n(received.begin(), header.size(), header.begin());
  const std::int32_t length = DecodeFrameHeader(header);
  if (!IsFrameLength(length)) {
    Close();
    return Result::kClosed;
  }
  result = ReadBytes(kFrameHeaderBytes + static_cast<size_t>(length), deadline);
  if (result == Result::kOk) {
    body = received.substr(kFrameHeaderBytes);
    received.clear();
  }
  return result;
}

Client::Result Client::Receive(std::string& body, Deadline deadline) {
  if (kept_events.empty()) {
    return ReceiveFrame(body, deadline);
  }
  body = kept_events.front();
  kept_events.pop_front();
  return Result::kOk;
}

Client::Result Client::Ask(const Json& message, std::string& answer, Deadline deadline) {
  Result result = Send(message.ToText(), deadline);
  while (result == Result::kOk) {
    result = ReceiveFrame(answer, deadline);
    if (result == Result::kOk && !IsEvent(answer)) {
      return Result::kOk;
    }
    if (result == Result::kOk) {
      kept_events.push_back(answer);
    }
  }
  Close();
  return result;
}

Client::Result Client::NextEvent(Json& event, Deadline deadline) {
  std::string body;
  for (;;) {
    const Result result = Receive(body, deadline);
    if (result != Result::kOk) {
      return result;
    }
    if (IsEvent(body)) {
      event = Parsed(body);
      return Result::kOk;
    }
  }
}

bool Client::Introduce(const std::string& key, bool wants_own_events, Deadline deadline) {
  JsonObject data;
  data.Insert("key", key);
  data.Insert("pid", static_cast<int>(::getpid()));
  if (wants_own_events) {
    Json set_callback = Message("set_callback");
    JsonObject global;
    global.Insert("global", 0);
    set_callback.Insert("data", global);
    data.Insert("set_callback", set_callback.GetObject("/"));
  }
  Json message = Message("init");
  message.Insert("data", data);
  std::string answer;
  return Ask(message, answer, deadline) == Result::kOk && ResultCode(answer) == kAccepted;
}

Json Message(const char* command) {
  Json message;
  message.Insert("cmd", std::string(command));
  return message;
}

std::optional<int> ResultCode(const std::string& answer) {
  const Json message = Parsed(answer);
  if (!message || !message.HasObject("/error")) {
    return std::nullopt;
  }
  return static_cast<int>(message.GetObject("/error"));
}

}  // namespace tarn
