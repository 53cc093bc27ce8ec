#include "tarnctl/mount_message.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"

namespace tarn {
namespace {

std::string TextAt(const Json& message, const char* path) {
  return message.HasObject(path) ? std::string(message.GetObject(path)) : "(none)";
}

TEST(MountMessageTest, PathsBecomeAbsoluteAndSettingsKeepTheirTypes) {
  const test::TempFolder folder;
  const std::string secret = folder.Write("secret", "pass=:@word\r\n");
  const std::string here = std::filesystem::current_path().string();
  std::string problem;
  const std::vector<std::string> settings = {"user=a=b", "port:=8080", "verify:=false",
                                             "pin=1",    "mail=a:@b",  "password:@" + secret};
  const auto message = MountMessage({"local", "stuff/", "./a/../drive/", "", settings}, problem);
  ASSERT_TRUE(message) << problem;
  EXPECT_EQ(TextAt(*message, "/cmd"), "connect");
  EXPECT_EQ(TextAt(*message, "/data/url"), here + "/stuff");
  EXPECT_EQ(TextAt(*message, "/data/drive"), here + "/drive");
  EXPECT_EQ(TextAt(*message, "/data/label"), "drive");
  EXPECT_EQ(TextAt(*message, "/data/user"), "a=b");
  EXPECT_EQ(TextAt(*message, "/data/pin"), "1");
  EXPECT_EQ(TextAt(*message, "/data/mail"), "a:@b");
  EXPECT_EQ(TextAt(*message, "/data/password"), "pass=:@word");
  EXPECT_EQ(static_cast<int>(message->GetObject("/data/port")), 8080);
  EXPECT_FALSE(static_cast<bool>(message->GetObject("/data/verify")));
  for (const auto& [type, url] :
       {std::pair("local", "file:///a%20b"), std::pair("webdav", "x/y")}) {
    const auto as_it_is = MountMessage({type, url, "/drive", "Label", {}}, problem);
    ASSERT_TRUE(as_it_is);
    EXPECT_EQ(TextAt(*as_it_is, "/data/url"), url);
    EXPECT_EQ(TextAt(*as_it_is, "/data/label"), "Label");
  }
}

TEST(MountMessageTest, WhatCannotBeSentIsRefused) {
  for (const MountRequest& request :
       {MountRequest{"local", "/x", "/drive", "\xC3", {}},
        MountRequest{"local", "/x", "/\xFF", "", {}},
        MountRequest{"local", "/x", "/drive", "", {"no value"}},
        MountRequest{"local", "/x", "/drive", "", {"=empty key"}},
        MountRequest{"local", "/x", "/drive", "", {"broken:={"}},
        MountRequest{"local", "/x", "/drive", "", {"missing:@/none"}}}) {
    std::string problem;
    EXPECT_FALSE(MountMessage(request, problem));
    EXPECT_NE(problem, "");
  }
}

}  // namespace
}  // namespace tarn
