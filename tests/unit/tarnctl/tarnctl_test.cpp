#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <thread>

#include "common/posix.h"
#include "tarnctl/client.h"
#include "tarnctl/mount_message.h"
#include "tests/support/endpoint.h"
#include "tests/support/service/test_client.h"

namespace tarn {
namespace {

using std::chrono::seconds;
using test::Endpoint;
using test::Frame;
using Result = Client::Result;

// A service played by the test: after the first bytes of a client it sends what it is told, in the
// given pieces, and closes.
class PlayedService : public Endpoint {
 public:
  explicit PlayedService(const std::vector<std::string>& pieces) {
    EXPECT_EQ(::listen(socket.get(), 1), 0);
    heard = std::async(std::launch::async, [this, pieces] {
      const UniqueFd peer = AcceptConnection(socket.get());
      char part[4096];
      const ssize_t count = ::recv(peer.get(), part, sizeof part, 0);
      for (const std::string& piece : pieces) {
        EXPECT_TRUE(WriteAll(peer.get(), piece.data(), piece.size()));
        std::this_thread::yield();
      }
      return std::string(part, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    });
  }
  ~PlayedService() { (void)::shutdown(socket.get(), SHUT_RDWR); }

  std::future<std::string> heard;  // waits for the player's end, before the socket goes
};

TEST(ClientTest, AnswerIsFoundAmongEventsWhichAreKept) {
  const std::string answer = Frame(R"({"cmd":"result","error":-6})");
  PlayedService service({Frame(R"({"cmd":"fs_event","data":{"method":"connected"}})"),
                         answer.substr(0, 2), answer.substr(2, 9), answer.substr(11),
                         Frame("no JSON"), Frame(R"({"cmd":"request_quota","data":{}})")});
  Client client;
  ASSERT_TRUE(client.Connect(service.port, After(seconds(10))));
  std::string body;
  ASSERT_EQ(client.Ask(Message("connect"), body, After(seconds(10))), Result::kOk);
  EXPECT_EQ(ResultCode(body), -6);
  Json event;
  ASSERT_EQ(client.NextEvent(event, After(seconds(10))), Result::kOk);
  EXPECT_EQ(std::string(event.GetObject("/data/method")), "connected");
  ASSERT_EQ(client.NextEvent(event, After(seconds(10))), Result::kOk);
  EXPECT_EQ(std::string(event.GetObject("/cmd")), "request_quota");
  EXPECT_EQ(client.NextEvent(event, After(seconds(10))), Result::kClosed);
  EXPECT_EQ(service.heard.get(), Frame(R"({"cmd":"connect"})"));
}

TEST(ClientTest, AnyBodyIsAnAnswerAndAnythingElseEndsTheConnection) {
  const std::string garbage = "\xFF\xFF\xFF\xFF";
  const std::string cut = Frame("0123456789").substr(0, 8);
  for (const std::string& bytes :
       {Frame(""), Frame("5"), Frame("[]"), Frame("\xFF"), garbage, cut, std::string()}) {
    const bool is_frame = bytes != garbage && bytes != cut && !bytes.empty();
    const PlayedService service({bytes});
    Client client;
    ASSERT_TRUE(client.Connect(service.port, After(seconds(10))));
    std::string body = "before";
    EXPECT_EQ(client.Ask(Message("status"), body, After(seconds(10))),
              is_frame ? Result::kOk : Result::kClosed);
    EXPECT_EQ(is_frame ? Frame(body) : body, is_frame ? bytes : "before");
    EXPECT_EQ(ResultCode(body), std::nullopt);
    EXPECT_EQ(client.IsOpen(), is_frame);
  }
}

TEST(ClientTest, WaitsEndAtTheirDeadline) {
  const Endpoint silent;
  Client client;
  EXPECT_FALSE(client.Connect(silent.port, After(seconds(10))));  // nothing listens
  ASSERT_EQ(::listen(silent.socket.get(), 1), 0);
  ASSERT_TRUE(client.Connect(silent.port, After(seconds(10))));
  std::string body;
  const Deadline soon = After(std::chrono::milliseconds(50));
  EXPECT_EQ(client.Receive(body, soon), Result::kTimeout);
  EXPECT_GE(std::chrono::steady_clock::now(), soon);
  EXPECT_TRUE(client.IsOpen());
  EXPECT_EQ(client.Ask(Message("status"), body, soon), Result::kTimeout);
  EXPECT_FALSE(client.IsOpen());
}

TEST(MountMessageTest, PathsBecomeAbsoluteAndSettingsKeepTheirTypes) {
  const test::TempFolder folder;
  const std::string secret = folder.Write("secret", "pass=:@word\r\n");
  const std::string here = std::filesystem::current_path().string();
  std::string problem;
  const std::vector<std::string> settings = {"user=a=b", "port:=8080", "verify:=false",
                                             "pin=1",    "mail=a:@b",  "password:@" + secret};
  auto message = MountMessage({"local", "stuff/", "./a/../drive/", "", settings}, problem);
  ASSERT_TRUE(message) << problem;
  EXPECT_EQ(message->ToText(),
            R"({"cmd":"connect","data":{"type":"local","url":")" + here +
                R"(/stuff","label":"drive","drive":")" + here + R"(/drive","option":0,)" +
                R"("user":"a=b","port":8080,"verify":false,"pin":"1","mail":"a:@b",)" +
                R"("password":"pass=:@word"}})");
  for (const auto& [type, url] :
       {std::pair("local", "file:///a%20b"), std::pair("webdav", "x/y")}) {
    message = MountMessage({type, url, "/drive", "Label", {}}, problem);
    ASSERT_TRUE(message);
    EXPECT_EQ(std::string(message->GetObject("/data/url")), url);
    EXPECT_EQ(std::string(message->GetObject("/data/label")), "Label");
  }
}

TEST(MountMessageTest, WhatCannotBeSentIsRefused) {
  for (const MountRequest& request :
       {MountRequest{"local", "/x", "/drive", "\xC3", {}},
        MountRequest{"local", "/x", "/\xFF", "", {}},
        MountRequest{"local", "/x", "/drive", "", {"no value"}},
        MountRequest{"local", "/x", "/drive", "", {"=empty key"}},
        MountRequest{"local", "/x", "/drive", "", {"broken:={"}},
        MountRequest{"local", "/x", "/drive", "", {"missing:@/none"}}}) {
    std::string problem;
    EXPECT_FALSE(MountMessage(request, problem));
    EXPECT_NE(problem, "");
  }
}

}  // namespace
}  // namespace tarn
