#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <gtest/gtest.h>
#include <list>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>

#include "common/frame.h"
#include "common/never_destroyed.h"
#include "common/posix.h"
#include "tarnsvc/NSession.h"
#include "tarnsvc/TCPServer.h"
#include "tarnsvc/main.h"
#include "tests/support/temp_folder.h"
#include "tests/unit/service/client.h"

namespace tarn {
namespace {

using std::chrono::steady_clock;

class ServerTest : public testing::Test {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    const std::string executable = folder.Write("tarnsvc", "");
    std::strncpy(lpCmdLineData[0], executable.c_str(), kPathBytes - 1);
    folder.Write("tarnapi.ini", "[SDK]\r\nNAME=svc");
    port = server.start(41000 + ::getpid() % 20000);
    ASSERT_GT(port, 0);
  }
  void TearDown() override { server.stop(); }

  // Never destroyed, as in the service: a session that was refused may say goodbye after the test.
  static CTCPServer& NewServer() {
    static NeverDestroyed<std::list<CTCPServer>> servers;
    return servers.get().emplace_back();
  }

  const test::TempFolder folder;
  CTCPServer& server = NewServer();
  int port = -1;
};

constexpr char kAccepted[] = R"({"cmd":"result","error":1})";
constexpr char kRefused[] = R"({"cmd":"result","error":0})";
constexpr char kIncomplete[] = R"({"cmd":"result","error":-1})";

TEST_F(ServerTest, FramesAreFoundHoweverTheyArrive) {
  test::Client client(port);
  const std::string init = test::Client::Frame(R"({"cmd":"init","data":{"key":"svc"}})");
  client.SendRaw(init.substr(0, 2));
  std::this_thread::yield();
  client.SendRaw(init.substr(2, 7));
  client.SendRaw(init.substr(9) + test::Client::Frame(R"({"cmd":"get_drive_list"})"));
  EXPECT_EQ(client.Receive(), kAccepted);
  EXPECT_EQ(client.Receive(), R"({"cmd":"get_drive_list", "drives": []})");
  client.Send(std::string(R"({"cmd":"get_drive_list"})") + '\0' + "rest");
  EXPECT_EQ(client.Receive(), R"({"cmd":"get_drive_list", "drives": []})");
}

TEST_F(ServerTest, MessagesThatMakeNoSenseAreIgnoredAndIncompleteOnesAnswered) {
  test::Client client(port);
  for (const char* body :
       {"", "5", "not json", "{}", "[]", R"({"cmd":5})", R"({"cmd":"GET_DRIVE_LIST"})",
        R"({"cmd":"result_quota"})", R"({"cmd":"result_quota","error":1,"data":{"total":1}})"}) {
    client.Send(body);
  }
  client.Send(std::string(200000, '['));
  client.Settle();
  for (const char* command : {"connect", "spindle_mount", "disconnect", "set_size",
                              "set_move_folder", "get_credential", "get_username", "set_speedlimit",
                              "set_callback", "spindle_add_protocol", "spindle_remove_protocol"}) {
    EXPECT_EQ(client.Ask(std::string(R"({"cmd":")") + command + "\"}"), kIncomplete) << command;
  }
  EXPECT_EQ(client.Ask(R"({"cmd":"connect","data":{"drive":"/x"}})"), kIncomplete);
  EXPECT_EQ(client.Ask(R"({"cmd":"disconnect","data":{"drive":"/x"}})"), kIncomplete);
  EXPECT_EQ(client.Ask(R"({"cmd":"set_size","data":{"drive":"/x"}})"), kIncomplete);
  EXPECT_EQ(client.Ask(R"({"cmd":"get_username","data":{"drive":"/x"}})"), "");
  for (const char* command : {"set_drivesize_callback", "set_speedlimit_all", "set_loglevel"}) {
    EXPECT_EQ(client.Ask(std::string(R"({"cmd":")") + command + "\"}"), kRefused) << command;
  }
}

TEST_F(ServerTest, AWrongKeyEndsTheConnection) {
  for (const char* init :
       {R"({"cmd":"init","data":{"key":"sv"}})", R"({"cmd":"init","data":{"key":1}})",
        R"({"cmd":"init"})", R"({"cmd":"init","data":{"key":"svc","set_callback":{}}})"}) {
    test::Client client(port);
    EXPECT_EQ(client.Ask(init), kRefused) << init;
    EXPECT_EQ(client.Receive(), "(closed)") << init;
  }
}

TEST_F(ServerTest, LengthsThatMakeNoSenseEndTheConnectionOnly) {
  for (const char* header : {"\xFF\xFF\xFF\xFF", "\x01\0\0\x04"}) {
    test::Client client(port);
    client.SendRaw(std::string(header, 4));
    EXPECT_EQ(client.Receive(), "(closed)");
  }
  test::Client(port).Settle();
}

TEST_F(ServerTest, EventsGoToTheirOriginAndToWhoeverWantsAll) {
  test::Client none(port);
  test::Client own(port);
  test::Client all(port);
  test::Client at_init(port);
  none.Settle();
  EXPECT_EQ(own.Ask(R"({"cmd":"set_callback","data":{"global":0}})"), kRefused);
  EXPECT_EQ(all.Ask(R"({"cmd":"set_callback","data":{"global":1}})"), kRefused);
  EXPECT_EQ(at_init.Ask(R"({"cmd":"init","data":{"key":"svc","winuser":"Zoë","pid":1,
            "set_callback":{"cmd":"set_callback","data":{"global":1}}}})"),
            kAccepted);
  server.send_fsevent(nullptr, std::string("event"));
  EXPECT_EQ(all.Receive(), "event");
  EXPECT_EQ(at_init.Receive(), "event");
  none.Settle();
  own.Settle();
}

