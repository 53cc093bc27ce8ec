#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

#include "tarnsvc/ChildPipe.h"
#include "tarnsvc/FSEvent.h"
#include "tarnsvc/main.h"
#include "tests/support/temp_folder.h"
#include "tests/unit/service/fake_libraries.h"

namespace tarn {
namespace {

// The drive process's endpoint, with the service played by the test and the libraries by stand-ins.
class ChildPipeTest : public testing::Test {
 protected:
  void SetUp() override {
    test::Libraries() = {};
    ProcessStarted = true;
    const std::string executable = folder.Write("bin/tarnsvc", "");
    std::strncpy(lpCmdLineData[0], executable.c_str(), kPathBytes - 1);
    folder.Write("Frameworks/libgarbage.dylib", "not a library");
    std::filesystem::create_directory(folder.path() / "Frameworks/libfolder.dylib");
    for (const char* module : {"libtest.dylib", "libincomplete.dylib"}) {
      std::filesystem::copy(std::filesystem::path(TEST_MODULE_FOLDER) / module,
                            folder.path() / "Frameworks" / module);
    }
    child = std::make_unique<CChildPipe>();
    std::thread other([&] {
      EXPECT_TRUE(child->connect(name, nullptr));
      EXPECT_TRUE(child->create(name, nullptr));
    });
    EXPECT_TRUE(requests.create(RequestChannel(name), nullptr));
    EXPECT_TRUE(events.connect(EventChannel(name), nullptr));
    other.join();
  }

  void TearDown() override {
    ProcessStarted = false;
    child.reset();
    requests.close();
    events.close();
  }

  static std::string Wait(CPipeSession& pipe) {
    for (int i = 0; i < 500; ++i) {
      if (const auto message = pipe.read()) {
        return message.get();
      }
      PausePipePoll();
    }
    return "(none)";
  }

  // Runs the exchange of one mount; returns what the service gets to hear.
  std::string Mount(const std::string& info) {
    std::string answer;
    std::thread service([&] {
      EXPECT_EQ(Wait(requests), R"({"cmd":"request_mount_info"})");
      EXPECT_TRUE(requests.write(info));
      answer = Wait(requests);
    });
    EXPECT_TRUE(child->request_info());
    (void)child->mount();
    service.join();
    return answer;
  }

  static std::string Request(const std::string& url, const std::string& more = "",
                             const std::string& type = "test", const std::string& cmd = "connect") {
    return R"({"cmd":")" + cmd + R"(","data":{"type":")" + type + R"(","url":")" + url +
           R"(","label":"Läbel","drive":"/mnt/x","option":0)" + more + R"(},"callback":0})";
  }

  std::string Command(const std::string& body) {
    EXPECT_TRUE(requests.write(body));
    return Wait(requests);
  }

  // What the drive's one protocol was given so far.
  std::string Notes() {
    const std::string reply = Command(R"({"cmd":"get_credential","data":{"drive":"any"}})");
    Json answer(reply.c_str());
    EXPECT_EQ(static_cast<std::string>(answer.GetObject("/cmd")), "result_credential");
    return answer.GetObject("/result");
  }

  static std::string Result(int value) {
    return R"({"cmd":"result","data":{"result":)" + std::to_string(value) + "}}";
  }
  static std::string MountResult(int value) {
    return R"({"cmd":"mount_result","data":{"result":)" + std::to_string(value) + "}}";
  }

  const test::TempFolder folder;
  const std::wstring name = std::filesystem::path(folder.path() / "pipe").wstring();
  CPipeSession requests;
  CPipeSession events;
  std::unique_ptr<CChildPipe> child;
};

TEST_F(ChildPipeTest, ResultsOfAMountTellWhatWentWrong) {
  EXPECT_EQ(Mount(Request("x", "", "sftp")), MountResult(-1));
  EXPECT_EQ(Mount(Request("x", "", "TEST")), MountResult(-1));
  EXPECT_EQ(Mount(Request("x", "", "incomplete")), MountResult(-1));
  EXPECT_EQ(Mount(Request("null")), MountResult(-1));
  EXPECT_EQ(Mount(Request("denied")), MountResult(10));
  EXPECT_EQ(Mount(Request("fails")), MountResult(11));
  EXPECT_EQ(child->get_mounter()->connect_message, "no such luck");
  EXPECT_EQ(Mount(Request("missing")), MountResult(12));
  test::Libraries().mount_result = 2009;
  EXPECT_EQ(Mount(Request("x")), MountResult(-5));
  std::filesystem::remove_all(folder.path() / "Frameworks");
  EXPECT_EQ(Mount(Request("x")), MountResult(-1));
}

