#include "interfaces/logger.h"

#include <algorithm>
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
#include "platform/logger/log_line.h"
#include "tests/support/temp_folder.h"

namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr off_t kSmallBytes = 4096;
constexpr LOGLEVEL kEverything = LOGLEVEL_DEBUG | LOGLEVEL_ALL;

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

  static int Try(const std::string& name) {
    ILog* log = nullptr;
    return GetLogger(LOGGER_KIND_FILE, name.c_str(), kEverything, &log);
  }
  ILog* Make(const std::string& name) {
    ILog* log = nullptr;
    EXPECT_EQ(GetLogger(LOGGER_KIND_FILE, name.c_str(), kEverything, &log), 0) << name;
    names.push_back(name);
    return log;
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
  const fs::path older_path = folder / "log.1";
  std::vector<std::string> names;
};

TEST_F(LoggerTest, LineTellsTimeProcessThreadSeverityChannelAndName) {
  __LOG__A(Make("tarnsvc_My Disk"), LOGLEVEL_ERROR | LOGLEVEL_SERVICE, "%s:: %d", "Mount", 7);
  EXPECT_THAT(LastLine(), MatchesRegex("20..-..-..T..:..:..\\....Z " + std::to_string(::getpid()) +
                                       "\\.[0-9]+ ERROR SERVICE \\[tarnsvc_My Disk\\] Mount:: 7"));
  __LOG__A(Make("plain"), LOGLEVEL_INFO, "no channel");
  EXPECT_THAT(LastLine(), HasSubstr(" INFO - [plain] no channel"));
}

TEST_F(LoggerTest, ThresholdHidesLowerSeveritiesAndOtherChannels) {
  ILog* log = Make("levels");
  for (const auto& [threshold, level, lines] :
       {std::tuple{LOGLEVEL_ERROR | LOGLEVEL_ALL, LOGLEVEL_DEBUG | LOGLEVEL_SERVICE, 0U},
        {LOGLEVEL_ERROR | LOGLEVEL_ALL, LOGLEVEL_INFO | LOGLEVEL_TRANSFER, 0U},
        {LOGLEVEL_ERROR | LOGLEVEL_ALL, LOGLEVEL_ERROR, 1U},
        {LOGLEVEL_DEBUG | LOGLEVEL_ALL, LOGLEVEL_DEBUG, 1U},
        {LOGLEVEL_DEBUG | LOGLEVEL_ALL, LOGLEVEL_INFO | LOGLEVEL_HTTP, 1U},
        {LOGLEVEL_DEBUG | LOGLEVEL_SERVICE, LOGLEVEL_ERROR | LOGLEVEL_HTTP, 0U}}) {
    log->SetLevel(threshold);
    EXPECT_EQ(log->GetLevel(), threshold);
    const size_t before = Lines(log_path).size();
    __LOG__A(log, level, "message");
    EXPECT_EQ(Lines(log_path).size() - before, lines) << std::hex << threshold << " " << level;
  }
}

TEST_F(LoggerTest, MessagesAndNamesCannotForgeLines) {
  ILog* log = Make("evil] \n2026-01-01T00:00:00.000Z");
  __LOG__A(log, LOGLEVEL_ERROR, "%s", "a\r\nb\x1b[2J\tc\x7f \xc3\xa9\r\n");
  ASSERT_EQ(Lines(log_path).size(), 1U);
  EXPECT_THAT(LastLine(), EndsWith(R"([evil\x5d \n2026-01-01T00:00:00.000Z] a\r\nb\x1b[2J)"
                                   "\tc\\x7f \xc3\xa9"));
}

