#include "tests/unit/local/local_fixture.h"

namespace tarn::local {
namespace {

TEST_F(LocalTest, ConnectionIdIsAPathOrAFileUrlAndTheIdentityIsOfTheFolder) {
  fs::create_directory(root / "ä 100%");
  fs::create_symlink(root / "ä 100%", root / "alias");
  files.Write("root/file", "");
  const std::string url = "file://" + root.string() + "/%C3%a4%20100%25";
  std::string identity;
  for (const std::string& id : Strings{root / "ä 100%", url, "file://localhost" + url.substr(7),
                                       "file://" + root.string() + "/alias"}) {
    protocol = Make(id);
    EXPECT_EQ(Connect(*protocol), SUCCESS) << id;
    identity = identity.empty() ? TextOf(&IProtocol_V2::GetIdentity) : identity;
    EXPECT_EQ(TextOf(&IProtocol_V2::GetIdentity), identity) << id;
  }
  for (const std::string& id :
       Strings{"", "relative", root / "file", root / "none", "file://elsewhere" + root.string(),
               url + "%00", url + "%4", "http://localhost/"}) {
    EXPECT_EQ(Connect(*Make(id)), PATH_NOT_FOUND) << id;
    EXPECT_NE(message, "") << id;
  }
}

TEST_F(LocalTest, TreeIsMadeListedMovedAndRemoved) {
  EXPECT_EQ(protocol->CreateFolder("/a b"), SUCCESS);
  EXPECT_EQ(Put("/a b/ü", "content"), SUCCESS);
  const FS_TIME time{1234567890, 987654321};
  const std::string before = Version("/a b/ü");
  EXPECT_EQ(protocol->SetModifiedTime("/a b/ü", &time), SUCCESS);
  const auto entries = List("/a b");
  ASSERT_EQ(entries.size(), 1U);
  const FS_INFO& entry = entries.at("ü");
  EXPECT_EQ(entry.size, 7U);
  EXPECT_EQ(entry.is_folder, 0);
  EXPECT_EQ(entry.modified.seconds, time.seconds);
  EXPECT_EQ(entry.modified.nanoseconds, time.nanoseconds);
  EXPECT_EQ(entry.version, Version("/a b/ü"));
  EXPECT_NE(entry.version, before);
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
  const FS_TIME time{1, 0};
  files.Write("root/file", "x");
  EXPECT_EQ(protocol->GetInfo("/none", &info), FILE_NOT_FOUND);
  EXPECT_EQ(protocol->Move("/none", "/y"), FILE_NOT_FOUND);
  EXPECT_EQ(protocol->DeleteFile("/none"), FILE_NOT_FOUND);
  EXPECT_EQ(protocol->SetModifiedTime("/none", &time), FILE_NOT_FOUND);
  EXPECT_EQ(protocol->List("/none", nullptr, nullptr), PATH_NOT_FOUND);
  EXPECT_EQ(protocol->List("/file", nullptr, nullptr), INVALID_DIRECTORY);
  EXPECT_EQ(protocol->GetInfo("/file/x/y", &info), PATH_NOT_FOUND);
  for (const char* path : {"/none/x", "/file/x"}) {
    EXPECT_EQ(protocol->CreateFolder(path), PATH_NOT_FOUND) << path;
    EXPECT_EQ(Put(path, "content"), PATH_NOT_FOUND) << path;
  }
  fs::remove_all(root);  // is not an empty drive
  EXPECT_EQ(protocol->List("/", nullptr, nullptr), DEVICE_NOT_READY);
  EXPECT_EQ(protocol->Disconnect(), SUCCESS);
  EXPECT_EQ(protocol->GetInfo("/", &info), DEVICE_NOT_READY);
}

}  // namespace
}  // namespace tarn::local
