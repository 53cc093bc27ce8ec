#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "common/json.h"
#include "common/unique_fd.h"

namespace tarn {

using Deadline = std::chrono::steady_clock::time_point;

[[nodiscard]] inline Deadline After(std::chrono::milliseconds wait) {
  return std::chrono::steady_clock::now() + wait;
}

// A client's connection to the service: sends messages, tells their answers from the events that
// come in between. One thread; waits never exceed their deadline. Where JSON is built from text
// that is not UTF-8, members are missing: callers check what users typed.
class Client {
 public:
  enum class Result {
    kOk,
    kTimeout,  // nothing came before the deadline; the connection still stands
    kClosed,   // the connection is gone; every later call says the same
  };

  // Connects to the service on this machine. False: nothing listens at that port.
  [[nodiscard]] bool Connect(int port, Deadline deadline);
  void Close() { socket.reset(); }
  [[nodiscard]] bool IsOpen() const { return socket.valid(); }

  // Sends one frame with any body.
  [[nodiscard]] Result Send(const std::string& body, Deadline deadline);

  // Sends bytes as they are.
  [[nodiscard]] Result SendBytes(std::string_view bytes, Deadline deadline);

  // The body of the next frame, whatever it is, kept events first.
  [[nodiscard]] Result Receive(std::string& body, Deadline deadline);

  // Sends a message and waits for its answer, the next frame that is no event. An answer may be
  // empty or no JSON. Events are kept for NextEvent. After a time-out the answer may still come,
  // so the connection is closed.
  [[nodiscard]] Result Ask(const Json& message, std::string& answer, Deadline deadline);

  // The next "fs_event" or "request_quota" message.
  [[nodiscard]] Result NextEvent(Json& event, Deadline deadline);

  // Introduces this client. False: the key was refused, or the service does not answer.
  // `wants_own_events`: events of the drives that this client mounts are to be sent.
  [[nodiscard]] bool Introduce(const std::string& key, bool wants_own_events, Deadline deadline);

 private:
  [[nodiscard]] Result ReceiveFrame(std::string& body, Deadline deadline);
  [[nodiscard]] Result ReadBytes(size_t wanted, Deadline deadline);

  UniqueFd socket;
  std::string received;  // bytes of a frame that is not complete yet
  std::deque<std::string> kept_events;
};

// The message {"cmd":command}, to be filled.
[[nodiscard]] Json Message(const char* command);

// The "error" of a result answer; nothing when it is none.
[[nodiscard]] std::optional<int> ResultCode(const std::string& answer);

}  // namespace tarn
