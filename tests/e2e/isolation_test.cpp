// Shows that the harness can fail: that what a test leaves behind is seen.
#include "tests/support/service/isolation.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/service/test_client.h"

namespace tarn::test {
namespace {

int StatusInIsolation(int (*test_main)(int, char**)) {
  const pid_t child = ::fork();
  if (child == 0) {
    RunIsolated(test_main, 0, nullptr);
  }
  int status = -1;
  (void)::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::filesystem::path outside_path;  // for functions that may not capture it

constexpr int kInAWorld = 3;

class IsolationTest : public testing::Test {
 protected:
  void SetUp() override {
    if (StatusInIsolation([](int, char**) { return ::getppid() == 1 ? kInAWorld : 0; }) !=
        kInAWorld) {
      GTEST_SKIP() << "this user may not make a world of its own";
    }
  }
};

TEST_F(IsolationTest, WorldIsEmptyAndConnected) {
  const TempHome outside;
  outside_path = outside.Path();
  EXPECT_EQ(StatusInIsolation([](int, char**) {
              const bool is_fresh = !std::filesystem::exists(outside_path);
              const bool has_build = std::filesystem::exists(TARN_BUILD_FOLDER);
              const bool is_alone = ChildrenOf(1).size() == 1;
              Client client;  // nothing listens, but an answer comes at once
              const bool is_refused = !client.Connect(1, After(std::chrono::hours(1)));
              std::exit(is_fresh && has_build && is_alone && is_refused ? 7 : 1);
              return 0;
            }),
            7);
}

TEST_F(IsolationTest, ProcessLeftBehindIsAFailure) {
  EXPECT_NE(StatusInIsolation([](int, char**) {
              if (::fork() == 0) {
                (void)::pause();
              }
              return 0;
            }),
            0);
}

TEST_F(IsolationTest, VolumeLeftBehindIsAFailure) {
  EXPECT_NE(StatusInIsolation([](int, char**) {
              (void)::mkdir("/tmp/left", 0700);
              return ::mount("tmpfs", "/tmp/left", "tmpfs", 0, nullptr);
            }),
            0);
  EXPECT_EQ(StatusInIsolation([](int, char**) { return 0; }), 0);
}

}  // namespace
}  // namespace tarn::test
