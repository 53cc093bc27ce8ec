#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

#include "common/posix.h"
#include "tests/support/module_test.h"
#include "tests/support/service/wait.h"
#include "tests/support/temp_folder.h"

namespace tarn::test {
namespace {

using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;
namespace fs = std::filesystem;

// A connected protocol object, from the module's file, for root/ in a folder of the test's own.
// Files are named from that folder.
class LocalTest : public ModuleTest {
 protected:
  LocalTest() : ModuleTest(LOCAL_MODULE) { fs::create_directory(root); }
  void SetUp() override {
    protocol = Make(root.string());
    ASSERT_EQ(Connect(*protocol), SUCCESS);
  }

  // Names in the folder itself, hidden ones too.
  static size_t CountFiles(const fs::path& folder) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(folder), {}));
  }

  const TempFolder files;
  const fs::path root = files.path() / "root";
};

TEST_F(LocalTest, ConnectionIdIsAPathOrAFileUrlAndTheIdentityIsOfTheFolder) {
  fs::create_directory(root / "ä 100%");
  fs::create_symlink(root / "ä 100%", root / "alias");
  files.Write("root/file", "");
  const std::string url = "file://" + root.string() + "/%C3%a4%20100%25";
  std::string identity;
  for (const std::string& id : Strings{root / "ä 100%", url, root / "alias"}) {
    protocol = Make(id);
    EXPECT_EQ(Connect(*protocol), SUCCESS) << id;
    identity = identity.empty() ? TextOf(&IProtocol_V2::GetIdentity) : identity;
    EXPECT_EQ(TextOf(&IProtocol_V2::GetIdentity), identity) << id;
  }
  for (const std::string& id : Strings{"", "relative", root / "file", root / "none",
                                       "file://elsewhere" + root.string(), url + "%00"}) {
    EXPECT_EQ(Connect(*Make(id)), PATH_NOT_FOUND) << id;
    EXPECT_NE(message, "") << id;
  }
}

TEST_F(LocalTest, TreeIsMadeListedMovedAndRemoved) {
  EXPECT_EQ(protocol->CreateFolder("/a b"), SUCCESS);
  EXPECT_EQ(Put("/a b/ü", "content"), SUCCESS);
  const FS_TIME time{1234567890, 987654321};
  EXPECT_EQ(protocol->SetModifiedTime("/a b/ü", &time), SUCCESS);
  const auto entries = List("/a b");
  ASSERT_EQ(entries.size(), 1U);
  const FS_INFO& entry = entries.at("ü");
  EXPECT_EQ(entry.size, 7U);
  EXPECT_EQ(entry.modified.nanoseconds, time.nanoseconds);
  EXPECT_EQ(entry.version, Version("/a b/ü"));
  EXPECT_EQ(List("/").at("a b").is_folder, 1);

  EXPECT_EQ(protocol->CreateFolder("/a b"), ALREADY_EXISTS);
  EXPECT_EQ(protocol->DeleteFolder("/a b"), DIR_NOT_EMPTY);
  EXPECT_EQ(protocol->DeleteFile("/a b"), ACCESS_DENIED);
  EXPECT_EQ(protocol->DeleteFolder("/a b/ü"), INVALID_DIRECTORY);
  EXPECT_EQ(protocol->Move("/a b/ü", "/z"), SUCCESS);
  EXPECT_EQ(protocol->Move("/z", "/a b"), ALREADY_EXISTS);
  EXPECT_EQ(protocol->DeleteFolder("/a b"), SUCCESS);
  EXPECT_EQ(Names("/"), Strings{"z"});
  EXPECT_EQ(protocol->DeleteFile("/z"), SUCCESS);
  EXPECT_EQ(CountFiles(root), 0U);
}

TEST_F(LocalTest, WhatIsMissingIsToldFromItsFolderAndFromTheDrive) {
  FS_INFO info{};
  files.Write("root/file", "x");
  EXPECT_EQ(protocol->GetInfo("/none", &info), FILE_NOT_FOUND);
  EXPECT_EQ(protocol->Move("/none", "/y"), FILE_NOT_FOUND);
  EXPECT_EQ(protocol->List("/none", nullptr, nullptr), PATH_NOT_FOUND);
  EXPECT_EQ(protocol->List("/file", nullptr, nullptr), INVALID_DIRECTORY);
  EXPECT_EQ(protocol->CreateFolder("/none/x"), PATH_NOT_FOUND);
  EXPECT_EQ(Put("/file/x", "content"), PATH_NOT_FOUND);
  fs::remove_all(root);  // is not an empty drive
  EXPECT_EQ(protocol->List("/", nullptr, nullptr), DEVICE_NOT_READY);
}

