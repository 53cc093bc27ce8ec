#include "tests/support/service/test_client.h"

#include <gtest/gtest.h>

namespace tarn::test {

using Result = Client::Result;

TestClient::TestClient(int port) {
  EXPECT_TRUE(client.Connect(port, After(kPatience))) << "nothing listens at port " << port;
}

void TestClient::Introduce(bool wants_own_events) {
  EXPECT_TRUE(client.Introduce("tarnsvc", wants_own_events, After(kPatience)));
}

void TestClient::Send(const std::string& body) {
  EXPECT_EQ(client.Send(body, After(kPatience)), Result::kOk) << body;
}

void TestClient::SendBytes(const std::string& bytes) {
  EXPECT_EQ(client.SendBytes(bytes, After(kPatience)), Result::kOk);
}

std::string TestClient::Receive(std::chrono::milliseconds patience) {
  std::string body;
  EXPECT_EQ(client.Receive(body, After(patience)), Result::kOk) << "nothing came";
  return body;
}

std::string TestClient::Ask(const std::string& body, std::chrono::milliseconds patience) {
  std::string answer;
  EXPECT_EQ(client.Ask(Json(body.c_str()), answer, After(patience)), Result::kOk) << body;
  return answer;
}

int TestClient::AskForResult(const std::string& body, std::chrono::milliseconds patience) {
  const std::string answer = Ask(body, patience);
  const std::optional<int> code = ResultCode(answer);
  EXPECT_TRUE(code.has_value()) << body << " was answered with " << answer;
  constexpr int no_result = -1000;
  return code.value_or(no_result);
}

Json TestClient::WaitForEvent(const std::string& method, std::chrono::milliseconds patience) {
  const Deadline deadline = After(patience);
  Json event;
  while (client.NextEvent(event, deadline) == Result::kOk) {
    if (event.HasObject("/data/method") && std::string(event.GetObject("/data/method")) == method) {
      return event;
    }
  }
  ADD_FAILURE() << "no event \"" << method << "\" came";
  return {};
}

bool TestClient::IsSilent(std::chrono::milliseconds patience) {
  std::string body;
  return client.Receive(body, After(patience)) == Result::kTimeout;
}

bool TestClient::IsClosed(std::chrono::milliseconds patience) {
  const Deadline deadline = After(patience);
  std::string body;
  Result result = Result::kOk;
  while (result == Result::kOk) {
    result = client.Receive(body, deadline);
  }
  return result == Result::kClosed;
}

std::string ConnectMessage(const std::filesystem::path& folder,
                           const std::filesystem::path& mount_point, const std::string& label,
                           const std::string& type) {
  JsonObject data;
  data.Insert("type", type);
  data.Insert("url", folder.string());
  data.Insert("label", label);
  data.Insert("drive", mount_point.string());
  data.Insert("option", 0);
  Json message = Message("connect");
  message.Insert("data", data);
  return message.ToText();
}

std::string DriveMessage(const std::string& command, const std::filesystem::path& mount_point) {
  JsonObject data;
  data.Insert("drive", mount_point.string());
  Json message = Message(command.c_str());
  message.Insert("data", data);
  return message.ToText();
}

}  // namespace tarn::test