TEST_F(LoggerTest, LongMessageIsCutAtACharacterAndMarked) {
  ILog* log = Make(std::string(1000, '\n'));
  std::string text = "x";
  while (text.size() <= tarn::kMaxMessageBytes) {
    text += "\xe2\x82\xac";
  }
  __LOG__A(log, LOGLEVEL_ERROR, "%s", text.c_str());
  EXPECT_THAT(LastLine(),
              EndsWith("\xe2\x82\xac... [cut, " + std::to_string(text.size()) + " bytes]"));
  __LOG__A(log, LOGLEVEL_ERROR, "%s", std::string(20000, '\1').c_str());
  EXPECT_THAT(LastLine(), EndsWith("\\x01... [cut, 20000 bytes]"));
  __LOG__A(log, LOGLEVEL_ERROR, "%s", text.substr(0, tarn::kMaxMessageBytes).c_str());
  EXPECT_THAT(LastLine(), Not(HasSubstr("bytes]")));
}

TEST_F(LoggerTest, NameInUseIsRefusedEverywhereUntilReleaseOrDeath) {
  Make("taken");
  EXPECT_NE(Try("taken"), 0);
  EXPECT_EQ(InChild([&] { return Try("taken") != 0 && Try("of the dead") == 0 ? 0 : 1; })(), 0);
  Make("of the dead");
  EXPECT_EQ(ReleaseLogger("taken"), 0);
  EXPECT_EQ(InChild([&] { return Try("taken"); })(), 0);
  EXPECT_EQ(Try("taken"), 0);
  EXPECT_NE(ReleaseLogger("never made"), 0);
}

TEST_F(LoggerTest, AnyBytesMakeANameNoneLeavesTheFolderAndOnlyAFileIsALog) {
  const std::string longer(5000, '/');
  for (const std::string& name :
       std::initializer_list<std::string>{"", ".", "..", "../../up", "/tmp/x", "a", "A", "a/b",
                                          "a%2fb", "\xff\n", longer, longer + "2"}) {
    Make(name);  // all at once, so none of them may be taken for another
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 2);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder / "log.locks"), {}), 12);
  ILog* log = nullptr;
  EXPECT_NE(GetLogger(LOGGER_KIND_FILE, nullptr, LOGLEVEL_DEBUG, &log), 0);
  EXPECT_NE(GetLogger(1, "kind", LOGLEVEL_DEBUG, &log), 0);
  fs::create_symlink("/dev/null", folder / "device");
  EXPECT_NE(InitLogger((folder / "device").c_str()), 0);
  EXPECT_NE(Try("no file"), 0);
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
  busy = {};
  EXPECT_EQ(
      std::ranges::count_if(Lines(log_path), [](auto& line) { return line.ends_with("] child"); }),
      40);
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
  EXPECT_TRUE(fs::exists(older_path));
  std::multiset<std::string> found;
  for (const fs::path& path : {older_path, log_path}) {
    const auto lines = Lines(path);
    found.insert(lines.begin(), lines.end());
  }
  EXPECT_TRUE(found == expected) << found.size() << " of " << expected.size() << " lines";
}

TEST_F(LoggerTest, FileStaysBoundedPrivateAndIsFollowedWhenMoved) {
  fs::permissions(log_path, fs::perms(0644));
  tarn::LogFile file(log_path, kSmallBytes);
  tarn::LogFile others(log_path, kSmallBytes);  // as another process has it
  ASSERT_TRUE(file.Open());
  ASSERT_TRUE(others.Open());
  const auto append = [&] {
    for (int i = 0; i < 200; ++i) {
      (i % 3 == 0 ? others : file).Append(std::string(99, 'x') + "\n");
      EXPECT_LE(fs::file_size(log_path), kSmallBytes);
      EXPECT_EQ(fs::status(log_path).permissions(), fs::perms(0600));
    }
  };
  append();
  EXPECT_EQ(fs::file_size(older_path), kSmallBytes / 100 * 100);
  fs::remove(older_path);
  fs::create_directories(older_path / "in the way");
  append();
  fs::remove(log_path);
  errno = ENOTCONN;
  __LOG__A(Make("errno"), LOGLEVEL_ERROR, "new");
  EXPECT_EQ(errno, ENOTCONN) << "is the caller's";
  EXPECT_THAT(LastLine(), EndsWith("new"));
}

}  // namespace
