#include <cstring>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <thread>

#include "tarnsvc/ChildPipe.h"
#include "tarnsvc/FSEvent.h"
#include "tarnsvc/main.h"
#include "tests/support/temp_folder.h"
#include "tests/unit/service/fake_libraries.h"
#include "tests/unit/service/pipes.h"

namespace tarn::test {
namespace {

// The drive process's endpoint, with the service played by the test and the libraries by stand-ins.
class ChildPipeTest : public testing::Test {
 protected:
  void SetUp() override {
    libraries = {};
    ProcessStarted = true;
    std::strncpy(lpCmdLineData[0], folder.Write("bin/tarnsvc", "").c_str(), kPathBytes - 1);
    std::filesystem::create_symlink(TEST_MODULE_FOLDER, folder.path() / "Frameworks");
    const std::jthread other([&] {
      EXPECT_TRUE(child->connect(name, nullptr));
      EXPECT_TRUE(child->create(name, nullptr));
    });
    EXPECT_TRUE(requests.create(RequestChannel(name), nullptr));
    EXPECT_TRUE(events.connect(EventChannel(name), nullptr));
  }

  void TearDown() override {
    ProcessStarted = false;
    child.reset();
    requests.close();
    events.close();
  }

  // Runs the exchange of one mount; returns what the service gets to hear.
  std::string Mount(const std::string& info) {
    auto answer = std::async(std::launch::async, [&] {
      EXPECT_EQ(ReadSoon(requests), R"({"cmd":"request_mount_info"})");
      EXPECT_TRUE(requests.write(info));
      return ReadSoon(requests);
    });
    EXPECT_TRUE(child->request_info());
    (void)child->mount();
    return answer.get();
  }

  static std::string Request(const std::string& url, const std::string& more = "",
                             const std::string& type = "test", const std::string& cmd = "connect",
                             const std::string& option = "0") {
    return R"({"cmd":")" + cmd + R"(","data":{"type":")" + type + R"(","url":")" + url +
           R"(","label":"Läbel","drive":"/mnt/x","option":)" + option + more + R"(},"callback":0})";
  }

  std::string Command(const std::string& body) {
    EXPECT_TRUE(requests.write(body));
    return ReadSoon(requests);
  }

  // What the drive's one protocol was given so far.
  std::string Notes() {
    const std::string reply = Command(R"({"cmd":"get_credential","data":{"drive":"any"}})");
    Json answer(reply.c_str());
    EXPECT_EQ(static_cast<std::string>(answer.GetObject("/cmd")), "result_credential");
    return answer.GetObject("/result");
  }

  static std::string Result(int value, const std::string& cmd = "result") {
    return R"({"cmd":")" + cmd + R"(","data":{"result":)" + std::to_string(value) + "}}";
  }
  static std::string MountResult(int value) { return Result(value, "mount_result"); }

  const TempFolder folder;
  const std::wstring name = (folder.path() / "pipe").wstring();
  CPipeSession requests;
  CPipeSession events;
  std::unique_ptr<CChildPipe> child = std::make_unique<CChildPipe>();
};

TEST_F(ChildPipeTest, ResultsOfAMountTellWhatWentWrong) {
  for (const auto& [info, result] : {std::pair{Request("x", "", "sftp"), -1},
                                     {Request("x", "", "incomplete"), -1},
                                     {Request("null"), -1},
                                     {Request("denied"), 10},
                                     {"{}", -5},
                                     {Request("fails"), 11}}) {
    EXPECT_EQ(Mount(info), MountResult(result)) << info;
  }
  EXPECT_EQ(child->get_mounter()->connect_message, "no such luck");
  libraries.mount_result = 2009;
  EXPECT_EQ(Mount(Request("x")), MountResult(-5));
}

TEST_F(ChildPipeTest, MountAndSettingsHandOverWhatTheClientSays) {
  EXPECT_EQ(Mount(Request("folder", R"(,"key_file":"/k","cid":"chosen")")), MountResult(0));
  EXPECT_EQ(libraries.mount_point, "/mnt/x");
  EXPECT_EQ(libraries.volume_name, "Läbel");
  EXPECT_EQ(libraries.mode, 2);
  EXPECT_EQ(libraries.drive->features, 0);
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
  EXPECT_EQ(Notes(),
            "id=chosen;ex_info=given;key_file=/k;size=1000/700;size=1/0;allow_move=true;"
            "allow_move=false;speedlimit=5000;speedlimit=-1;");
  EXPECT_EQ(Command(R"({"cmd":"get_username","data":{"drive":""}})"),
            R"({"cmd":"result_username","result":"tést"})");
  for (const char* command : {"set_size", "set_move_folder", "set_speedlimit", "set_loglevel",
                              "get_credential", "get_username", "spindle_add_protocol"}) {
    EXPECT_EQ(Command(std::string(R"({"cmd":")") + command + "\"}"), Result(-1)) << command;
  }
  for (const char* ignored : {R"({"cmd":"SET_SIZE"})", "{}", "not json", ""}) {
    requests.write(ignored);
  }
  EXPECT_EQ(Command(R"({"cmd":"set_callback"})"), Result(0));
}

