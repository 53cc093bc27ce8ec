#include "tests/support/service/test_client.h"

namespace tarn::test {

using Result = Client::Result;

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

std::string ConnectMessage(const fs::path& folder, const fs::path& mount_point,
                           const std::string& label, const std::string& type) {
  return DriveMessage("connect", mount_point,
                      R"(,"option":0,"type":")" + type + R"(","label":")" + label + R"(","url":")" +
                          folder.string() + "\"");
}

std::string DriveMessage(const std::string& command, const fs::path& mount_point,
                         const std::string& more) {
  return R"({"cmd":")" + command + R"(","data":{"drive":")" + mount_point.string() + '"' + more +
         "}}";
}

}  // namespace tarn::test
