// Drives of the real service with real volumes: what goes in comes out, and nothing is left behind.
#include <csignal>
#include <sys/stat.h>
#include <thread>

#include "tests/e2e/mounting.h"

namespace tarn::test {
namespace {

class DrivesE2eTest : public MountingTest {
 protected:
  [[nodiscard]] bool IsTheOnlyDrive(const fs::path& mounted) {
    return client->Ask(R"({"cmd":"get_drive_list"})") ==
           R"({"cmd":"get_drive_list", "drives": [")" + mounted.string() + "\"]}";
  }
  // A new client, and no mount and no drive process left of what the last one did.
  void ExpectNothingLeft() {
    EXPECT_TRUE(WaitUntil([&] { return service.DriveProcesses().empty(); }));
    EXPECT_TRUE(WaitUntil([&] { return !IsMounted(volume); }));
    Connect();
  }
};

TEST_F(DrivesE2eTest, ATreeGoesInAndComesOutBitForBit) {
  PutTreeThrough([&] { return Mount(backing, volume, "Disk"); }, backing, 100UL << 20);
}

TEST_F(DrivesE2eTest, TwoClientsUseTwoDrivesOfOneLabelAtOnce) {
  TestClient second(service);
  second.Introduce();
  const fs::path other_backing = home.MakeFolder("other backing");
  const fs::path other_volume = home.Path() / "other volume";  // made by the mount
  second.Send(ConnectMessage(other_backing, other_volume, "Same"));
  EXPECT_EQ(Mount(backing, volume, "Same"), 0);
  ASSERT_EQ(second.Receive(), R"({"cmd":"result","error":0})");
  EXPECT_EQ(service.DriveProcesses().size(), 2U);
  const auto use = [](const fs::path& drive, const fs::path& remote, char letter) {
    const std::string content(5000, letter);
    for (int i = 0; i < 50; ++i) {
      WriteFile(drive / std::to_string(i), content);
    }
    for (int i = 0; i < 50; ++i) {
      const fs::path stored = remote / std::to_string(i);
      EXPECT_TRUE(WaitUntil([&] { return FileContent(stored) == content; })) << stored;
    }
  };
  std::thread user(use, volume, backing, 'a');
  use(other_volume, other_backing, 'b');
  user.join();
  EXPECT_TRUE(fs::exists(home.Path() / "Library/Application Support/tarnsvc/_cache_/Same0"));
  EXPECT_EQ(Unmount(other_volume), 0);
  EXPECT_FALSE(fs::exists(other_volume));
  EXPECT_TRUE(IsTheOnlyDrive(volume));
}

TEST_F(DrivesE2eTest, AMountThatCannotBeTellsWhy) {
  AddTestModule();
  EXPECT_EQ(Mount("denied", volume, "L", "test"), 10);
  EXPECT_EQ(Mount("fails", volume, "L", "test"), 11);
  WriteFile(volume / "file", "in the way");
  EXPECT_EQ(Mount(backing, volume, "L"), -5);
  fs::remove(volume / "file");
  ASSERT_EQ(Mount(backing, volume, "L"), 0);
  EXPECT_EQ(Mount(backing, volume, "L"), -5);
  EXPECT_EQ(Unmount(volume), 0);
  EXPECT_EQ(Unmount(volume), -1);
  EXPECT_TRUE(WaitUntil([&] { return service.DriveProcesses().empty(); }));
  fs::remove(service.InBin("tarnsvc"));
  EXPECT_EQ(Mount(backing, volume, "L"), -6);
  const std::string log = ReadFile(home.LogFile());
  for (const char* message : {"mount:: failed to mount. label: L, pipe: /tmp/tarn_mount_0 [",
                              "operator():: failed to exec ", "mount:: failed to create pipe: "}) {
    EXPECT_NE(log.find(message), std::string::npos) << message;
  }
}

TEST_F(DrivesE2eTest, AModuleThatSupportsNothingOrHangsHarmsOnlyItsOwnDrive) {
  AddTestModule();
  ASSERT_EQ(Mount("x", volume, "L", "test"), 0);
  std::error_code error;
  fs::directory_iterator listing(volume, error);
  EXPECT_TRUE(error);
  EXPECT_FALSE(std::ofstream(volume / "file").put('x').flush().good() &&
               fs::exists(volume / "file"));
  EXPECT_TRUE(fs::space(volume, error).capacity > 0 && !error);
  EXPECT_EQ(client->Ask(DriveMessage("get_username", volume)),
            R"({"cmd":"result_username","result":"tést"})");
  EXPECT_EQ(client->Ask(DriveMessage("get_credential", volume)),
            R"({"cmd":"result_credential","result":"id=x;ex_info=given;"})");
  EXPECT_EQ(Unmount(volume), 0);

  const auto wait_in_connect = [&](const std::string& id) {
    client->Send(ConnectMessage("slow", volume, "Slow", "test"));
    ASSERT_TRUE(WaitUntil([&] {
      const std::string output = service.Output();
      return output.find("tarn_mount" + id) != std::string::npos &&
             output.ends_with("session->mount\r\n");
    }));
  };
  wait_in_connect("_1");
  const auto begin = std::chrono::steady_clock::now();
  ::kill(service.DriveProcesses().at(0), SIGKILL);
  EXPECT_EQ(client->Ask(R"({"cmd":"get_drive_list"})"), R"({"cmd":"result","error":-6})");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_TRUE(WaitUntil([&] { return !fs::exists("/tmp/tarn_mount_1_2_1"); }));
  wait_in_connect("_2");
  ExpectDriveEndsWithService(SIGKILL);
}

TEST_F(DrivesE2eTest, ADriveProcessThatDiesInTheMiddleOfMountOrUnmountLeavesNoMount) {
  for (const std::string command : {"disconnect_all", "disconnect"}) {
    ASSERT_EQ(Mount(backing, volume, "L"), 0);
    const pid_t drive = service.DriveProcesses().at(0);
    ::kill(drive, SIGSTOP);  // the command finds it deaf
    client->Send(DriveMessage(command, volume));
    ::kill(drive, SIGKILL);
    ExpectNothingLeft();
  }
  for (int delay_ms = 20; delay_ms <= 60; delay_ms += 4) {
    client->Send(ConnectMessage(backing, volume, "L"));
    ASSERT_TRUE(WaitUntil([&] { return !service.DriveProcesses().empty(); }));
    const pid_t drive = service.DriveProcesses().at(0);
    (void)WaitUntil([&] { return IsMounted(volume); }, std::chrono::milliseconds(delay_ms));
    ::kill(drive, SIGKILL);
    ExpectNothingLeft();
  }
}

TEST_F(DrivesE2eTest, AClientThatLeavesInTheMiddleOfAMountLeavesADriveForOthers) {
  client->Send(ConnectMessage(backing, volume, "L"));
  Connect();
  EXPECT_TRUE(WaitUntil([&] { return IsTheOnlyDrive(volume); }));
  WriteFile(volume / "file", "x");  // its events go to nobody
  EXPECT_EQ(Unmount(volume), 0);
  EXPECT_EQ(ReadFile(backing / "file"), "x");
}

TEST_F(DrivesE2eTest, AServiceThatEndsInTheMiddleOfAnythingLeavesNoProcess) {
  for (const std::string command : {"disconnect_all", "set_loglevel", "disconnect"}) {
    ASSERT_EQ(Mount(backing, volume, "L"), 0);
    const std::vector<pid_t> drives = service.DriveProcesses();
    ::kill(drives.at(0), SIGSTOP);  // whatever asks it, waits
    client->Send(DriveMessage(command, volume));
    service.Signal(SIGTERM);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(service.WaitForEnd(std::chrono::seconds(10))) << command;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4)) << command;
    ::kill(drives.at(0), SIGCONT);
    EXPECT_TRUE(WaitUntil([&] { return !IsMounted(volume); })) << command;
    ASSERT_NO_FATAL_FAILURE(StartService());
  }
}

