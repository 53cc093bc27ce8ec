#include "interfaces/logger.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <set>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "common/log.h"
#include "platform/logger/log_file.h"
#include "platform/logger/name_claim.h"
#include "tests/support/temp_folder.h"

namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::MatchesRegex;

// Runs `body` in a child, which ends at once with its result: what it holds is let go of as in a
// crash. Call the result to wait for the exit status.
std::function<int()> InChild(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(60);  // if it hangs
    ::_exit(body());
  }
  return [child] {
    int status = -1;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
}

class LoggerTest : public testing::Test {
 protected:
  LoggerTest() { EXPECT_EQ(InitLogger(log_path.c_str()), 0); }
  ~LoggerTest() override {
    for (const std::string& name : names) {
      EXPECT_EQ(ReleaseLogger(name.c_str()), 0);
    }
  }

  // Null when it is refused.
  static ILog* Try(const std::string& name) {
    ILog* log = nullptr;
    const LOGLEVEL threshold = LOGLEVEL_DEBUG | LOGLEVEL_ALL;
    return GetLogger(LOGGER_KIND_FILE, name.c_str(), threshold, &log) == 0 ? log : nullptr;
  }
  ILog* Make(const std::string& name) {
    names.push_back(name);
    return Try(name);
  }
  static std::vector<std::string> Lines(const fs::path& path) {
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
      lines.push_back(line);
    }
    return lines;
  }
  std::string LastLine() { return Lines(log_path).back(); }

  const tarn::test::TempFolder temp;
  const fs::path folder = temp.path();
  const fs::path log_path = folder / "log";
  std::vector<std::string> names;
};

TEST_F(LoggerTest, ThresholdHidesLowerSeveritiesAndOtherChannels) {
  ILog* log = Make("levels");
  for (const auto& [threshold, level, lines] :
       {std::tuple{LOGLEVEL_ERROR | LOGLEVEL_ALL, LOGLEVEL_INFO | LOGLEVEL_TRANSFER, 0U},
        {LOGLEVEL_ERROR | LOGLEVEL_ALL, LOGLEVEL_ERROR, 1U},
        {LOGLEVEL_DEBUG | LOGLEVEL_ALL, LOGLEVEL_INFO | LOGLEVEL_HTTP, 1U},
        {LOGLEVEL_DEBUG | LOGLEVEL_SERVICE, LOGLEVEL_ERROR | LOGLEVEL_HTTP, 0U}}) {
    log->SetLevel(threshold);
    const size_t before = Lines(log_path).size();
    __LOG__A(log, level, "message");
    EXPECT_EQ(Lines(log_path).size() - before, lines) << std::hex << threshold << " " << level;
  }
}

TEST_F(LoggerTest, MessagesAndNamesCannotForgeLinesAndLongOnesAreCut) {
  ILog* log = Make("evil] \n2026-01-01T00:00:00.000Z");
  __LOG__A(log, LOGLEVEL_ERROR | LOGLEVEL_SERVICE, "%s", "a\r\nb\x1b[2J\tc\x7f \xc3\xa9\r\n");
  ASSERT_EQ(Lines(log_path).size(), 1U);
  EXPECT_THAT(LastLine(), MatchesRegex("20..-..-..T..:..:..\\....Z " + std::to_string(::getpid()) +
                                       "\\.[0-9]+ ERROR SERVICE .*"));
  EXPECT_THAT(LastLine(), EndsWith(R"( [evil\x5d \n2026-01-01T00:00:00.000Z] a\r\nb\x1b[2J)"
                                   "\tc\\x7f \xc3\xa9"));
  __LOG__A(Make(std::string(1000, '\n')), LOGLEVEL_ERROR, "%s", std::string(20000, '\1').c_str());
  EXPECT_THAT(LastLine(), EndsWith("\\x01... [cut, 20000 bytes]"));
}

