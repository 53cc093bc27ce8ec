#include "interfaces/logger.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>

#include "common/log.h"
#include "platform/logger/log_line.h"
#include "tests/unit/logger/log_folder.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class LoggerTest : public LogFolderTest {
 protected:
  void SetUp() override { ASSERT_EQ(InitLogger(log_path.c_str()), 0); }
  void TearDown() override {
    for (const std::string& name : names) {
      EXPECT_EQ(ReleaseLogger(name.c_str()), 0);
    }
  }

  ILog* Make(const std::string& name, LOGLEVEL threshold = LOGLEVEL_DEBUG | LOGLEVEL_ALL) {
    ILog* log = nullptr;
    EXPECT_EQ(GetLogger(LOGGER_KIND_FILE, name.c_str(), threshold, &log), 0) << name;
    names.push_back(name);
    return log;
  }
  void Release() {
    EXPECT_EQ(ReleaseLogger(names.back().c_str()), 0);
    names.pop_back();
  }
  static int TryName(const char* name) {
    ILog* log = nullptr;
    return GetLogger(LOGGER_KIND_FILE, name, LOGLEVEL_DEBUG, &log);
  }
  std::string LastLine() {
    const auto lines = Lines(log_path);
    return lines.empty() ? "" : lines.back();
  }

  std::vector<std::string> names;
};

TEST_F(LoggerTest, LineTellsTimeProcessThreadSeverityChannelAndName) {
  __LOG__A(Make("tarnsvc_My Disk"), LOGLEVEL_ERROR | LOGLEVEL_SERVICE, "%s:: %d", "Mount", 7);
  EXPECT_THAT(LastLine(), MatchesRegex("20..-..-..T..:..:..\\....Z " + std::to_string(::getpid()) +
                                       "\\.[0-9]+ ERROR SERVICE \\[tarnsvc_My Disk\\] Mount:: 7"));
  __LOG__A(Make("plain"), LOGLEVEL_INFO, "no channel");
  EXPECT_THAT(LastLine(), HasSubstr(" INFO - [plain] no channel"));
}

TEST(LogLineTest, TimeIsUtcWithMilliseconds) {
  const auto format = [](long long ms_since_1970, const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    tarn::LogLineBuffer buffer;
    const std::chrono::system_clock::time_point time{std::chrono::milliseconds(ms_since_1970)};
    const std::string line(
        tarn::FormatLogLine(buffer, time, LOGLEVEL_DEBUG, "[x]", text, arguments));
    va_end(arguments);
    return line.substr(0, 25);
  };
  EXPECT_EQ(format(1709251199007, "leap day"), "2024-02-29T23:59:59.007Z ");
  EXPECT_EQ(format(4102444800000, "far"), "2100-01-01T00:00:00.000Z ");
}