TEST_F(ServerTest, FramesOfSeveralSendersNeverMix) {
  test::Client client(port);
  EXPECT_EQ(client.Ask(R"({"cmd":"set_callback","data":{"global":1}})"), kRefused);
  const std::string event(100000, 'e');
  std::thread relay([&] {
    for (int i = 0; i < 50; ++i) {
      server.send_fsevent(nullptr, event);
    }
  });
  for (int i = 0; i < 50; ++i) {
    client.Send(R"({"cmd":"get_drive_list"})");
  }
  int events = 0;
  for (int i = 0; i < 100; ++i) {
    const std::string body = client.Receive();
    events += body == event ? 1 : 0;
    EXPECT_TRUE(body == event || body == R"({"cmd":"get_drive_list", "drives": []})");
  }
  relay.join();
  EXPECT_EQ(events, 50);
}

TEST_F(ServerTest, TakesTheNextPortWhenOneIsTakenAndGivesUpAtTheLast) {
  CTCPServer second;
  const int next = second.start(port);
  EXPECT_GT(next, port);
  test::Client(next).Settle();
  CTCPServer third;
  EXPECT_EQ(third.start(65536), -1);
  third.stop();
}

TEST_F(ServerTest, StopEndsManyClientsAtOnce) {
  std::vector<std::unique_ptr<test::Client>> clients;
  for (int i = 0; i < 50; ++i) {
    clients.push_back(std::make_unique<test::Client>(port));
    clients.back()->Settle();
  }
  clients[7]->SendRaw(std::string("\x10\0\0\0half", 8));
  const auto begin = steady_clock::now();
  server.stop();
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(2));
  for (const auto& client : clients) {
    EXPECT_EQ(client->Receive(), "(closed)");
  }
}

