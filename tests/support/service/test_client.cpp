#include "tests/support/service/test_client.h"

#include "common/frame.h"

namespace tarn::test {

using Result = Client::Result;

std::string Frame(const std::string& body) {
  const FrameHeader header = EncodeFrameHeader(static_cast<std::int32_t>(body.size()));
  return std::string(header.begin(), header.end()) + body;
}

TestClient::TestClient(int port) {
  EXPECT_TRUE(client.Connect(port, After(kPatience))) << "nothing listens at port " << port;
}

std::string TestClient::Receive() {
  std::string body;
  const Result result = client.Receive(body, After(kPatience));
  return result == Result::kOk ? body : result == Result::kClosed ? "(closed)" : "(none)";
}

std::string TestClient::Ask(const std::string& body) {
  std::string answer;
  EXPECT_EQ(client.Ask(Json(body.c_str()), answer, After(kPatience)), Result::kOk) << body;
  return answer;
}

int TestClient::AskForResult(const std::string& body) {
  const std::string answer = Ask(body);
  const std::optional<int> code = ResultCode(answer);
  EXPECT_TRUE(code.has_value()) << body << " was answered with " << answer;
  return code.value_or(-1000);
}

Json TestClient::WaitForEvent(const std::string& method) {
  const Deadline deadline = After(kPatience);
  Json event;
  while (client.NextEvent(event, deadline) == Result::kOk) {
    if (event.HasObject("/data/method") && std::string(event.GetObject("/data/method")) == method) {
      return event;
    }
  }
  ADD_FAILURE() << "no event \"" << method << "\" came";
  return {};
}

bool TestClient::IsClosed() {
  std::string body;
  do {
    body = Receive();
  } while (body != "(closed)" && body != "(none)");
  return body == "(closed)";
}

std::string ConnectMessage(const std::filesystem::path& folder,
                           const std::filesystem::path& mount_point, const std::string& label,
                           const std::string& type) {
  return DriveMessage("connect", mount_point,
                      R"(,"option":0,"type":")" + type + R"(","label":")" + label + R"(","url":")" +
                          folder.string() + "\"");
}

std::string DriveMessage(const std::string& command, const std::filesystem::path& mount_point,
                         const std::string& more) {
  JsonObject data;
  data.Insert("drive", mount_point.string());
  Json message = Message(command.c_str());
  message.Insert("data", data);
  const std::string text = message.ToText();
  return text.substr(0, text.size() - 2) + more + "}}";
}

}  // namespace tarn::test
