#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <gtest/gtest.h>
#include <list>
#include <netinet/in.h>
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
#include "tests/support/service/test_client.h"
#include "tests/support/temp_folder.h"

namespace tarn::test {
namespace {

using std::chrono::steady_clock;

constexpr char kAccepted[] = R"({"cmd":"result","error":1})";
constexpr char kRefused[] = R"({"cmd":"result","error":0})";
constexpr char kIncomplete[] = R"({"cmd":"result","error":-1})";
constexpr char kNoDrives[] = R"({"cmd":"get_drive_list", "drives": []})";

// The next frame that comes, whole.
void ExpectFrame(const UniqueFd& socket, const std::string& body) {
  std::string frame(kFrameHeaderBytes + body.size(), '\0');
  (void)::recv(socket.get(), frame.data(), frame.size(), MSG_WAITALL);
  EXPECT_EQ(frame, Frame(body));
}

// Never destroyed, as in the service: a session that was refused may say goodbye after the test.
NeverDestroyed<std::list<CTCPServer>> servers;

class ServerTest : public testing::Test {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    ProcessStarted = true;
    std::strncpy(lpCmdLineData[0], folder.Write("tarnsvc", "").c_str(), kPathBytes - 1);
    folder.Write("tarnapi.ini", "[SDK]\r\nNAME=svc");
    port = server.start(41000 + ::getpid() % 20000);
    ASSERT_GT(port, 0);
  }
  void TearDown() override { server.stop(); }

  // Everything sent before has been handled, and nothing of it was answered.
  static void Settle(TestClient& client) {
    EXPECT_EQ(client.Exchange(R"({"cmd":"get_drive_list"})"), kNoDrives);
  }

  // Whether a socket of this process, a client's or the server's, has bytes that nobody took.
  static bool SomethingWaitsToBeRead() {
    int waiting = 0;
    for (int fd = STDERR_FILENO + 1; fd < 1024 && waiting == 0; ++fd) {
      (void)::ioctl(fd, FIONREAD, &waiting);
    }
    return waiting > 0;
  }

