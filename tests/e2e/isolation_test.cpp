// Shows that the harness can fail: that what a test leaves behind is seen.
#include "tests/support/service/isolation.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mount.h>
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

constexpr int kFresh = 7;

// A world of its own has an empty /tmp, two processes and a loopback that refuses at once.
int LookAround(int /*count*/, char** /*texts*/) {
  Client client;
  const bool is_fresh = std::filesystem::is_empty("/tmp") && ChildrenOf(1).size() == 1 &&
                        !client.Connect(1, After(std::chrono::hours(1)));
  return is_fresh ? kFresh : 0;
}

TEST(IsolationTest, WhatIsLeftInTheWorldIsAFailure) {
  const TempHome outside;  // so that the /tmp out here is not empty
  if (StatusInIsolation([](int, char**) { return ::getppid() == 1 ? kFresh : 0; }) != kFresh) {
    GTEST_SKIP() << "this user may not make a world of its own";
  }
  EXPECT_EQ(StatusInIsolation(LookAround), kFresh);
  EXPECT_EQ(StatusInIsolation([](int, char**) { return 0; }), 0);
  EXPECT_NE(StatusInIsolation([](int, char**) { return ::fork() == 0 ? ::pause() : 0; }), 0);
  EXPECT_NE(StatusInIsolation([](int, char**) {
              std::filesystem::create_directory("/tmp/left");
              return ::mount("tmpfs", "/tmp/left", "tmpfs", 0, nullptr);
            }),
            0);
}

}  // namespace
}  // namespace tarn::test
