// The service's side of a drive's life: sessions, the drive list and the channels are the real
// ones, the drive process is played by played_drive.cpp.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

#include "tarnsvc/TCPServer.h"
#include "tarnsvc/main.h"
#include "tests/support/service/service_process.h"
#include "tests/support/service/test_client.h"
#include "tests/support/service/wait.h"
#include "tests/support/temp_folder.h"

namespace tarn::test {
namespace {

using std::chrono::steady_clock;

constexpr char kList[] = R"({"cmd":"get_drive_list"})";
constexpr char kNoDrives[] = R"({"cmd":"get_drive_list", "drives": []})";
constexpr char kUnexpected[] = R"(disconnected","state":"unexpected)";

std::string Result(int code) {
  return R"({"cmd":"result","error":)" + std::to_string(code) + "}";
}

std::string Event(const std::string& data) {
  return R"({"cmd":"fs_event","data":{)" + data + "}}";
}

std::string DriveEvent(const std::string& drive, const std::string& method) {
  return Event(R"("drive":")" + drive + R"(","method":")" + method + '"');
}

// What a played drive tells of itself.
std::string From(const std::string& label) {
  return Event(R"("from":")" + label + '"');
}

using Frames = std::multiset<std::string>;

class DrivesTest : public testing::Test {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    ProcessStarted = true;
    fs::create_symlink(PLAYED_DRIVE, folder.path() / "tarnsvc");
    fs::current_path(folder.path());
    std::strncpy(lpCmdLineData[0], folder.Write("bin/tarnsvc", "").c_str(), kPathBytes - 1);
    folder.Write("bin/tarnapi.ini", "[SDK]\r\nNAME=svc");
    if (port <= 0) {
      port = api_server.start(41000 + ::getpid() % 20000);
    }
    ASSERT_GT(port, 0);
  }

  // Drives that are left end here, as if they had died.
  void TearDown() override {
    for (const pid_t drive : ChildrenOf(::getpid())) {
      ::kill(drive, SIGKILL);
    }
    ExpectNothingLeft();
    fs::current_path("/");
  }

  static void Mount(TestClient& client, const std::string& drive, const std::string& label) {
    EXPECT_EQ(client.Exchange(ConnectMessage("", drive, label)), Result(0));
    EXPECT_EQ(client.Receive(), DriveEvent(drive, "connected"));
  }

  static bool IsFifo(const fs::directory_entry& entry) {
    return entry.path().filename().string().starts_with("tarn_mount_");
  }

  // No drive in the list, no child process (the waiting threads reap them) and no FIFO, soon.
  static void ExpectNothingLeft() {
    TestClient client(port);
    siginfo_t child = {};
    EXPECT_TRUE(WaitUntil([&] {
      return client.Exchange(kList) == kNoDrives &&
             std::none_of(fs::directory_iterator("/tmp"), fs::directory_iterator(), IsFifo) &&
             ::waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) != 0;
    }));
  }

  // What comes next, in no order that anybody promises.
  static Frames Heard(TestClient& client, int count) {
    Frames heard;
    while (count-- > 0) {
      heard.insert(client.Receive());
    }
    return heard;
  }

  const TempFolder folder;
  static inline int port = -1;  // of the one server
};

TEST_F(DrivesTest, AFailedMountTellsItsCodeAtOnceAndLeavesNothing) {
  TestClient client(port);
  for (const auto& [label, code] : {std::pair{"at-start", -6},
                                    {"connected", -6},
                                    {"asking", -6},
                                    {"greets", -6},
                                    {"no-result", -6},
                                    {"refuses", 12}}) {
    const auto begin = steady_clock::now();
    EXPECT_EQ(client.Exchange(ConnectMessage("", "/d", label)), Result(code)) << label;
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(1)) << label;
  }
  fs::remove("tarnsvc");
  EXPECT_EQ(client.Exchange(ConnectMessage("", "/d", "no-program")), Result(-6));
}

TEST_F(DrivesTest, RelaysBringBackWhatTheDriveAnswers) {
  TestClient client(port);
  const std::string drive = R"(/d\"1)";
  Mount(client, drive, "d");
  EXPECT_EQ(client.Exchange(kList), R"({"cmd":"get_drive_list", "drives": ["/d\"1"]})");
  EXPECT_EQ(client.Exchange(DriveMessage("get_username", drive)),
            R"({"cmd":"result_username","result":"who"})");
  Mount(client, drive, "of the same name, so never reached");
  client.Send(DriveMessage("spindle_add_protocol", drive));
  EXPECT_EQ(Heard(client, 2), (Frames{From("d"), Result(7)}));
  EXPECT_EQ(client.Exchange(DriveMessage("set_size", drive)), Result(-1));
  EXPECT_EQ(client.Exchange(DriveMessage("set_speedlimit", drive)), Result(-1));
  for (const char* command : {"set_size", "disconnect"}) {
    EXPECT_EQ(client.Exchange(DriveMessage(command, "/unknown")), Result(-1));
  }
  EXPECT_EQ(client.Exchange(DriveMessage("get_username", "/unknown")), "");
}