bool IsOpen(const fs::path& file) {
  std::error_code gone;  // descriptors come and go meanwhile
  const fs::directory_iterator descriptors("/proc/self/fd", gone);
  return std::any_of(begin(descriptors), end(descriptors),
                     [&](const auto& fd) { return fs::read_symlink(fd, gone) == file; });
}

TEST_F(LocalTest, UploadReplacesAsAWholeOrNotAtAll) {
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
  EXPECT_EQ(protocol->Upload("/file", &whole.source, 600000, nullptr, nullptr), SUCCESS);
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
  EXPECT_TRUE(WaitUntil(rewrite_with_old_time));  // unless within one tick of the clock
  EXPECT_EQ(Get("/file", content, version.c_str()), SHARING_VIOLATION);
  EXPECT_EQ(content, "");

  // Written to while it is being read.
  files.Write("root/file", std::string(1 << 20, 'x'));
  (void)protocol->SetOption("speedlimit", "2000000");
  const std::string before = Version("/file");
  std::thread reading([&] {
    std::string bytes;
    EXPECT_EQ(Get("/file", bytes, before.c_str()), SHARING_VIOLATION);
    EXPECT_EQ(bytes, "");
  });
  EXPECT_TRUE(WaitUntil([&] { return IsOpen(root / "file"); }));
  files.Write("root/file", std::string(1 << 20, 'y'));
  reading.join();
}

TEST_F(LocalTest, UploadReplacesOnlyTheVersionItNamesAndOneOfSeveralAtOnceWins) {
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

  for (const std::string& version : {std::string(), Version("/renamed")}) {
    std::atomic<int> stored{0};
    std::vector<std::jthread> uploads(4);
    for (std::jthread& upload : uploads) {
      upload = std::jthread([&] {
        const AERROR error = Put(version.empty() ? "/new" : "/renamed", "xx", version.c_str());
        EXPECT_TRUE(error == SUCCESS || error == SHARING_VIOLATION) << error;
        stored += error == SUCCESS ? 1 : 0;
      });
    }
    uploads.clear();
    EXPECT_EQ(stored, 1);
  }
  EXPECT_EQ(CountFiles(root), 2U);
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

TEST_F(LocalTest, RunningTransfersEndOnCancelAndDisconnect) {
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
    EXPECT_TRUE(WaitUntil([&] { return begun.load(); }));
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(disconnects ? protocol->Disconnect() : protocol->Cancel(), SUCCESS);
    uploading.join();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(CountFiles(root), 0U);
  }
}

// root/ beside outside/, which holds a file "secret".
class ContainmentTest : public LocalTest {
 protected:
  const fs::path outside = fs::path(files.Write("outside/secret", "secret")).parent_path();
};

TEST_F(ContainmentTest, LinksAreWhatTheyPointToButOnlyInside) {
  files.Write("root/deep/er/file", "inside");
  fs::create_symlink("deep/er/file", root / "relative");
  fs::create_symlink(root / "deep", root / "absolute");
  fs::create_symlink("../root/deep/er", root / "out and in");
  fs::create_symlink("none", root / "dangling");
  fs::create_symlink("../outside", root / "out");
  fs::create_symlink("../../..", root / "deep/er/up");
  fs::create_symlink("..", root / "deep/er/cycle");
  fs::create_symlink("self", root / "self");

  EXPECT_EQ(Names("/"), (Strings{"absolute", "deep", "out and in", "relative"}));
  EXPECT_EQ(Names("/absolute/er"), Strings{"file"});
  EXPECT_EQ(List("/").at("relative").size, 6U);
  std::string content;
  EXPECT_EQ(Get("/out and in/file", content), SUCCESS);
  EXPECT_EQ(content, "inside");

  EXPECT_EQ(Put("/relative", "new"), SUCCESS);
  EXPECT_EQ(protocol->DeleteFile("/relative"), SUCCESS);
  EXPECT_EQ(protocol->DeleteFolder("/absolute"), DIR_NOT_EMPTY);
  EXPECT_EQ(files.Read("root/deep/er/file"), "new");
}