TEST_F(LoggerTest, ThresholdHidesLowerSeveritiesAndOtherChannels) {
  const struct {
    LOGLEVEL threshold, message;
    bool written;
  } cases[] = {
      {LOGLEVEL_ERROR | LOGLEVEL_ALL, LOGLEVEL_DEBUG | LOGLEVEL_SERVICE, false},
      {LOGLEVEL_ERROR | LOGLEVEL_ALL, LOGLEVEL_INFO | LOGLEVEL_TRANSFER, false},
      {LOGLEVEL_ERROR | LOGLEVEL_ALL, LOGLEVEL_ERROR, true},
      {LOGLEVEL_DEBUG | LOGLEVEL_ALL, LOGLEVEL_DEBUG, true},
      {LOGLEVEL_DEBUG | LOGLEVEL_ALL, LOGLEVEL_INFO | LOGLEVEL_HTTP, true},
      {LOGLEVEL_DEBUG | LOGLEVEL_SERVICE, LOGLEVEL_ERROR | LOGLEVEL_HTTP, false},
      {LOGLEVEL_DEBUG | LOGLEVEL_SERVICE, LOGLEVEL_ERROR | LOGLEVEL_SERVICE, true},
  };
  ILog* log = Make("levels", LOGLEVEL_ERROR);
  for (const auto& c : cases) {
    log->SetLevel(c.threshold);
    EXPECT_EQ(log->GetLevel(), c.threshold);
    const size_t before = Lines(log_path).size();
    __LOG__A(log, c.message, "message");
    EXPECT_EQ(Lines(log_path).size() - before, c.written ? 1U : 0U)
        << std::hex << c.threshold << " " << c.message;
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
  ILog* log = Make(std::string(1000, 'n'));
  std::string text = "x";
  while (text.size() < 20000) {
    text += "\xe2\x82\xac";
  }
  __LOG__A(log, LOGLEVEL_ERROR, "%s", text.c_str());
  EXPECT_THAT(LastLine(),
              EndsWith("\xe2\x82\xac... [cut, " + std::to_string(text.size()) + " bytes]"));
  __LOG__A(log, LOGLEVEL_ERROR, "%s", std::string(20000, '\1').c_str());
  EXPECT_THAT(LastLine(), EndsWith("\\x01... [cut, 20000 bytes]"));
  __LOG__A(log, LOGLEVEL_ERROR, "%s", text.substr(0, tarn::kMaxMessageBytes).c_str());
  EXPECT_THAT(LastLine(), Not(HasSubstr("[cut")));
}

TEST_F(LoggerTest, ErrnoOfTheCallerStays) {
  ILog* log = Make("errno");
  std::filesystem::remove_all(folder);
  errno = ENOTCONN;
  __LOG__A(log, LOGLEVEL_ERROR, "nowhere to go");
  EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(LoggerTest, NameInUseIsRefusedHereAndInOtherProcesses) {
  Make("taken");
  EXPECT_NE(TryName("taken"), 0);
  EXPECT_EQ(StatusOf(Fork([&] {
              return InitLogger(log_path.c_str()) != 0 ? 1 : TryName("taken") == 0 ? 2 : 0;
            })),
            0);
  Release();
  Make("taken");
}

TEST_F(LoggerTest, CrashFreesTheName) {
  int ready[2];
  ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
  const pid_t holder = Fork([&] {
    const char result = TryName("held") == 0 ? 'y' : 'n';
    (void)!::write(ready[1], &result, 1);
    return ::pause();
  });
  char result = 0;
  EXPECT_EQ(::read(ready[0], &result, 1), 1);
  EXPECT_EQ(result, 'y');
  EXPECT_NE(TryName("held"), 0);
  ::kill(holder, SIGKILL);
  StatusOf(holder);
  Make("held");
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(LoggerTest, AnyBytesMakeANameAndNoneLeavesTheFolder) {
  const auto entries = [](const std::filesystem::path& path) {
    return std::distance(std::filesystem::directory_iterator(path), {});
  };
  const auto before = entries(folder);
  const std::filesystem::path locks = log_path.string() + ".locks";
  const std::string longer(5000, '/');
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("../../up"),
        std::string("/tmp/x"), std::string("a"), std::string("A"), std::string("a/b"),
        std::string("a%2fb"), std::string("\xff\n"), longer, longer + "2"}) {
    Make(name);  // all at once, so none of them may be taken for another
  }
  EXPECT_EQ(entries(folder), before);
  EXPECT_EQ(entries(locks), 12);
}

TEST_F(LoggerTest, WrongUseFails) {
  ILog* log = nullptr;
  EXPECT_NE(GetLogger(1, "kind", LOGLEVEL_DEBUG, &log), 0);
  EXPECT_NE(GetLogger(LOGGER_KIND_FILE, nullptr, LOGLEVEL_DEBUG, &log), 0);
  EXPECT_NE(ReleaseLogger("never made"), 0);
  EXPECT_NE(ReleaseLogger(nullptr), 0);
  EXPECT_NE(InitLogger((folder / "missing" / "log").c_str()), 0);
  EXPECT_NE(GetLogger(LOGGER_KIND_FILE, "no file", LOGLEVEL_DEBUG, &log), 0);
  EXPECT_EQ(log, nullptr);
}

}  // namespace