TEST_F(LoggerTest, NameInUseIsRefusedEverywhereUntilReleaseOrDeath) {
  EXPECT_TRUE(Try("taken"));
  EXPECT_FALSE(Try("taken"));
  EXPECT_FALSE(tarn::NameClaim::Take(folder / "log.locks", "taken")) << "as another process does";
  EXPECT_EQ(InChild([&] { return !Try("taken") && Try("of the dead") ? 0 : 1; })(), 0);
  EXPECT_TRUE(Make("of the dead"));
  EXPECT_EQ(ReleaseLogger("taken"), 0);
  EXPECT_EQ(InChild([&] { return Try("taken") ? 0 : 1; })(), 0);
}

TEST_F(LoggerTest, AnyBytesMakeANameAndNoneLeavesTheFolder) {
  const std::string longer(5000, '/');
  for (const std::string& name :
       std::initializer_list<std::string>{"", ".", "..", "../../up", "/tmp/x", "a", "A", "a%2fb",
                                          "\xff\n", longer, longer + "2"}) {
    EXPECT_TRUE(Make(name)) << name;  // all at once, so none may be taken for another
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 2);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder / "log.locks"), {}), 11);
}

TEST_F(LoggerTest, ForkedChildOfALoggingProcessCanLog) {
  ILog* log = Make("forking");
  std::jthread busy([&](const std::stop_token& done) {
    while (!done.stop_requested()) {
      __LOG__A(log, LOGLEVEL_DEBUG, "busy");
    }
  });
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(InChild([&] { return __LOG__A(log, LOGLEVEL_ERROR, "child"), 0; })(), 0);
  }
}

TEST_F(LoggerTest, RotationAmongProcessesLosesAndTearsNoLine) {
  constexpr off_t kOneRotationBytes = 200L * 1024;  // for all writers
  std::vector<std::function<int()>> statuses;
  std::multiset<std::string> expected;
  for (const char writer : {'a', 'b', 'c', 'd', 'e', 'f'}) {
    std::vector<std::string> lines;
    for (int number = 0; number < 500; ++number) {
      lines.push_back(std::to_string(number) + std::string(95, writer));
    }
    statuses.push_back(InChild([&] {
      tarn::LogFile file(log_path, kOneRotationBytes);
      const bool opened = file.Open();
      for (const std::string& line : lines) {
        file.Append(line + "\n");
      }
      return opened ? 0 : 1;
    }));
    expected.insert(lines.begin(), lines.end());
  }
  for (const auto& status : statuses) {
    EXPECT_EQ(status(), 0);
  }
  std::multiset<std::string> found;
  for (const fs::path& path : {folder / "log.1", log_path}) {
    const auto lines = Lines(path);
    EXPECT_FALSE(lines.empty()) << path;
    found.insert(lines.begin(), lines.end());
  }
  EXPECT_TRUE(found == expected) << found.size() << " of " << expected.size() << " lines";
}

TEST_F(LoggerTest, FileStaysBoundedPrivateAndIsFollowedWhenMoved) {
  fs::permissions(log_path, fs::perms(0644));
  constexpr off_t kBytes = 4096;
  tarn::LogFile file(log_path, kBytes);
  tarn::LogFile others(log_path, kBytes);  // as another process has it
  ASSERT_TRUE(file.Open() && others.Open());
  for (int i = 0; i < 200; ++i) {
    (i % 3 == 0 ? others : file).Append(std::string(99, 'x') + "\n");
    EXPECT_LE(fs::file_size(log_path), kBytes);
    EXPECT_EQ(fs::status(log_path).permissions(), fs::perms(0600));
  }
  EXPECT_EQ(fs::file_size(folder / "log.1"), kBytes / 100 * 100);
  fs::remove(log_path);
  errno = ENOTCONN;
  __LOG__A(Make("errno"), LOGLEVEL_ERROR, "new");
  EXPECT_EQ(errno, ENOTCONN) << "is the caller's";
  EXPECT_THAT(LastLine(), EndsWith("new"));
}

}  // namespace