TEST_F(ContainmentTest, NoOperationLeavesTheFolder) {
  fs::create_symlink("../outside", root / "out");
  fs::create_symlink("../outside/new", root / "new out");
  files.Write("root/mine", "mine");
  const FS_TIME time{1, 0};
  std::string content;
  for (const char* path : {"/out/secret", "/../outside/secret", "/out/../out/secret", "secret",
                           "/./out/secret", "/mine/../../outside/secret"}) {
    EXPECT_NE(Get(path, content), SUCCESS) << path;
    EXPECT_NE(Put(path, "changed"), SUCCESS) << path;
    EXPECT_NE(protocol->DeleteFile(path), SUCCESS) << path;
    EXPECT_NE(protocol->Move(path, "/stolen"), SUCCESS) << path;
    EXPECT_NE(protocol->Move("/mine", path), SUCCESS) << path;
    EXPECT_NE(protocol->SetModifiedTime(path, &time), SUCCESS) << path;
  }
  EXPECT_NE(protocol->CreateFolder("/out/folder"), SUCCESS);
  EXPECT_NE(protocol->CreateFolder("/../folder"), SUCCESS);
  EXPECT_NE(protocol->DeleteFolder("/out"), SUCCESS);
  EXPECT_EQ(Put("/new out", "changed"), ACCESS_DENIED);
  EXPECT_EQ(CountFiles(outside), 1U);
  EXPECT_EQ(files.Read("outside/secret"), "secret");
  EXPECT_EQ(files.Read("root/mine"), "mine");
}

// While one thread puts a link to the outside in the place of a folder and back, nothing from
// outside may be read, however the two meet.
TEST_F(ContainmentTest, FolderSwappedForALinkGivesNothingAway) {
  files.Write("root/folder/secret", "inside");
  fs::create_symlink(outside, root / "link");
  std::jthread swapper([&](const std::stop_token& ended) {
    while (!ended.stop_requested()) {
      fs::rename(root / "folder", root / "aside");
      fs::rename(root / "link", root / "folder");
      fs::rename(root / "folder", root / "link");
      fs::rename(root / "aside", root / "folder");
    }
  });
  int found = 0;
  std::string content;
  for (const auto end = Clock::now() + std::chrono::seconds(1); Clock::now() < end;) {
    if (Get("/folder/secret", content) == SUCCESS) {
      ++found;
      EXPECT_EQ(content, "inside");
    }
  }
  EXPECT_GT(found, 0);
}

// A drive that shows itself would be asked for its own files, without end.
TEST_F(ContainmentTest, DriveDoesNotShowItself) {
  fs::create_directories(root / "folder/drive/inside");
  fs::create_symlink("folder", root / "link");
  for (const char* mount_point : {"folder/drive", "link/drive", "link/../folder/drive"}) {
    protocol = Make(root.string());
    (void)protocol->SetOption(
        "ex_info", (R"({"data":{"drive":")" + (root / mount_point).string() + R"("}})").c_str());
    ASSERT_EQ(Connect(*protocol), SUCCESS);
    EXPECT_EQ(Names("/folder"), Strings{}) << mount_point;
    EXPECT_EQ(Names("/link"), Strings{}) << mount_point;
    EXPECT_EQ(protocol->List("/link/drive/inside", nullptr, nullptr), PATH_NOT_FOUND);
    EXPECT_EQ(Put("/folder/drive", "x"), ACCESS_DENIED) << mount_point;
  }
}

TEST_F(ContainmentTest, SpecialFilesAndOddNamesAreNotThere) {
  ASSERT_EQ(::mkfifo((root / "fifo").c_str(), 0600), 0);
  files.Write("root/not UTF-8 \xC3", "");
  EXPECT_EQ(Names("/"), Strings{});
  std::string content;
  EXPECT_EQ(Get("/fifo", content), FILE_NOT_FOUND);  // and does not wait for a writer
  EXPECT_EQ(Put("/fifo", "x"), ACCESS_DENIED);
  EXPECT_EQ(protocol->DeleteFile("/fifo"), FILE_NOT_FOUND);
  EXPECT_TRUE(fs::is_fifo(root / "fifo"));
  EXPECT_EQ(Put("/\xC0\xAF", "x"), INVALID_NAME);
}

}  // namespace
}  // namespace tarn::test