TEST_F(ServerTest, StopWaitsForNoReaderThatNeverReads) {
  test::Client deaf(port);
  EXPECT_EQ(deaf.Ask(R"({"cmd":"set_callback","data":{"global":1}})"), kRefused);
  std::thread relay([&] { server.send_fsevent(nullptr, std::string(32 << 20, 'e')); });
  while (true) {  // the event is on its way
    int waiting = 0;
    ASSERT_EQ(::ioctl(deaf.socket.get(), FIONREAD, &waiting), 0);
    if (waiting > 0) {
      break;
    }
  }
  const auto begin = steady_clock::now();
  ProcessStarted = false;
  server.stop();
  relay.join();
  ProcessStarted = true;
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(2));
}

TEST_F(ServerTest, ServesTheNextClientAfterDescriptorsRanOut) {
  rlimit limit = {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit low = limit;
  const UniqueFd highest(::dup(STDIN_FILENO));
  low.rlim_cur = static_cast<rlim_t>(highest.get() + 2);  // one more descriptor: the client's own
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  {
    test::Client refused(port);
    EXPECT_EQ(refused.Receive(), "(closed)");
  }
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  for (int i = 0; i < 3; ++i) {
    test::Client(port).Settle();
  }
}

// A session without a server, on one end of a pair of sockets.
class QuotaTest : public testing::Test {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    int ends[2] = {-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    peer.reset(ends[1]);
    session = CNSession::make(nullptr, ends[0], nullptr);
    session->start();
  }
  void TearDown() override { session->stop(); }

  std::string ReceiveFrame() {
    FrameHeader header = {};
    EXPECT_EQ(::recv(peer.get(), header.data(), header.size(), MSG_WAITALL), 4);
    std::string body(static_cast<size_t>(DecodeFrameHeader(header)), '\0');
    EXPECT_EQ(::recv(peer.get(), body.data(), body.size(), MSG_WAITALL),
              static_cast<ssize_t>(body.size()));
    return body;
  }
  void SendFrame(const std::string& body) {
    const std::string frame = test::Client::Frame(body);
    EXPECT_TRUE(WriteAll(peer.get(), frame.data(), frame.size()));
  }

  UniqueFd peer;
  std::shared_ptr<CNSession> session;
};

bool Never() {
  return false;
}

TEST_F(QuotaTest, TheAnswerReachesTheAskerHoweverFastItComes) {
  for (long long i = 1; i <= 200; ++i) {
    auto answer =
        std::async(std::launch::async, [&] { return session->ask_quota("question", Never); });
    EXPECT_EQ(ReceiveFrame(), "question");
    SendFrame(R"({"cmd":"result_quota","error":1,"data":{"total":10737418240,"free":)" +
              std::to_string(i) + "}}");
    const CNSession::Quota quota = answer.get();
    EXPECT_EQ(quota.error, 1);
    EXPECT_EQ(quota.total_bytes, 10737418240LL);
    EXPECT_EQ(quota.free_bytes, i);
  }
}

TEST_F(QuotaTest, AClientThatLeavesGivesAnInvalidAnswerAtOnce) {
  auto answer =
      std::async(std::launch::async, [&] { return session->ask_quota("question", Never); });
  EXPECT_EQ(ReceiveFrame(), "question");
  const auto begin = steady_clock::now();
  peer.reset();
  EXPECT_EQ(answer.get().error, -1);
  EXPECT_EQ(session->ask_quota("again", Never).error, -1);
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(QuotaTest, AnAskerThatIsGoneWaitsForNoAnswerAndNoTurn) {
  std::atomic<bool> gone{false};
  const auto asker_gone = [&] { return gone.load(); };
  auto first = std::async(std::launch::async, [&] { return session->ask_quota("1", asker_gone); });
  EXPECT_EQ(ReceiveFrame(), "1");
  auto second = std::async(std::launch::async, [&] { return session->ask_quota("2", asker_gone); });
  const auto begin = steady_clock::now();
  gone = true;
  EXPECT_EQ(first.get().error, -1);
  EXPECT_EQ(second.get().error, -1);
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(2));
}

}  // namespace
}  // namespace tarn