TEST_F(DrivesE2eTest, AVolumeUnmountedFromOutsideIsReportedAndItsEndHarmsNoOther) {
  ASSERT_EQ(Mount(backing, volume, "L"), 0);
  const pid_t first = service.DriveProcesses().at(0);
  Detach(volume);
  EXPECT_EQ(std::string(client->WaitForEvent("disconnected_force").GetObject("/data/path")),
            volume.string());
  ASSERT_EQ(Mount(backing, volume, "M"), 0);
  ::kill(first, SIGKILL);
  (void)client->WaitForEvent("disconnected");
  EXPECT_TRUE(WaitUntil([&] { return IsTheOnlyDrive(volume); }));
  std::ofstream open_file(volume / "open");
  open_file << "written, not closed" << std::flush;
  EXPECT_EQ(Unmount(volume), 0);
  EXPECT_FALSE(IsMounted(volume)) << "busy, so detached";
  EXPECT_EQ(ReadFile(backing / "open"), "written, not closed");
}

TEST_F(DrivesE2eTest, SettingsReachADriveThatRunsAndItsUploadsAreReported) {
  ASSERT_EQ(Mount(backing, volume, "Labelled"), 0);
  const auto set = [&](const std::string& command, const std::string& members) {
    return client->AskForResult(DriveMessage(command, volume, members));
  };
  fs::create_directories(volume / "folder/inner");
  EXPECT_EQ(set("set_move_folder", R"(,"flag":0)"), 0);
  EXPECT_NE(::rename((volume / "folder").c_str(), (volume / "moved").c_str()), 0);
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(set("set_move_folder", R"(,"flag":1)"), 0);
  EXPECT_EQ(::rename((volume / "folder").c_str(), (volume / "moved").c_str()), 0);
  EXPECT_TRUE(fs::exists(backing / "moved/inner"));

  EXPECT_EQ(set("set_loglevel", R"(,"level":"DEBUG")"), 0);
  EXPECT_EQ(set("set_speedlimit", R"(,"speed":1)"), 0);
  EXPECT_EQ(set("set_speedlimit_all", R"(,"speed":1048576)"), 0);
  EXPECT_EQ(set("set_loglevel", R"(,"level":"ERROR")"), 0);
  EXPECT_EQ(set("set_speedlimit", R"(,"speed":1048576)"), 0);
  const std::string log = ReadFile(home.LogFile());
  EXPECT_NE(log.find("[tarnsvc_Labelled] parse command set_speedlimit_all"), std::string::npos);
  EXPECT_EQ(log.find("command set_speedlimit ", log.find("command set_speedlimit_all")),
            std::string::npos);
  const auto begin = std::chrono::steady_clock::now();
  WriteFile(volume / "file", std::string(3 << 20, 'x'));
  for (std::string expected : {"begin", "finished"}) {
    std::string status = "uploading";
    while (status == "uploading") {
      const Json event = client->WaitForEvent("upload");
      ASSERT_TRUE(event.HasObject("/data/status"));
      EXPECT_EQ(std::string(event.GetObject("/data/path")), "/file");
      status = static_cast<std::string>(event.GetObject("/data/status"));
    }
    EXPECT_EQ(status, expected);
  }
  EXPECT_GT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_EQ(fs::file_size(backing / "file"), 3 << 20);
}

