#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

#include "common/posix.h"
#include "tests/unit/local/local_fixture.h"

namespace tarn::local {
namespace {

using Clock = std::chrono::steady_clock;

bool IsOpen(const fs::path& file) {
  std::error_code gone;  // descriptors come and go meanwhile
  for (const auto& descriptor : fs::directory_iterator("/proc/self/fd", gone)) {
    if (fs::read_symlink(descriptor, gone) == file) {
      return true;
    }
  }
  return false;
}

TEST_F(LocalTest, UploadReplacesAsAWholeAndTellsItsProgressOrNotAtAll) {
  files.Write("root/file", "old");
  fs::permissions(root / "file", fs::perms(0640));
  const std::string old_version = Version("/file");

  TextSource broken(std::string(600000, 'x'));
  broken.fail_at = 262144;
  EXPECT_EQ(protocol->Upload("/file", &broken.source, 600000, nullptr, nullptr), FILE_READ_FAILED);
  TextSource shorter("abc");
  EXPECT_EQ(protocol->Upload("/file", &shorter.source, 4, nullptr, nullptr), FILE_READ_FAILED);
  EXPECT_EQ(files.Read("root/file"), "old");
  EXPECT_EQ(Version("/file"), old_version);
  EXPECT_EQ(CountFiles(root), 1U);

  TextSource whole(Pattern(600000));
  const FS_TIME time{1000000000, 5};
  whole.source.modified = &time;
  std::vector<long long> steps;
  const auto note = [](long long total, long long sent, void* context, double speed) {
    EXPECT_EQ(total, 600000);
    EXPECT_GE(speed, 0.0);
    static_cast<std::vector<long long>*>(context)->push_back(sent);
  };
  EXPECT_EQ(protocol->Upload("/file", &whole.source, 600000, note, &steps), SUCCESS);
  ASSERT_FALSE(steps.empty());
  EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end()));
  EXPECT_EQ(steps.back(), 600000);
  EXPECT_EQ(files.Read("root/file"), whole.content);
  EXPECT_EQ(whole.source.version, Version("/file"));
  EXPECT_NE(whole.source.version, old_version);
  EXPECT_EQ(List("/").at("file").modified.seconds, time.seconds);
  EXPECT_EQ(fs::status(root / "file").permissions(), fs::perms(0640));
  EXPECT_EQ(CountFiles(root), 1U);
}

TEST_F(LocalTest, AVersionIsReadOrNothing) {
  files.Write("root/file", "abc");
  const std::string version = Version("/file");
  const auto old_time = fs::last_write_time(root / "file");
  std::string content;
  EXPECT_EQ(Get("/file", content, version.c_str()), SUCCESS);
  EXPECT_EQ(content, "abc");
  const auto rewrite_with_old_time = [&] {
    files.Write("root/file", "xyz");
    fs::last_write_time(root / "file", old_time);
    return Version("/file") != version;
  };
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(20);
  while (!rewrite_with_old_time() && Clock::now() < deadline) {  // within one tick of the clock
  }
  EXPECT_EQ(Get("/file", content, version.c_str()), SHARING_VIOLATION);
  EXPECT_EQ(content, "");
  EXPECT_EQ(Get("/gone", content, version.c_str()), FILE_NOT_FOUND);

  // Written to while it is being read.
  files.Write("root/file", std::string(1 << 20, 'x'));
  (void)protocol->SetOption("speedlimit", "2000000");
  const std::string before = Version("/file");
  std::thread reading([&] {
    std::string bytes;
    EXPECT_EQ(Get("/file", bytes, before.c_str()), SHARING_VIOLATION);
    EXPECT_EQ(bytes, "");
  });
  while (!IsOpen(root / "file") && Clock::now() < deadline) {
    std::this_thread::yield();
  }
  files.Write("root/file", std::string(1 << 20, 'y'));
  reading.join();
}