TEST_F(DrivesTest, EventsReachTheirOriginAndWhoeverWantsAll) {
  TestClient owner(port);
  TestClient other(port);
  TestClient own(port);
  TestClient all(port);
  TestClient all_at_init(port);
  EXPECT_EQ(own.Exchange(R"({"cmd":"set_callback","data":{"global":0}})"), Result(0));
  EXPECT_EQ(all.Exchange(R"({"cmd":"set_callback","data":{"global":1}})"), Result(0));
  EXPECT_EQ(all_at_init.Exchange(R"({"cmd":"init","data":{"key":"svc","winuser":"Zoë","pid":1,
            "set_callback":{"cmd":"set_callback","data":{"global":1}}}})"),
            Result(1));
  Mount(owner, "/d", "d");
  EXPECT_EQ(other.Exchange(DriveMessage("disconnect", "/d")), Result(0));
  EXPECT_EQ(other.Receive(), DriveEvent("/d", "disconnected"));
  const std::string last = R"({"cmd":"fs_event","data":{"method":"last"}})";
  for (TestClient* client : {&all, &all_at_init}) {
    EXPECT_EQ(Heard(*client, 3),
              (Frames{DriveEvent("/d", "connected"), DriveEvent("/d", "disconnected"), last}));
  }
  EXPECT_EQ(owner.Receive(), last) << "of the unmount itself";
  for (TestClient* client : {&owner, &other, &own}) {
    EXPECT_EQ(client->Exchange(kList), kNoDrives) << "and nothing else";
  }
}

TEST_F(DrivesTest, ARefusedUnmountLeavesTheDriveThere) {
  TestClient client(port);
  Mount(client, "/d", "stays");
  client.Send(DriveMessage("disconnect", "/d"));
  EXPECT_EQ(Heard(client, 2).count(Result(5)), 1U);
  EXPECT_EQ(client.Exchange(kList), R"({"cmd":"get_drive_list", "drives": ["/d"]})");
  EXPECT_EQ(client.Exchange(DriveMessage("get_username", "/d")),
            R"({"cmd":"result_username","result":"who"})");
}

TEST_F(DrivesTest, ADriveThatDiesIsReportedOnceAndForgotten) {
  TestClient client(port);
  Mount(client, "/d", "mortal");
  client.Send(DriveMessage("set_move_folder", "/d"));
  EXPECT_EQ(Heard(client, 2), (Frames{DriveEvent("/d", kUnexpected), Result(0)}));
  ExpectNothingLeft();
  Mount(client, "/d", "ghost");
  EXPECT_EQ(client.Receive(), DriveEvent("/d", kUnexpected));
  EXPECT_EQ(client.Exchange(DriveMessage("disconnect", "/d")), Result(-1));
}

TEST_F(DrivesTest, QuotaQuestionsGoToTheOwnerWhoHoldsUpNobodyElse) {
  TestClient owner(port);
  TestClient asking(port);
  EXPECT_EQ(owner.Exchange(R"({"cmd":"set_drivesize_callback"})"), Result(0));
  Mount(owner, "/d", "d");
  EXPECT_EQ(owner.Receive(), Result(0)) << "one more for each mount";
  const auto ask = [&] {
    asking.Send(DriveMessage("spindle_remove_protocol", "/d"));
    EXPECT_EQ(owner.Receive(), R"({"cmd":"request_quota","data":{"drive":"/d"}})");
  };
  ask();
  owner.Send(R"({"cmd":"result_quota","error":1,"data":{"total":41,"free":2}})");
  EXPECT_EQ(asking.Receive(), Result(42));
  ask();
  const auto begin = steady_clock::now();
  EXPECT_EQ(TestClient(port).Exchange(DriveMessage("get_username", "/unknown")), "");
  ::kill(ChildrenOf(::getpid()).at(0), SIGKILL);
  EXPECT_EQ(asking.Receive(), Result(0));
  ExpectNothingLeft();
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(DrivesTest, ARelayToAllAndDisconnectAllReachEveryDriveThoughSomeRefuseOrDie) {
  TestClient client(port);
  Mount(client, "a1", "first");
  Mount(client, "m", "mortal");
  Mount(client, "ä2", "stays");
  client.Send(R"({"cmd":"set_speedlimit_all","data":{"speed":1}})");
  EXPECT_EQ(Heard(client, 4),
            (Frames{From("first"), From("stays"), DriveEvent("m", kUnexpected), Result(0)}));

  Mount(client, "", "d");
  Mount(client, "b3", "mortal");
  // Somebody asks a drive that dies of it meanwhile: neither may hold up the other.
  TestClient asking(port);
  asking.Send(DriveMessage("set_move_folder", "b3"));
  client.Send(R"({"cmd":"disconnect_all"})");
  std::string body;
  do {
    body = client.Receive();
  } while (body.find(R"("cmd":"fs_event")") != std::string::npos);
  EXPECT_EQ(body.find(R"({"cmd":"disconnect_all","result":"aä)"), 0U) << body;
  EXPECT_EQ(client.Receive(), R"({"cmd":"fs_event","data":{"method":"disconnected_all"}})");
  (void)asking.Receive();
  EXPECT_EQ(asking.Exchange(kList), kNoDrives);
  EXPECT_EQ(client.Exchange(R"({"cmd":"disconnect_all"})"),
            R"({"cmd":"disconnect_all","result":""})");
}

TEST_F(DrivesTest, AStoppingServiceWaitsForNoAnswer) {
  TestClient client(port);
  Mount(client, "/d", "hangs");
  client.Send(DriveMessage("set_move_folder", "/d"));
  EXPECT_EQ(client.Receive(), From("hangs"));
  const auto begin = steady_clock::now();
  ProcessStarted = false;
  EXPECT_EQ(client.Receive(), Result(-6));
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(1));
  ProcessStarted = true;
}

}  // namespace
}  // namespace tarn::test