TEST_F(ChildPipeTest, OptionBitsAndTypeChooseModeFeatureAndSpeedLimit) {
  const std::string info = Request("x", R"(,"key_file":"")", "ad_ftp", "connect", "1025");
  EXPECT_EQ(Mount(info), MountResult(0));
  EXPECT_EQ(libraries.mode, 1);
  EXPECT_EQ(libraries.drive->features, 0x20);
  EXPECT_EQ(Command(R"({"cmd":"set_speedlimit","data":{"speed":5000}})"), Result(0));
  EXPECT_EQ(Notes(), "id=x;ex_info=given;speedlimit=0;");
}

TEST_F(ChildPipeTest, AnEmptyDriveTakesProtocolsLater) {
  ASSERT_EQ(Mount(Request("x", "", "test", "spindle_mount")), MountResult(0));
  EXPECT_EQ(Command(R"({"cmd":"spindle_add_protocol","data":{"type":"test","cid":"denied"}})"),
            Result(10));
  EXPECT_EQ(libraries.drive->GetProtocolCount(), 0);
  EXPECT_EQ(Command(R"({"cmd":"spindle_add_protocol","data":{"type":"test"}})"), Result(0));
  EXPECT_EQ(Notes(), "id=x;ex_info=given;");
  EXPECT_TRUE(libraries.drive->event_sink);
  EXPECT_EQ(Command(R"({"cmd":"spindle_remove_protocol","data":{"type":"test"}})"), Result(-1));
}

TEST_F(ChildPipeTest, DisconnectAnswersThenEndsTheProcess) {
  ASSERT_EQ(Mount(Request("x")), MountResult(0));
  libraries.unmount_result = 2010;
  EXPECT_EQ(Command(R"({"cmd":"disconnect"})"), Result(2010));
  EXPECT_TRUE(WaitUntil([] { return !ProcessStarted; }));
  libraries.unmount_result = 0;
  child.reset();
  EXPECT_EQ(libraries.unmounts, 2);  // the destructor tries once more
}

TEST_F(ChildPipeTest, QuotaAnswersCountOnlyWhenTheClientSaysSoAndComeInTime) {
  ASSERT_EQ(Mount(Request("x")), MountResult(0));
  const auto ask = [&] { (void)libraries.drive->protocols[0]->SetOption("ask_quota", ""); };
  ask();  // not switched on: no question
  EXPECT_EQ(Command(R"({"cmd":"set_drivesize_callback"})"), Result(0));
  // An answer that came too late for its question is not taken for this one's.
  events.write(R"({"cmd":"result_quota","data":{"total":1,"free":1,"error":1}})");
  for (const char* answer :
       {R"({"cmd":"result_quota","data":{"total":10737418240,"free":7,"error":1}})",
        R"({"cmd":"result_quota","data":{"total":5,"free":5,"error":0}})", "not json"}) {
    std::thread asking(ask);
    EXPECT_EQ(ReadSoon(events), R"({"cmd":"request_quota","data":{"drive":"/mnt/x"}})");
    events.write(answer);
    asking.join();
  }
  EXPECT_EQ(Notes(),
            "id=x;ex_info=given;quota=0:-1:-1;quota=1:10737418240:7;quota=0:5:5;quota=0:-1:-1;");
}

TEST_F(ChildPipeTest, EventsFlowOnceTheyAreAskedFor) {
  ASSERT_EQ(Mount(Request("x")), MountResult(0));
  IFSEvent& sink = *libraries.drive->event_sink;
  sink.BeginUpload("/lost", "/lost", "");
  EXPECT_EQ(Command(R"({"cmd":"set_callback","data":{"global":0}})"), Result(0));
  sink.BeginUpload("/a", "/b", "unused");
  sink.Uploading("/a", "/a", 10737418240LL, 1, 0.5);
  sink.EndUpload(FILE_NOT_FOUND, "/a", "/a", "gone");
  for (int operation = 1; operation <= 7; ++operation) {
    sink.Error(static_cast<FS_EVENT>(operation), FILE_READ_FAILED, "/a", nullptr, nullptr);
  }
  sink.Error(static_cast<FS_EVENT>(9), FAILED, nullptr, nullptr, nullptr);
  sink.Unmounted("/mnt/x");
  child->get_mounter()->unmounting = true;
  sink.Unmounted("/mnt/x");
  child->get_mounter()->unmounting = false;
  const auto expect = [&](const std::string& event) {
    EXPECT_EQ(ReadSoon(events), R"({"cmd":"fs_event","data":{)" + event + "}}");
  };
  const std::string paths = R"("path":"/a","origin_path":"/a")";
  expect(R"("method":"upload","status":"begin","path":"/a","origin_path":"/b")");
  expect(R"("method":"upload","status":"uploading",)" + paths +
         R"(,"total":10737418240,"sent":1,"speed":0.5)");
  expect(R"("method":"upload","status":"finished",)" + paths);
  expect(R"("method":"error","status":0,"op":"upload","aerror":18,"message":"file not found",)" +
         paths + R"(,"protmsg":"gone")");
  for (const std::string operation :
       {"readdir", "create_file", "read", "create_directory", "delete", "move", "rename"}) {
    expect(R"("method":"error","status":0,"op":")" + operation +
           R"(","aerror":8,"message":"error","path":"/a")");
  }
  expect(R"("method":"error","status":0,"aerror":1,"message":"failed")");
  expect(R"("method":"disconnected_force","path":"/mnt/x")");
  EXPECT_FALSE(events.read());
}

}  // namespace
}  // namespace tarn::test