TEST_F(LocalTest, UploadReplacesOnlyTheVersionItNames) {
  std::string first;
  EXPECT_EQ(Put("/file", "1", "", &first), SUCCESS);
  EXPECT_EQ(Put("/file", "2", ""), SHARING_VIOLATION);
  EXPECT_EQ(Put("/file", "2", "another"), SHARING_VIOLATION);
  EXPECT_EQ(Put("/none", "2", first.c_str()), SHARING_VIOLATION);
  // A new name or new rights are no new content.
  ASSERT_EQ(protocol->Move("/file", "/renamed"), SUCCESS);
  fs::permissions(root / "renamed", fs::perms(0600));
  EXPECT_EQ(Put("/renamed", "22", first.c_str()), SUCCESS);
  EXPECT_EQ(Put("/renamed", "3", first.c_str()), SHARING_VIOLATION);
  EXPECT_EQ(files.Read("root/renamed"), "22");
  EXPECT_EQ(CountFiles(root), 1U);
}

TEST_F(LocalTest, OfUploadsThatReplaceTheSameVersionOneWins) {
  for (const bool is_new : {true, false}) {
    const std::string version = is_new ? "" : Version("/file");
    std::atomic<int> stored{0};
    std::vector<std::thread> uploads;
    for (int i = 0; i < 4; ++i) {
      uploads.emplace_back([&, i] {
        const AERROR error = Put("/file", std::to_string(i), version.c_str());
        EXPECT_TRUE(error == SUCCESS || error == SHARING_VIOLATION) << error;
        stored += error == SUCCESS ? 1 : 0;
      });
    }
    for (std::thread& upload : uploads) {
      upload.join();
    }
    EXPECT_EQ(stored, 1);
  }
  EXPECT_EQ(CountFiles(root), 1U);
}

TEST_F(LocalTest, WorkFilesAreHiddenAndGoOnceNobodyWritesThem) {
  files.Write("root/.tarn-upload-1-1", "left behind");
  const std::string busy = files.Write("root/.tarn-upload-1-2", "under way");
  UniqueFd writer = OpenFile(busy, O_RDWR);
  ASSERT_EQ(::flock(writer.get(), LOCK_EX), 0);
  EXPECT_TRUE(Names("/").empty());
  EXPECT_EQ(CountFiles(root), 1U);
  EXPECT_TRUE(fs::exists(busy));
  writer.reset();
  EXPECT_EQ(Put("/.tarn-upload-1-2", "x"), INVALID_NAME);

  files.Write("root/folder/.tarn-upload-1-1", "left behind");
  EXPECT_EQ(protocol->DeleteFolder("/folder"), SUCCESS);
}

TEST_F(LocalTest, SpeedLimitIsSharedByAllTransfers) {
  files.Write("root/file", std::string(60000, 'x'));
  (void)protocol->SetOption("speedlimit", "200000");
  const Clock::time_point start = Clock::now();
  std::thread reading([&] {
    std::string content;
    EXPECT_EQ(Get("/file", content), SUCCESS);
    EXPECT_EQ(content.size(), 60000U);
  });
  EXPECT_EQ(Put("/copy", std::string(60000, 'y')), SUCCESS);
  reading.join();
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(550));  // 120,000 bytes in all
}

TEST_F(LocalTest, RunningTransfersEndOnCancelAndDisconnect) {
  files.Write("root/file", std::string(1 << 20, 'x'));
  (void)protocol->SetOption("speedlimit", "1000");
  for (const bool disconnects : {false, true}) {
    std::atomic<bool> begun{false};
    const auto note = [](long long, long long, void* context, double) {
      *static_cast<std::atomic<bool>*>(context) = true;
    };
    std::thread uploading([&] {
      TextSource text(std::string(1 << 20, 'x'));
      EXPECT_EQ(protocol->Upload("/copy", &text.source, 1 << 20, note, &begun), UPLOAD_CANCELED);
    });
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(20);
    while (!begun && Clock::now() < deadline) {
      std::this_thread::yield();
    }
    EXPECT_TRUE(begun);
    EXPECT_EQ(disconnects ? protocol->Disconnect() : protocol->Cancel(), SUCCESS);
    uploading.join();
    EXPECT_LT(Clock::now(), deadline);
    EXPECT_EQ(CountFiles(root), 1U);
  }
}

}  // namespace
}  // namespace tarn::local
