#include <atomic>
#include <chrono>
#include <future>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/unit/local/local_fixture.h"

namespace tarn::local {
namespace {

using Strings = std::vector<std::string>;

TEST_F(LocalTest, ModuleNamesItsTypeAndTakesTextsBack) {
  char* list = nullptr;
  Export<decltype(GetSupportProtocol)>("GetSupportProtocol")(&list);
  ASSERT_NE(list, nullptr);
  EXPECT_STREQ(list, "local");
  Export<decltype(FreeP)>("FreeP")(list);
  EXPECT_NE(Export<decltype(GetProtocolVersion)>("GetProtocolVersion"), nullptr);
}

TEST_F(LocalTest, ConnectionIdIsAPathOrAFileUrl) {
  const std::filesystem::path odd = root / "ä 100%";
  std::filesystem::create_directory(odd);
  WriteFile(root / "file", "");
  const std::string url = "file://" + root.string() + "/%C3%a4%20100%25";
  for (const std::string& id : Strings{odd.string(), url, "file://localhost" + url.substr(7)}) {
    EXPECT_EQ(Connect(*Make(id)), SUCCESS) << id;
  }
  for (const std::string& id :
       Strings{"", "relative", root.string() + "/file", root.string() + "/none",
               "file://elsewhere" + root.string(), url + "%00", url + "%4", "http://localhost/"}) {
    std::string message;
    EXPECT_EQ(Connect(*Make(id), &message), PATH_NOT_FOUND) << id;
    EXPECT_NE(message, "") << id;
  }
}

TEST_F(LocalTest, FolderThatMayNotBeReadIsDenied) {
  const bool is_root = ::geteuid() == 0;
  std::filesystem::permissions(base, std::filesystem::perms(0755));
  std::filesystem::permissions(root, std::filesystem::perms(0));
  if (is_root) {
    ASSERT_EQ(::seteuid(65534), 0);
  }
  EXPECT_EQ(Connect(*Make(root.string())), ACCESS_DENIED);
  if (is_root) {
    ASSERT_EQ(::seteuid(0), 0);
  }
  std::filesystem::permissions(root, std::filesystem::perms(0755));
}

TEST_F(LocalTest, TreeIsMadeListedMovedAndRemoved) {
  EXPECT_EQ(protocol->CreateFolder("/a b"), SUCCESS);
  EXPECT_EQ(protocol->CreateFolder("/a b"), ALREADY_EXISTS);
  EXPECT_EQ(protocol->CreateFolder("/missing/x"), PATH_NOT_FOUND);
  EXPECT_EQ(Put("/a b/ü", "content"), SUCCESS);
  EXPECT_EQ(Put("/missing/x", "content"), PATH_NOT_FOUND);

  FS_INFO info{};
  EXPECT_EQ(protocol->GetInfo("/", &info), SUCCESS);
  EXPECT_EQ(info.is_folder, 1);
  const auto entries = List("/a b");
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries.at("ü").size, 7U);
  EXPECT_EQ(entries.at("ü").is_folder, 0);
  EXPECT_EQ(entries.at("ü").version, Version("/a b/ü"));