TEST_F(ChildPipeTest, IncompleteMountInformationIsAFailedMount) {
  for (const char* info :
       {"{}", R"({"cmd":"connect"})", R"({"cmd":"connect","data":{"type":"test"}})",
        R"({"cmd":"connect","data":{"label":"l","drive":"d","option":0}})",
        R"({"cmd":"connect","data":{"type":"test","label":"l","drive":"d"}})"}) {
    EXPECT_EQ(Mount(info), MountResult(-5)) << info;
  }
  EXPECT_EQ(test::Libraries().mount_point, "");
}

TEST_F(ChildPipeTest, MountHandsOverWhatTheRequestSays) {
  EXPECT_EQ(Mount(Request("folder", R"(,"key_file":"/k","cid":"chosen")")), MountResult(0));
  EXPECT_EQ(test::Libraries().mount_point, "/mnt/x");
  EXPECT_EQ(test::Libraries().volume_name, "Läbel");
  EXPECT_EQ(test::Libraries().mode, 2);
  EXPECT_EQ(test::Libraries().drive->features, 0);
  EXPECT_EQ(Notes(), "id=chosen;ex_info=given;key_file=/k;");
}

TEST_F(ChildPipeTest, OptionBitsChooseModeAndFeature) {
  std::string info = Request("x", R"(,"key_file":"")");
  info.replace(info.find(R"("option":0)"), 10, R"("option":1025)");
  EXPECT_EQ(Mount(info), MountResult(0));
  EXPECT_EQ(test::Libraries().mode, 1);
  EXPECT_EQ(test::Libraries().drive->features, 0x20);
  EXPECT_EQ(Notes(), "id=x;ex_info=given;");
}

TEST_F(ChildPipeTest, SettingsReachTheProtocol) {
  ASSERT_EQ(Mount(Request("x")), MountResult(0));
  const std::string before = Notes();
  for (const char* command : {R"({"cmd":"set_size","data":{"drive":"d","total":1000,"free":300}})",
                              R"({"cmd":"set_size","data":{"drive":"d","total":1,"free":300}})",
                              R"({"cmd":"set_move_folder","data":{"drive":"d","flag":1}})",
                              R"({"cmd":"set_move_folder","data":{"drive":"d","flag":2}})",
                              R"({"cmd":"set_speedlimit","data":{"drive":"d","speed":5000}})",
                              R"({"cmd":"set_speedlimit_all","data":{"speed":-1}})",
                              R"({"cmd":"set_loglevel","data":{"level":"DEBUG"}})",
                              R"({"cmd":"set_drivesize_callback"})", R"({"cmd":"set_callback"})"}) {
    EXPECT_EQ(Command(command), Result(0)) << command;
  }
  EXPECT_EQ(Notes(), before +
                         "size=1000/700;size=1/0;allow_move=true;allow_move=false;"
                         "speedlimit=5000;speedlimit=-1;");
  EXPECT_EQ(Command(R"({"cmd":"get_username","data":{"drive":""}})"),
            R"({"cmd":"result_username","result":"tést"})");
}

TEST_F(ChildPipeTest, OneTypeHasNoSpeedLimit) {
  ASSERT_EQ(Mount(Request("x", "", "ad_ftp")), MountResult(0));
  EXPECT_EQ(Command(R"({"cmd":"set_speedlimit","data":{"speed":5000}})"), Result(0));
  EXPECT_EQ(Notes(), "id=x;ex_info=given;speedlimit=0;");
}

TEST_F(ChildPipeTest, IncompleteCommandsAreAnsweredAndUnknownOnesAreNot) {
  ASSERT_EQ(Mount(Request("x")), MountResult(0));
  for (const char* command : {"set_size", "set_move_folder", "set_speedlimit", "set_loglevel",
                              "get_credential", "get_username", "spindle_add_protocol"}) {
    EXPECT_EQ(Command(std::string(R"({"cmd":")") + command + "\"}"), Result(-1)) << command;
  }
  for (const char* ignored : {R"({"cmd":"SET_SIZE"})", "{}", "not json", ""}) {
    requests.write(ignored);
  }
  EXPECT_EQ(Command(R"({"cmd":"set_callback"})"), Result(0));
}

TEST_F(ChildPipeTest, AnEmptyDriveTakesProtocolsLater) {
  ASSERT_EQ(Mount(Request("x", "", "test", "spindle_mount")), MountResult(0));
  EXPECT_EQ(test::Libraries().drive->GetProtocolCount(), 0);
  EXPECT_EQ(Notes(), "");
  EXPECT_EQ(Command(R"({"cmd":"spindle_add_protocol","data":{"type":"nope"}})"), Result(-1));
  EXPECT_EQ(Command(R"({"cmd":"spindle_add_protocol","data":{"type":"test","cid":"denied"}})"),
            Result(10));
  EXPECT_EQ(test::Libraries().drive->GetProtocolCount(), 0);
  EXPECT_EQ(Command(R"({"cmd":"spindle_add_protocol","data":{"type":"test"}})"), Result(0));
  EXPECT_EQ(Notes(), "id=x;ex_info=given;");
  EXPECT_TRUE(test::Libraries().drive->event_sink);
  EXPECT_EQ(Command(R"({"cmd":"spindle_remove_protocol","data":{"type":"test"}})"), Result(-1));
}

