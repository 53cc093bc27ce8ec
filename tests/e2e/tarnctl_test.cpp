#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/service/service_process.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

// tarnctl in an installation of its own; the service is started and ended by it.
class TarnctlTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(Run({"down"}).status, 0); }

  Program Start(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), service.InBin("tarnctl"));
    return {arguments, home.Path(), home.Path(), home.Path() / std::to_string(++started)};
  }
  struct Ran {
    int status;
    std::string output;
  };
  Ran Run(const std::vector<std::string>& arguments) {
    Program program = Start(arguments);
    const int status = program.WaitForEnd().value_or(-1);
    return {WEXITSTATUS(status), program.Output()};
  }

  TempHome home;
  ServiceProcess service{home};
  int started = 0;
};

TEST_F(TarnctlTest, ServiceIsStartedAsADaemonAndEnded) {
  fs::remove_all(home.Path() / "Library");  // a fresh account has none
  EXPECT_EQ(Run({"status"}).status, 3);
  EXPECT_EQ(Run({"down"}).status, 0);
  const Ran up = Run({"up"});
  ASSERT_EQ(up.status, 0) << up.output;
  EXPECT_THAT(up.output, HasSubstr(std::to_string(service.Port())));
  EXPECT_EQ(Run({"--json", "up"}).output,
            R"({"running":1,"started":0,"port":)" + std::to_string(service.Port()) + "}\n");
  EXPECT_EQ(Run({"status"}).status, 0);
  EXPECT_EQ(Run({"list", "--json"}).output, "{\"drives\":[]}\n");
  EXPECT_EQ(Run({"log-level", "debug"}).status, 0);
  EXPECT_EQ(Run({"speed-limit", "1MiB"}).status, 0);
  EXPECT_EQ(Run({"down"}).status, 0);
  EXPECT_EQ(Run({"list"}).status, 3);
}

TEST_F(TarnctlTest, ServiceThatCannotStartIsReportedAtOnce) {
  fs::remove(service.InBin("tarnsvc"));
  const Ran missing = Run({"up"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_THAT(missing.output, HasSubstr("No such file"));
  fs::copy("/bin/false", service.InBin("tarnsvc"));
  const Ran ended = Run({"up"});
  EXPECT_EQ(ended.status, 1);
  EXPECT_THAT(ended.output, HasSubstr("right after its start"));
}

TEST_F(TarnctlTest, DriveIsMountedWatchedAndUnmounted) {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) {
    GTEST_SKIP() << "no /dev/fuse";
  }
  const fs::path folder = home.MakeFolder("back ing");
  const fs::path mount_point = home.MakeFolder("drive");
  std::ofstream(folder / "before") << "x";
  ASSERT_EQ(Run({"up"}).status, 0);
  ASSERT_EQ(Run({"log-level", "debug"}).status, 0);
  Program watch = Start({"watch"});
  const auto shows = [](const Program& program, const std::string& text) {
    return WaitUntil([&] { return program.Output().find(text) != std::string::npos; });
  };
  ASSERT_TRUE(WaitUntil([&] {
    return FileContent(home.LogFile()).find(R"({"cmd":"set_callback")") != std::string::npos;
  }));
  // A relative folder and mount point are meant from where the user stands.
  const Ran mounted = Run({"mount", "local", "back ing", "drive", "--label", "My drive"});
  ASSERT_EQ(mounted.status, 0) << mounted.output;
  EXPECT_TRUE(fs::exists(mount_point / "before"));
  EXPECT_EQ(Run({"list"}).output, mount_point.string() + "\n");
  EXPECT_TRUE(shows(watch, "connected " + mount_point.string())) << watch.Output();
  std::ofstream(mount_point / "new") << "content";
  EXPECT_TRUE(shows(watch, "upload finished: /new")) << watch.Output();

  EXPECT_EQ(Run({"unmount", "drive"}).status, 0);
  EXPECT_TRUE(fs::exists(folder / "new"));
  EXPECT_FALSE(fs::exists(mount_point / "new"));
  EXPECT_TRUE(shows(watch, "disconnected " + mount_point.string())) << watch.Output();
  ASSERT_EQ(::kill(watch.Pid(), SIGTERM), 0);
  EXPECT_EQ(watch.WaitForEnd(), 0);
}

TEST_F(TarnctlTest, FailuresSayWhyAndGiveTheCode) {
  ASSERT_EQ(Run({"up"}).status, 0);
  const fs::path mount_point = home.MakeFolder("drive");
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"mount", "nosuchtype", "/x", mount_point}, -1},
      {{"mount", "local", "/none", mount_point}, 12},
      {{"mount", "local", home.Path(), "/proc/version"}, -5},
      {{"unmount", mount_point}, -1},
      {{"speed-limit", "0", mount_point}, -1},
  };
  for (auto [arguments, code] : cases) {
    arguments.insert(arguments.begin(), "--json");
    const Ran ran = Run(arguments);
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.output, StartsWith(R"({"error":{"code":)" + std::to_string(code) + ","));
  }
  EXPECT_EQ(Run({"unmount"}).status, 2);
  EXPECT_EQ(Run({"mount", "local"}).status, 2);
}

}  // namespace
}  // namespace tarn::test
