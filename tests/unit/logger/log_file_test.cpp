#include "platform/logger/log_file.h"

#include <atomic>
#include <map>
#include <sys/stat.h>
#include <thread>

#include "common/log.h"
#include "interfaces/logger.h"
#include "tests/unit/logger/log_folder.h"

namespace tarn {
namespace {

constexpr int kWriters = 6;
constexpr int kChildren = 40;
constexpr off_t kOneRotationBytes = 200L * 1024;  // for kWriters times 500 lines
constexpr off_t kSmallBytes = 4096;

class LogFileTest : public LogFolderTest {
 protected:
  // Lets kWriters processes write numbered lines of about 100 bytes at once.
  void WriteFromManyProcesses(int lines, off_t limit_bytes) {
    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
      writers.push_back(Fork([&] {
        LogFile file(log_path, limit_bytes);
        const bool opened = file.Open();
        for (int line = 0; opened && line < lines; ++line) {
          file.Append("writer " + std::to_string(writer) + " line " + std::to_string(line) + " " +
                      std::string(80, static_cast<char>('a' + writer)) + "|\n");
        }
        return opened ? 0 : 1;
      }));
    }
    for (const pid_t writer : writers) {
      EXPECT_EQ(StatusOf(writer), 0);
    }
  }

  // How often each (writer, line) stands in the two files; fails for a line that is not whole.
  std::map<std::pair<int, int>, int> Found() {
    std::map<std::pair<int, int>, int> found;
    for (const auto& path : {log_path.string() + ".1", log_path.string()}) {
      for (const std::string& line : Lines(path)) {
        int writer = -1;
        int number = -1;
        std::sscanf(line.c_str(), "writer %d line %d", &writer, &number);
        EXPECT_EQ(line, "writer " + std::to_string(writer) + " line " + std::to_string(number) +
                            " " + std::string(80, static_cast<char>('a' + writer)) + "|");
        ++found[{writer, number}];
      }
    }
    return found;
  }
};

TEST_F(LogFileTest, RotationAmongProcessesLosesAndTearsNoLine) {
  WriteFromManyProcesses(500, kOneRotationBytes);
  EXPECT_TRUE(std::filesystem::exists(log_path.string() + ".1"));
  const auto found = Found();
  EXPECT_EQ(found.size(), static_cast<size_t>(kWriters) * 500);
  for (const auto& [line, times] : found) {
    EXPECT_EQ(times, 1) << line.first << " " << line.second;
  }
}

TEST_F(LogFileTest, SizeStaysBoundedOverManyRotations) {
  WriteFromManyProcesses(2000, kSmallBytes);
  (void)Found();  // every line is still whole
  LogFile file(log_path, kSmallBytes);
  ASSERT_TRUE(file.Open());
  for (int i = 0; i < 200; ++i) {
    file.Append(std::string(99, 'x') + "\n");
    EXPECT_LE(std::filesystem::file_size(log_path), kSmallBytes);
  }
  EXPECT_EQ(std::filesystem::file_size(log_path.string() + ".1"), kSmallBytes / 100 * 100);
}

TEST_F(LogFileTest, FileIsForItsOwnerAloneAndFollowedWhenReplaced) {
  std::ofstream(log_path) << "old\n";
  std::filesystem::permissions(log_path, std::filesystem::perms(0644));
  LogFile file(log_path);
  ASSERT_TRUE(file.Open());
  EXPECT_EQ(std::filesystem::status(log_path).permissions(), std::filesystem::perms(0600));
  std::filesystem::remove(log_path);
  file.Append("new\n");
  EXPECT_EQ(Lines(log_path), std::vector<std::string>{"new"});
  EXPECT_EQ(std::filesystem::status(log_path).permissions(), std::filesystem::perms(0600));
}

TEST_F(LogFileTest, WithoutAPlaceForOlderLinesTheFileStartsAnew) {
  std::filesystem::create_directories(log_path.string() + ".1/in the way");
  LogFile file(log_path, 100);
  ASSERT_TRUE(file.Open());
  for (int i = 0; i < 20; ++i) {
    file.Append("0123456789012345678\n");
  }
  EXPECT_LE(std::filesystem::file_size(log_path), 100U);
}

TEST_F(LogFileTest, WhatIsNoPlainFileIsRefused) {
  ASSERT_EQ(::mkfifo(log_path.c_str(), 0600), 0);
  EXPECT_FALSE(LogFile(log_path).Open());
  EXPECT_FALSE(LogFile(folder / "missing" / "log").Open());
}

TEST_F(LogFileTest, ForkedChildOfALoggingProcessCanLog) {
  ILog* log = nullptr;
  ASSERT_EQ(InitLogger(log_path.c_str()), 0);
  ASSERT_EQ(GetLogger(LOGGER_KIND_FILE, "forking", LOGLEVEL_DEBUG | LOGLEVEL_ALL, &log), 0);
  std::atomic<bool> done = false;
  std::thread busy([&] {
    while (!done) {
      __LOG__A(log, LOGLEVEL_DEBUG, "busy");
    }
  });
  for (int i = 0; i < kChildren; ++i) {
    EXPECT_EQ(StatusOf(Fork([&] {
                __LOG__A(log, LOGLEVEL_ERROR, "child %d", i);
                return 0;
              })),
              0);
  }
  done = true;
  busy.join();
  int found = 0;
  for (const std::string& line : Lines(log_path)) {
    found += line.find("] child ") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(found, kChildren);
  EXPECT_EQ(ReleaseLogger("forking"), 0);
}

}  // namespace
}  // namespace tarn
