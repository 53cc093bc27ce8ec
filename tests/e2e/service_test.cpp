// The life of the real service: its start, its ports and files, and its end at awkward moments.
#include <csignal>
#include <fcntl.h>

#include "tests/e2e/mounting.h"

namespace tarn::test {
namespace {

constexpr int kExitedWithOne = 1 << 8;  // as waitpid tells it

class ServiceE2eTest : public testing::Test {
 protected:
  TempHome home;
  ServiceProcess service{home};
};

TEST_F(ServiceE2eTest, MovesToTheNextPortWhenTheFirstIsTaken) {
  const TempHome other_home;
  ServiceProcess other(other_home);
  ASSERT_TRUE(other.Start());
  ASSERT_TRUE(service.Start());
  EXPECT_GT(service.Port(), other.Port());
}

TEST_F(ServiceE2eTest, EndsWithStatusOneInEveryModeAndHoldsNoStandardStreamsAsADaemon) {
  for (const char* mode : {"-d", "-D", ""}) {
    ASSERT_TRUE(service.Start(mode));
    TestClient client(service);
    client.Introduce();
    for (const char* stream : {"0", "1", "2"}) {
      const fs::path link = "/proc/" + std::to_string(service.Pid()) + "/fd/" + stream;
      EXPECT_TRUE(*mode != 0 || fs::read_symlink(link) == "/dev/null") << "held by a daemon";
    }
    service.Signal(SIGTERM);
    EXPECT_EQ(service.WaitForEnd(std::chrono::seconds(2)), kExitedWithOne) << mode;
    EXPECT_EQ(client.Receive(), "(closed)");
  }
}

using ServiceWithDriveTest = MountingTest;

TEST_F(ServiceWithDriveTest, KillUnmountsFirstAndDrivesOfAServiceThatIsGoneUnmountThemselves) {
  ASSERT_EQ(Mount(backing, volume, "L"), 0);
  WriteFile(volume / "file", "x");
  EXPECT_EQ(client->Ask(R"({"cmd":"kill"})"), R"({"cmd":"disconnect_all","result":"/"})");
  EXPECT_FALSE(IsMounted(volume));
  EXPECT_EQ(service.WaitForEnd(std::chrono::seconds(5)), kExitedWithOne);
  EXPECT_EQ(FileContent(backing / "file"), "x");
  for (const int signal : {SIGTERM, SIGKILL}) {
    ASSERT_NO_FATAL_FAILURE(StartService());
    ASSERT_EQ(Mount(backing, volume, "L"), 0);
    ExpectDriveEndsWithService(signal);
    EXPECT_FALSE(IsMounted(volume));
  }
}

TEST_F(ServiceWithDriveTest,
       ADriveProcessInheritsAndHandsDownOnlyStandardStreamsAndTracesItsSteps) {
  for (const char* end : {"_1_1", "_1_2", "_2_1", "_2_2"}) {
    const fs::path file = std::string("/tmp/tarn_mount_0") + end;
    fs::remove(file);  // where /tmp is shared, it may be a FIFO, and opening that would wait
    WriteFile(file, "stale, of an earlier run");
  }
  ASSERT_EQ(Mount(backing, volume, "L"), 0);
  const pid_t drive = service.DriveProcesses().at(0);
  const fs::path process = "/proc/" + std::to_string(drive);
  for (const fs::directory_entry& entry : fs::directory_iterator(process / "fdinfo")) {
    const std::string fd = entry.path().filename();
    std::error_code closed_meanwhile;
    const fs::path target = fs::read_symlink(process / "fd" / fd, closed_meanwhile);
    std::ifstream info(entry.path());
    std::string word;
    unsigned flags = 0;
    info >> word >> word >> word >> std::oct >> flags;  // "pos: 0 flags: 02100002"
    // What was inherited has lost the flag, and what would be handed down lacks it.
    EXPECT_TRUE(std::stoi(fd) <= STDERR_FILENO || !info || (flags & O_CLOEXEC) != 0) << target;
  }
  EXPECT_EQ(Unmount(volume), 0);
  ASSERT_TRUE(WaitUntil([&] { return service.DriveProcesses().empty(); }));
  std::string trace = service.Output();
  trace = trace.substr(trace.find("it's child"));
  EXPECT_EQ(trace.substr(0, trace.rfind("ReleaseLogger\r\n") + 15),
            "it's child tarnsvc\r\ninit log\r\npipename : /tmp/tarn_mount_0\r\nclient connect\r\n"
            "client create\r\nFS_Initialize\r\nStartCache\r\nsession->request_info\r\n"
            "session->mount\r\nsession->mount returned 0\r\nFS_UnbindCache\r\nFS_UnbindAsyncQ\r\n"
            "FS_UnbindLogger\r\nReleaseCache\r\nCache_UnbindAsyncQ\r\nCache_UnbindLogger\r\n"
            "ReleaseLogger\r\n");
}

}  // namespace
}  // namespace tarn::test
