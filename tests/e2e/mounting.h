#pragma once

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <unistd.h>

#include "tests/support/service/service_process.h"
#include "tests/support/service/test_client.h"
#include "tests/support/service/wait.h"

namespace tarn::test {

namespace fs = std::filesystem;

// A running service, a client that has introduced itself, and folders to mount.
class MountingTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::access("/dev/fuse", R_OK | W_OK) != 0) {
      GTEST_SKIP() << "no /dev/fuse here";
    }
    StartService();
  }
  void StartService() {
    ASSERT_TRUE(service.Start());
    Connect();
  }
  // A new client; the connection of the last one ends here.
  void Connect() {
    client.emplace(service);
    client->Introduce(true);
  }

  // Makes the test module ("test") available to drive processes.
  void AddTestModule() const {
    fs::copy(fs::path(TEST_MODULE_FOLDER) / "libtest.dylib", service.ModuleFolder());
  }

  [[nodiscard]] int Mount(const fs::path& folder, const fs::path& mount_point,
                          const std::string& label, const std::string& type = "local") {
    return client->AskForResult(ConnectMessage(folder, mount_point, label, type));
  }
  [[nodiscard]] int Unmount(const fs::path& mount_point) {
    return client->AskForResult(DriveMessage("disconnect", mount_point));
  }

  // Ends the service by the signal: its one drive process, which nobody is the parent of any more,
  // ends too.
  void ExpectDriveEndsWithService(int signal) {
    const std::vector<pid_t> drives = service.DriveProcesses();
    ASSERT_EQ(drives.size(), 1U);
    service.Signal(signal);
    (void)service.WaitForEnd();
    EXPECT_TRUE(WaitUntil([&] { return !IsAlive(drives[0]); }));
  }

  static void WriteFile(const fs::path& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    EXPECT_TRUE(file.good()) << path;
  }
  static bool IsMounted(const fs::path& mount_point) { return !MountsBelow(mount_point).empty(); }

  TempHome home;
  ServiceProcess service{home};
  std::optional<TestClient> client;
  const fs::path backing = home.MakeFolder("backing");
  const fs::path volume = home.MakeFolder("volume");
};

}  // namespace tarn::test
