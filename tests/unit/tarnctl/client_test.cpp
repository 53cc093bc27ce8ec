#include "tarnctl/client.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>

#include "common/frame.h"
#include "common/posix.h"

namespace tarn {
namespace {

using std::chrono::seconds;
using Result = Client::Result;

std::string Frame(const std::string& body) {
  const FrameHeader header = EncodeFrameHeader(static_cast<std::int32_t>(body.size()));
  return std::string(header.begin(), header.end()) + body;
}

// A socket bound to a port of its own on loopback.
struct Endpoint {
  Endpoint() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(socket.get(), any, length), 0);
    EXPECT_EQ(::getsockname(socket.get(), any, &length), 0);
    port = ntohs(address.sin_port);
  }
  UniqueFd socket = OpenSocket(AF_INET, SOCK_STREAM);
  int port = 0;
};

// A service played by the test: after the first bytes of a client it sends what it is told, in the
// given pieces, and closes.
class PlayedService : public Endpoint {
 public:
  explicit PlayedService(const std::vector<std::string>& pieces) {
    EXPECT_EQ(::listen(socket.get(), 1), 0);
    player = std::thread([this, pieces] {
      const UniqueFd peer = AcceptConnection(socket.get());
      char part[4096];
      const ssize_t count = ::recv(peer.get(), part, sizeof part, 0);
      heard.assign(part, static_cast<size_t>(std::max<ssize_t>(count, 0)));
      for (const std::string& piece : pieces) {
        EXPECT_TRUE(WriteAll(peer.get(), piece.data(), piece.size()));
        std::this_thread::yield();
      }
    });
  }
  ~PlayedService() { Join(); }
  void Join() {
    if (player.joinable()) {
      (void)::shutdown(socket.get(), SHUT_RDWR);
      player.join();
    }
  }

  std::string heard;  // after Join

 private:
  std::thread player;
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
  service.Join();
  EXPECT_EQ(service.heard, Frame(R"({"cmd":"connect"})"));
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

}  // namespace
}  // namespace tarn