  EXPECT_EQ(protocol->DeleteFolder("/a b"), DIR_NOT_EMPTY);
  EXPECT_EQ(protocol->DeleteFile("/a b"), ACCESS_DENIED);
  EXPECT_EQ(protocol->DeleteFolder("/a b/ü"), INVALID_DIRECTORY);
  EXPECT_EQ(protocol->Move("/a b/ü", "/z"), SUCCESS);
  EXPECT_EQ(protocol->Move("/z", "/a b"), ALREADY_EXISTS);
  EXPECT_EQ(protocol->Move("/none", "/y"), FILE_NOT_FOUND);
  EXPECT_EQ(protocol->DeleteFolder("/a b"), SUCCESS);
  EXPECT_EQ(Names("/"), Strings{"z"});
  EXPECT_EQ(protocol->DeleteFile("/z"), SUCCESS);
  EXPECT_EQ(protocol->DeleteFile("/z"), FILE_NOT_FOUND);
  EXPECT_EQ(protocol->List("/none", nullptr, nullptr), PATH_NOT_FOUND);
  WriteFile(root / "file", "x");
  EXPECT_EQ(protocol->CreateFolder("/file/x"), PATH_NOT_FOUND);
  EXPECT_EQ(protocol->GetInfo("/file/x/y", &info), PATH_NOT_FOUND);
  EXPECT_EQ(protocol->List("/file", nullptr, nullptr), INVALID_DIRECTORY);
}

TEST_F(LocalTest, FoldersStayWhereTheyAreWhileMovingIsOff) {
  std::filesystem::create_directory(root / "folder");
  WriteFile(root / "file", "");
  (void)protocol->SetOption("allow_move", "false");
  EXPECT_EQ(protocol->Move("/folder", "/moved"), NOT_SUPPORTED);
  EXPECT_EQ(protocol->Move("/file", "/moved file"), SUCCESS);
  (void)protocol->SetOption("allow_move", "true");
  EXPECT_EQ(protocol->Move("/folder", "/moved"), SUCCESS);
}

TEST_F(LocalTest, TimeIsStoredAndShown) {
  WriteFile(root / "file", "x");
  const std::string before = Version("/file");
  const FS_TIME time{1234567890, 987654321};
  EXPECT_EQ(protocol->SetModifiedTime("/file", &time), SUCCESS);
  FS_INFO info{};
  ASSERT_EQ(protocol->GetInfo("/file", &info), SUCCESS);
  EXPECT_EQ(info.modified.seconds, time.seconds);
  EXPECT_EQ(info.modified.nanoseconds, time.nanoseconds);
  EXPECT_NE(before, info.version);
  EXPECT_EQ(protocol->SetModifiedTime("/none", &time), FILE_NOT_FOUND);
}

TEST_F(LocalTest, DeletedFolderIsNotAnEmptyDrive) {
  std::filesystem::remove(root);
  EXPECT_EQ(protocol->List("/", nullptr, nullptr), DEVICE_NOT_READY);
  EXPECT_EQ(protocol->Disconnect(), SUCCESS);
  FS_INFO info{};
  EXPECT_EQ(protocol->GetInfo("/", &info), DEVICE_NOT_READY);
}

TEST_F(LocalTest, IdentityIsTheSameHoweverTheFolderIsNamed) {
  std::filesystem::create_symlink(root, base / "alias");
  const Protocol other = Make("file://" + (base / "alias").string());
  ASSERT_EQ(Connect(*other), SUCCESS);
  char first[512];
  char second[512];
  int first_length = sizeof first;
  int second_length = sizeof second;
  ASSERT_EQ(protocol->GetIdentity(first, &first_length), SUCCESS);
  ASSERT_EQ(other->GetIdentity(second, &second_length), SUCCESS);
  EXPECT_STREQ(first, second);
  EXPECT_EQ(static_cast<size_t>(first_length), std::strlen(first));
  EXPECT_EQ(protocol->GetIdentity(first, &first_length), INSUFFICIENT_BUFFER);
}

// A quota callback that waits until it may answer.
struct Quota {
  static bool Ask(void* context, void* /*reserved*/, long long* total, long long* free) {
    auto* quota = static_cast<Quota*>(context);
    quota->asked = true;
    quota->may_answer.get_future().wait();
    *total = 1000;
    *free = 400;
    return true;
  }
  std::atomic<bool> asked{false};
  std::promise<void> may_answer;
};

TEST_F(LocalTest, SizeIsTheOneSetElseTheQuotaElseTheFileSystems) {
  Quota quota;
  protocol->SetQuotaCallback(&quota, &Quota::Ask);
  ASSERT_EQ(Connect(*protocol), SUCCESS);
  unsigned long long total = 0;
  unsigned long long free = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!quota.asked && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  ASSERT_TRUE(quota.asked);
  ASSERT_EQ(protocol->GetSize(&total, &free), SUCCESS);  // the question is still open
  EXPECT_EQ(total, std::filesystem::space(root).capacity);

  quota.may_answer.set_value();
  do {
    ASSERT_EQ(protocol->GetSize(&total, &free), SUCCESS);
  } while (total != 1000 && std::chrono::steady_clock::now() < deadline);
  EXPECT_EQ(total, 1000U);
  EXPECT_EQ(free, 400U);

  (void)protocol->SetSize(5000, 2000);
  ASSERT_EQ(protocol->GetSize(&total, &free), SUCCESS);
  EXPECT_EQ(total, 5000U);
  EXPECT_EQ(free, 3000U);
}

}  // namespace
}  // namespace tarn::local