  const TempFolder folder;
  CTCPServer& server = servers.get().emplace_back();
  int port = -1;
};

TEST_F(ServerTest, FramesAreFoundHoweverTheyArrive) {
  TestClient client(port);
  const std::string init = Frame(R"({"cmd":"init","data":{"key":"svc"}})");
  client.SendBytes(init.substr(0, 2));
  std::this_thread::yield();
  client.SendBytes(init.substr(2, 7));
  client.SendBytes(init.substr(9) + Frame(R"({"cmd":"get_drive_list"})"));
  EXPECT_EQ(client.Receive(), kAccepted);
  EXPECT_EQ(client.Receive(), kNoDrives);
}

TEST_F(ServerTest, MessagesThatMakeNoSenseAreIgnoredAndIncompleteOnesAnswered) {
  TestClient client(port);
  for (const char* body :
       {"", "5", "not json", "{}", "[]", R"({"cmd":5})", R"({"cmd":"GET_DRIVE_LIST"})",
        R"({"cmd":"result_quota"})", R"({"cmd":"result_quota","error":1,"data":{"total":1}})"}) {
    client.Send(body);
  }
  client.Send(std::string(200000, '['));
  Settle(client);
  for (const char* command : {"connect", "spindle_mount", "disconnect", "set_size",
                              "set_move_folder", "get_credential", "get_username", "set_speedlimit",
                              "set_callback", "spindle_add_protocol", "spindle_remove_protocol"}) {
    EXPECT_EQ(client.Exchange(std::string(R"({"cmd":")") + command + "\"}"), kIncomplete);
  }
  for (const char* command : {"connect", "disconnect", "set_size"}) {
    EXPECT_EQ(client.Exchange(DriveMessage(command, "/x")), kIncomplete) << command;
  }
  EXPECT_EQ(client.Exchange(DriveMessage("get_username", "/x")), "");
  for (const char* command : {"set_drivesize_callback", "set_speedlimit_all", "set_loglevel"}) {
    EXPECT_EQ(client.Exchange(std::string(R"({"cmd":")") + command + "\"}"), kRefused) << command;
  }
}

TEST_F(ServerTest, AWrongKeyOrLengthEndsTheConnectionOnly) {
  for (const char* init :
       {R"({"cmd":"init","data":{"key":"sv"}})", R"({"cmd":"init","data":{"key":1}})",
        R"({"cmd":"init"})", R"({"cmd":"init","data":{"key":"svc","set_callback":{}}})"}) {
    TestClient client(port);
    EXPECT_EQ(client.Exchange(init), kRefused) << init;
    EXPECT_EQ(client.Receive(), "(closed)") << init;
  }
  for (const char* header : {"\xFF\xFF\xFF\xFF", "\x01\0\0\x04"}) {
    TestClient client(port);
    client.SendBytes(std::string(header, 4));
    EXPECT_EQ(client.Receive(), "(closed)");
  }
  TestClient next(port);
  Settle(next);
}

TEST_F(ServerTest, FramesOfSeveralSendersNeverMix) {
  TestClient client(port);
  EXPECT_EQ(client.Exchange(R"({"cmd":"set_callback","data":{"global":1}})"), kRefused);
  const std::string event(100000, 'e');
  const std::jthread relay([&] {
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
    EXPECT_TRUE(body == event || body == kNoDrives);
  }
  EXPECT_EQ(events, 50);
}

TEST_F(ServerTest, StopEndsManyClientsAndWaitsForNoReaderThatNeverReads) {
  std::list<TestClient> clients;
  for (int i = 0; i < 50; ++i) {
    Settle(clients.emplace_back(port));
  }
  clients.front().SendBytes(std::string("\x10\0\0\0half", 8));
  TestClient deaf(port);
  EXPECT_EQ(deaf.Exchange(R"({"cmd":"set_callback","data":{"global":1}})"), kRefused);
  std::thread relay([&] { server.send_fsevent(nullptr, std::string(32 << 20, 'e')); });
  ASSERT_TRUE(WaitUntil(SomethingWaitsToBeRead));
  Settle(clients.back());  // whom the deaf one holds up in nothing
  const auto begin = steady_clock::now();
  ProcessStarted = false;
  server.stop();
  relay.join();
  ProcessStarted = true;
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(2));
  for (TestClient& client : clients) {
    EXPECT_EQ(client.Receive(), "(closed)");
  }
}

TEST_F(ServerTest, RefusesClientsWhileDescriptorsAreShort) {
#if defined(TARN_SANITIZED)
  GTEST_SKIP() << "sanitizers need descriptors of their own to look at memory";
#endif
  TestClient before(port);
  Settle(before);  // so the server waits for the next one by now
  const UniqueFd refused = OpenSocket(AF_INET, SOCK_STREAM);
  rlimit limit = {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit low = limit;
  const UniqueFd highest(::dup(STDIN_FILENO));
  low.rlim_cur = static_cast<rlim_t>(highest.get() + 1);  // all numbers up to here are taken
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  sockaddr_in address = {
      AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  EXPECT_EQ(::connect(refused.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  char byte = 0;
  EXPECT_TRUE(WaitUntil([&] { return ::recv(refused.get(), &byte, 1, MSG_DONTWAIT) == 0; }));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  TestClient served(port);
  Settle(served);
}

// A session without a server, on one end of a pair of sockets.
class SessionTest : public testing::Test {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    Start({});
  }
  void TearDown() override { session->stop(); }

  void Start(SessionLimits limits) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    peer.reset(ends[1]);
    session = CNSession::make(nullptr, ends[0], nullptr, limits);
    session->start();
  }

  std::future<CNSession::Quota> Ask(const std::string& question) {
    return std::async(std::launch::async, [this, question] {
      return session->ask_quota(question, [this] { return gone.load(); });
    });
  }
  void ExpectAnswerInTime() {
    auto answer = Ask("question");
    ExpectFrame(peer, "question");
    const std::string frame =
        Frame(R"({"cmd":"result_quota","error":1,"data":{"total":10737418240,"free":7}})");
    EXPECT_TRUE(WriteAll(peer.get(), frame.data(), frame.size()));
    const CNSession::Quota quota = answer.get();
    EXPECT_EQ(quota.error, 1);
    EXPECT_EQ(quota.total_bytes, 10737418240LL);
    EXPECT_EQ(quota.free_bytes, 7);
  }

  std::atomic<bool> gone{false};
  UniqueFd peer;
  std::shared_ptr<CNSession> session;
};

TEST_F(SessionTest, AQuotaAnswerReachesTheAskerHoweverFastItComes) {
  for (int i = 0; i < 200; ++i) {
    ExpectAnswerInTime();
  }
}

TEST_F(SessionTest, NobodyWaitsForAQuotaAnswerThatNeverComes) {
  auto first = Ask("1");
  ExpectFrame(peer, "1");
  auto second = Ask("2");
  const auto begin = steady_clock::now();
  gone = true;  // the asker
  EXPECT_EQ(first.get().error, -1);
  EXPECT_EQ(second.get().error, -1);
  gone = false;
  session->stop();

  Start({});
  auto third = Ask("3");
  ExpectFrame(peer, "3");
  peer.reset();  // the client
  EXPECT_EQ(third.get().error, -1);
  EXPECT_EQ(Ask("4").get().error, -1);
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(5));
  session->stop();

  constexpr auto limit = std::chrono::milliseconds(250);
  Start({.answer = limit});
  const auto asked = steady_clock::now();
  EXPECT_EQ(Ask("5").get().error, -1);
  EXPECT_GE(steady_clock::now() - asked, limit);
  ExpectFrame(peer, "5");
  ExpectAnswerInTime();  // of a client that lives on
}

TEST_F(SessionTest, AClientMayReadSlowlyButNotNever) {
  session->stop();
  const std::string large(1 << 20, 'x');
  std::string part(1 << 17, '\0');
  constexpr auto limit = std::chrono::milliseconds(300);
  Start({.send_progress = limit});
  auto slow = std::async(std::launch::async, [&] { return session->allsend(large); });
  size_t received = 0;
  while (received < kFrameHeaderBytes + large.size()) {
    std::this_thread::sleep_for(limit / 6);
    const ssize_t count = ::recv(peer.get(), part.data(), part.size(), 0);
    ASSERT_GT(count, 0);
    received += static_cast<size_t>(count);
  }
  EXPECT_EQ(slow.get(), 1 << 20);

  const auto begin = steady_clock::now();
  EXPECT_EQ(session->allsend(large), -1);
  EXPECT_GE(steady_clock::now() - begin, limit);
  EXPECT_EQ(session->allsend("x"), -1) << "after half a frame";
}

}  // namespace
}  // namespace tarn::test
