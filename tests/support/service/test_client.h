#pragma once

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "common/frame.h"
#include "tarnctl/client.h"
#include "tests/support/service/service_process.h"
#include "tests/support/service/wait.h"

namespace tarn::test {

// A body with its length before it.
[[nodiscard]] inline std::string Frame(const std::string& body) {
  const FrameHeader header = EncodeFrameHeader(static_cast<std::int32_t>(body.size()));
  return std::string(header.begin(), header.end()) + body;
}

// A client of the service under test, with expectations instead of results. Waits up to kPatience
// unless told otherwise. One thread.
class TestClient {
 public:
  // Connects, without an "init".
  explicit TestClient(const ServiceProcess& service) : TestClient(service.Port()) {}
  explicit TestClient(int port);

  // Introduces itself with the service's name.
  void Introduce(bool wants_own_events = false) {
    EXPECT_TRUE(client.Introduce("tarnsvc", wants_own_events, After(kPatience)));
  }

  void Send(const std::string& body) {  // what was closed meanwhile shows in Receive
    EXPECT_NE(client.Send(body, After(kPatience)), Client::Result::kTimeout) << body;
  }
  void SendBytes(const std::string& bytes) {  // as they are, without a frame
    EXPECT_EQ(client.SendBytes(bytes, After(kPatience)), Client::Result::kOk);
  }

  // The body of the next frame; "(closed)" at the end of the connection; "(none)" when none comes.
  [[nodiscard]] std::string Receive();

  // Sends a message and returns the next frame, whatever it is.
  [[nodiscard]] std::string Exchange(const std::string& body) { return (Send(body), Receive()); }

  // Sends a message and returns its answer, keeping events for WaitForEvent.
  [[nodiscard]] std::string Ask(const std::string& body);

  // As Ask, for answers that are a result code; -1000 for any other.
  [[nodiscard]] int AskForResult(const std::string& body) {
    return ResultCode(Ask(body)).value_or(-1000);
  }

  // The next event with this "/data/method", skipping others.
  [[nodiscard]] Json WaitForEvent(const std::string& method);

 private:
  Client client;
};

// {"cmd":"connect",...} for a folder as a drive.
[[nodiscard]] std::string ConnectMessage(const fs::path& folder, const fs::path& mount_point,
                                         const std::string& label,
                                         const std::string& type = "local");

// {"cmd":command,"data":{"drive":mount_point}}, with `more` members of "data", which begin with
// ",".
[[nodiscard]] std::string DriveMessage(const std::string& command, const fs::path& mount_point,
                                       const std::string& more = "");

}  // namespace tarn::test