TEST_F(ChildPipeTest, DisconnectAnswersThenEndsTheProcess) {
  ASSERT_EQ(Mount(Request("x")), MountResult(0));
  test::Libraries().unmount_result = 2010;
  EXPECT_EQ(Command(R"({"cmd":"disconnect"})"), Result(2010));
  for (int i = 0; i < 500 && ProcessStarted; ++i) {
    PausePipePoll();
  }
  EXPECT_FALSE(ProcessStarted);
  test::Libraries().unmount_result = 0;
  child.reset();
  EXPECT_EQ(test::Libraries().unmounts, 2);  // the destructor tries once more
}

TEST_F(ChildPipeTest, QuotaAnswersCountOnlyWhenTheClientSaysSoAndComeInTime) {
  ASSERT_EQ(Mount(Request("x")), MountResult(0));
  const auto ask = [&] { (void)test::Libraries().drive->protocols[0]->SetOption("ask_quota", ""); };
  ask();  // not switched on: no question
  EXPECT_EQ(Command(R"({"cmd":"set_drivesize_callback"})"), Result(0));
  // An answer that came too late for its question is not taken for this one's.
  events.write(R"({"cmd":"result_quota","data":{"total":1,"free":1,"error":1}})");
  for (const char* answer :
       {R"({"cmd":"result_quota","data":{"total":10737418240,"free":7,"error":1}})",
        R"({"cmd":"result_quota","data":{"total":5,"free":5,"error":0}})",
        R"({"cmd":"result_quota"})", "not json"}) {
    std::thread asking(ask);
    EXPECT_EQ(Wait(events), R"({"cmd":"request_quota","data":{"drive":"/mnt/x"}})");
    events.write(answer);
    asking.join();
  }
  EXPECT_EQ(Notes(),
            "id=x;ex_info=given;quota=0:-1:-1;quota=1:10737418240:7;quota=0:5:5;quota=0:-1:-1;"
            "quota=0:-1:-1;");
}

TEST_F(ChildPipeTest, EventsFlowOnceTheyAreAskedFor) {
  ASSERT_EQ(Mount(Request("x")), MountResult(0));
  IFSEvent& sink = *test::Libraries().drive->event_sink;
  sink.BeginUpload("/lost", "/lost", "");
  EXPECT_EQ(Command(R"({"cmd":"set_callback","data":{"global":0}})"), Result(0));

  sink.BeginUpload("/a", "/b", "unused");
  EXPECT_EQ(Wait(events), R"({"cmd":"fs_event","data":{"method":"upload","status":"begin",)"
                          R"("path":"/a","origin_path":"/b"}})");
  sink.Uploading("/a", "/a", 10737418240LL, 1, 0.5);
  EXPECT_EQ(Wait(events),
            R"({"cmd":"fs_event","data":{"method":"upload","status":"uploading","path":"/a",)"
            R"("origin_path":"/a","total":10737418240,"sent":1,"speed":0.5}})");
  sink.EndUpload(SUCCESS, "/a", "/a", nullptr);
  sink.EndUpload(FILE_NOT_FOUND, "/a", "/a", "gone");
  const std::string finished = R"({"cmd":"fs_event","data":{"method":"upload","status":"finished",)"
                               R"("path":"/a","origin_path":"/a"}})";
  EXPECT_EQ(Wait(events), finished);
  EXPECT_EQ(Wait(events), finished);
  EXPECT_EQ(Wait(events),
            R"({"cmd":"fs_event","data":{"method":"error","status":0,"op":"upload","aerror":18,)"
            R"("message":"file not found","path":"/a","origin_path":"/a","protmsg":"gone"}})");
  sink.Error(FS_EVENT_DELETE, FILE_READ_FAILED, "/a", nullptr, nullptr);
  EXPECT_EQ(Wait(events),
            R"({"cmd":"fs_event","data":{"method":"error","status":0,"op":"delete","aerror":8,)"
            R"("message":"error","path":"/a"}})");
  sink.Error(static_cast<FS_EVENT>(9), FAILED, nullptr, nullptr, nullptr);
  EXPECT_EQ(Wait(events), R"({"cmd":"fs_event","data":{"method":"error","status":0,"aerror":1,)"
                          R"("message":"failed"}})");
  EXPECT_TRUE(sink.UserAction(FAILED, "", "", nullptr, 0));
  sink.Unmounted("/mnt/x");
  EXPECT_EQ(Wait(events),
            R"({"cmd":"fs_event","data":{"method":"disconnected_force","path":"/mnt/x"}})");
  child->get_mounter()->unmounting = true;
  sink.Unmounted("/mnt/x");
  child->get_mounter()->unmounting = false;
  EXPECT_FALSE(events.read());
}

}  // namespace
}  // namespace tarn
