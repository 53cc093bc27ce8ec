// Drives of the real service with real volumes: what goes in comes out, and nothing is left behind.
#include <csignal>
#include <thread>

#include "tests/e2e/mounting.h"
#include "tests/support/http/dav_server.h"

namespace tarn::test {
namespace {

std::string RandomBytes(size_t count) {
  std::string bytes(count, '\0');
  std::ifstream("/dev/urandom").read(bytes.data(), static_cast<std::streamsize>(count));
  return bytes;
}

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
  const DavServer server(DavServer::Kind::kNginx);
  for (const auto& [type, url, remote, largest_bytes] :
       {std::tuple{"local", backing.string(), backing, 100UL << 20},
        {"webdav", server.Url(), server.Root(), 10UL << 20}}) {
    SCOPED_TRACE(type);
    const std::pair<fs::path, std::string> files[] = {{"plain", "x"},
                                                      {"empty", ""},
                                                      {"with space/and another/a file.txt", "deep"},
                                                      {"Übergröße/名前/é.bin", RandomBytes(70000)},
                                                      {"quote\"s'$(x);&|#%?*", "shell?"},
                                                      {"large.bin", RandomBytes(largest_bytes)}};
    ASSERT_EQ(Mount(url, volume, "Disk", type), 0);
    EXPECT_EQ(client->WaitForEvent("connected").GetObject("/data/drive").operator std::string(),
              volume.string());
    for (const auto& [name, content] : files) {
      fs::create_directories((volume / name).parent_path());
      WriteFile(volume / name, content);
    }
    const auto is_stored = [root = remote](const auto& file) {
      return fs::exists(root / file.first) && FileContent(root / file.first) == file.second;
    };
    for (const auto& file : files) {
      EXPECT_EQ(fs::file_size(volume / file.first), file.second.size()) << file.first;
      EXPECT_TRUE(FileContent(volume / file.first) == file.second) << file.first;
      EXPECT_TRUE(WaitUntil([&] { return is_stored(file); })) << file.first;
    }
    fs::rename(volume / "with space", volume / "moved");
    EXPECT_EQ(FileContent(volume / "moved/and another/a file.txt"), "deep");
    fs::remove_all(volume / "moved");
    fs::remove(volume / "plain");
    EXPECT_FALSE(fs::exists(remote / "moved"));
    EXPECT_EQ(Unmount(volume), 0);
    EXPECT_FALSE(IsMounted(volume));
    EXPECT_TRUE(fs::is_empty(volume));

    ASSERT_EQ(Mount(url, volume, "Disk", type), 0);
    EXPECT_TRUE(FileContent(volume / "large.bin") == files[5].second);
    EXPECT_FALSE(fs::exists(volume / "plain"));
    WriteFile(remote / "new", "x");
    EXPECT_TRUE(WaitUntil([&] { return fs::exists(volume / "new"); }));
    EXPECT_EQ(Unmount(volume), 0);
  }
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
    for (int i = 0; i < 50; ++i) {
      WriteFile(drive / std::to_string(i), std::string(5000, letter));
    }
    for (int i = 0; i < 50; ++i) {
      const fs::path stored = remote / std::to_string(i);
      EXPECT_TRUE(WaitUntil([&] { return FileContent(stored) == std::string(5000, letter); }));
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
  EXPECT_EQ(client->Ask(DriveMessage("get_credential", volume)),
            R"({"cmd":"result_credential","result":"id=x;ex_info=given;"})");
  EXPECT_EQ(Unmount(volume), 0);
  ASSERT_TRUE(WaitUntil([&] { return service.DriveProcesses().empty(); }));

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
  EXPECT_EQ(FileContent(backing / "file"), "x");
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
}

TEST_F(DrivesE2eTest, SettingsReachADriveThatRunsAndItsUploadsAreReported) {
  const DavServer server(DavServer::Kind::kApache);
  ASSERT_EQ(Mount(server.Url(), volume, "Labelled", "webdav"), 0);
  const auto set = [&](const std::string& command, const std::string& members) {
    return client->AskForResult(DriveMessage(command, volume, members));
  };
  fs::create_directories(volume / "folder/inner");
  EXPECT_EQ(set("set_move_folder", R"(,"flag":0)"), 0);
  EXPECT_NE(::rename((volume / "folder").c_str(), (volume / "moved").c_str()), 0);
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(set("set_move_folder", R"(,"flag":1)"), 0);
  EXPECT_EQ(::rename((volume / "folder").c_str(), (volume / "moved").c_str()), 0);
  EXPECT_TRUE(fs::exists(server.Root() / "moved/inner"));

  EXPECT_EQ(set("set_loglevel", R"(,"level":"DEBUG")"), 0);
  EXPECT_EQ(set("set_speedlimit", R"(,"speed":1048576)"), 0);
  EXPECT_NE(FileContent(home.LogFile()).find("[tarnsvc_Labelled] parse command set_speedlimit"),
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
  EXPECT_EQ(fs::file_size(server.Root() / "file"), 3 << 20);
}

TEST_F(DrivesE2eTest, TheSizeIsWhatTheClientAnswers) {
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
}

}  // namespace
}  // namespace tarn::test