TEST_F(DrivesE2eTest, TheSizeIsWhatTheClientAnswersOrSetsUnasked) {
  EXPECT_EQ(client->AskForResult(R"({"cmd":"set_drivesize_callback"})"), 0);
  client->Send(ConnectMessage(backing, volume, "L"));
  std::string question;
  while (question.find("request_quota") == std::string::npos) {
    question = client->Receive();
    (void)fs::space(volume);  // somebody looks
  }
  EXPECT_EQ(question, R"({"cmd":"request_quota","data":{"drive":")" + volume.string() + "\"}}");
  client->Send(R"({"cmd":"result_quota","error":1,"data":{"total":1073741824,"free":4096}})");
  EXPECT_TRUE(WaitUntil([&] { return fs::space(volume).capacity == 1073741824; }));
  EXPECT_EQ(fs::space(volume).free, 4096U);

  EXPECT_EQ(Unmount(volume), 0);
  Connect();  // nobody is asked now
  ASSERT_EQ(Mount(backing, volume, "L"), 0);
  const std::string size = R"(,"total":2147483648,"free":268435456)";
  EXPECT_EQ(client->AskForResult(DriveMessage("set_size", volume, size)), 0);
  EXPECT_TRUE(WaitUntil([&] { return fs::space(volume).capacity == 2147483648; }));
  EXPECT_EQ(fs::space(volume).free, 268435456U);
}

TEST_F(DrivesE2eTest, ADriveOfSeveralProtocolsIsTheirUnion) {
  const fs::path second = home.MakeFolder("second");
  WriteFile(backing / "same", "first");
  WriteFile(second / "same", "second");
  WriteFile(second / "other", "second");
  std::string connect = ConnectMessage(backing, volume, "L");
  ASSERT_EQ(client->AskForResult(connect.replace(connect.find("connect"), 7, "spindle_mount")), 0);
  EXPECT_TRUE(fs::is_empty(volume));
  for (const fs::path& folder : {backing, second}) {
    const std::string id = R"(,"type":"local","cid":")" + folder.string() + '"';
    EXPECT_EQ(client->AskForResult(DriveMessage("spindle_add_protocol", volume, id)), 0);
  }
  EXPECT_TRUE(WaitUntil([&] { return fs::exists(volume / "other"); }));
  EXPECT_EQ(ReadFile(volume / "same"), "first");
  EXPECT_EQ(client->AskForResult(DriveMessage("spindle_remove_protocol", volume)), -1);
  EXPECT_EQ(Unmount(volume), 0);
}

}  // namespace
}  // namespace tarn::test
