#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>

#include "tests/unit/local/local_fixture.h"

namespace tarn::local {
namespace {

// root/ beside outside/, which holds a file "secret".
class ContainmentTest : public LocalTest {
 protected:
  const fs::path outside = fs::path(files.Write("outside/secret", "secret")).parent_path();
};

TEST_F(ContainmentTest, LinksAreShownAsWhatTheyPointToOnlyInside) {
  files.Write("root/deep/er/file", "inside");
  fs::create_symlink("deep/er/file", root / "relative");
  fs::create_symlink(root / "deep", root / "absolute");
  fs::create_symlink("../root/deep/er", root / "out and in");
  fs::create_symlink("none", root / "dangling");
  fs::create_symlink("../outside", root / "out");
  fs::create_symlink(outside / "secret", root / "file out");
  fs::create_symlink("../../..", root / "deep/er/up");
  fs::create_symlink("..", root / "deep/er/cycle");
  fs::create_symlink("self", root / "self");

  EXPECT_EQ(Names("/"), (Strings{"absolute", "deep", "out and in", "relative"}));
  EXPECT_EQ(Names("/absolute/er"), Strings{"file"});
  EXPECT_EQ(List("/").at("relative").size, 6U);
  std::string content;
  EXPECT_EQ(Get("/out and in/file", content), SUCCESS);
  EXPECT_EQ(content, "inside");
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
  std::atomic<bool> ended{false};
  std::thread swapper([&] {
    while (!ended) {
      fs::rename(root / "folder", root / "aside");
      fs::rename(root / "link", root / "folder");
      fs::rename(root / "folder", root / "link");
      fs::rename(root / "aside", root / "folder");
    }
  });
  int found = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (std::chrono::steady_clock::now() < end) {
    std::string content;
    if (Get("/folder/secret", content) == SUCCESS) {
      ++found;
      EXPECT_EQ(content, "inside");
    }
  }
  ended = true;
  swapper.join();
  EXPECT_GT(found, 0);
}

TEST_F(ContainmentTest, ChangesThroughLinksMeetTheirTargets) {
  files.Write("root/folder/file", "old");
  fs::create_symlink("folder", root / "folder link");
  fs::create_symlink("folder/file", root / "file link");
  EXPECT_EQ(Put("/file link", "new"), SUCCESS);
  EXPECT_EQ(files.Read("root/folder/file"), "new");
  EXPECT_TRUE(fs::is_symlink(root / "file link"));
  EXPECT_EQ(protocol->Move("/file link", "/folder/elsewhere"), NOT_SUPPORTED);
  EXPECT_EQ(protocol->Move("/file link", "/renamed link"), SUCCESS);
  EXPECT_EQ(protocol->DeleteFile("/renamed link"), SUCCESS);
  EXPECT_EQ(protocol->DeleteFolder("/folder link"), DIR_NOT_EMPTY);
  EXPECT_EQ(protocol->DeleteFile("/folder link/file"), SUCCESS);
  EXPECT_EQ(protocol->DeleteFolder("/folder link"), SUCCESS);
  EXPECT_EQ(Names("/"), Strings{"folder"});
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
    EXPECT_EQ(protocol->List("/folder/drive", nullptr, nullptr), PATH_NOT_FOUND) << mount_point;
    EXPECT_EQ(protocol->List("/link/drive/inside", nullptr, nullptr), PATH_NOT_FOUND)
        << mount_point;
    EXPECT_EQ(Put("/folder/drive", "x"), ACCESS_DENIED) << mount_point;
  }
}

TEST_F(ContainmentTest, SpecialFilesAndOddNamesAreNotThere) {
  ASSERT_EQ(::mkfifo((root / "fifo").c_str(), 0600), 0);
  fs::create_symlink("fifo", root / "link to fifo");
  files.Write("root/not UTF-8 \xC3", "");
  EXPECT_EQ(Names("/"), Strings{});
  std::string content;
  EXPECT_EQ(Get("/fifo", content), FILE_NOT_FOUND);  // and does not wait for a writer
  EXPECT_EQ(Put("/fifo", "x"), ACCESS_DENIED);
  files.Write("root/file", "x");
  EXPECT_EQ(protocol->Move("/file", "/fifo"), ACCESS_DENIED);
  EXPECT_EQ(protocol->Move("/fifo", "/moved"), FILE_NOT_FOUND);
  EXPECT_EQ(protocol->DeleteFile("/fifo"), FILE_NOT_FOUND);
  EXPECT_TRUE(fs::is_fifo(root / "fifo"));
  for (const char* name : {"/\xC3", "/\xED\xA0\x80", "/\xC0\xAF", "/\xF4\x90\x80\x80"}) {
    EXPECT_EQ(Put(name, "x"), INVALID_NAME) << name;
  }
}

}  // namespace
}  // namespace tarn::local
