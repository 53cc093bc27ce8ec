#include <array>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <optional>

#include "common/folders.h"
#include "tarnctl/installation.h"
#include "tarnsvc/CacheFolder.h"
#include "tarnsvc/LogSettings.h"
#include "tarnsvc/Parent.h"
#include "tarnsvc/main.h"
#include "tests/support/temp_folder.h"

namespace tarn::test {
namespace {

// The service reads its settings with the one, its clients with the other.
TEST(SettingsTest, TheFirstKeyOfTheFirstSectionCounts) {
  const TempFolder folder;
  using Case = std::pair<std::string, std::optional<std::string>>;
  for (const auto& [content, wanted] : {
           Case{"[SDK]\r\nNAME=tarn", "tarn"},
           Case{"[sdk]\r\n  name  =   a=b  \r\n", "a=b  "},
           Case{"[SDK]\n\nx\nNAME=1\nNAME=2\n", "1"},
           Case{" [SDK]\nNAME=1\n[SDK] \nNAME=2\n", std::nullopt},
           Case{"[A]\nNAME=1\n[SDK]\nNAME=2\n", "2"},
           Case{"[SDK]\n\n[X]\n[SDK]\nNAME=2\n", std::nullopt},
           Case{"[SDK]", std::nullopt},
       }) {
    const std::string path = folder.Write("x.ini", content);
    std::array<char, kPathBytes> value = {};
    EXPECT_EQ(GetPrivateProfileString("SDK", "NAME", "", value.data(), kPathBytes, path.c_str()),
              wanted.has_value())
        << content;
    EXPECT_EQ(value.data(), wanted.value_or("")) << content;
    EXPECT_EQ(ReadIniValue(path, "SDK", "NAME"), wanted.value_or("")) << content;
  }
  const std::string path = folder.Write("x.ini", "[S]\nK=" + std::string(1500, 'v'));
  std::array<char, 8> value = {};
  EXPECT_TRUE(GetPrivateProfileString("S", "K", "d", value.data(), 8, path.c_str()));
  EXPECT_STREQ(value.data(), "vvvvvvv");
}

TEST(SettingsTest, TheFirstStartMakesSettingsOfTheCacheAndLaterOnesLeaveThemAlone) {
  const TempFolder home;
  std::strncpy(lpCmdLineData[0], home.Write("bin/tarnsvc", "").c_str(), kPathBytes - 1);
  home.Write("bin/tarnapi.ini", "[SDK]\r\nNAME=svc");
  const std::string data = "Library/Application Support/svc/";
  ::setenv("HOME", home.path().c_str(), 1);
  for (const auto& [settings, threshold] : {std::pair{R"({"log_level":"DEBUG"})", 0xFF01},
                                            {R"({"log_level":"debug"})", 0xFF08},
                                            {R"({"log_level":1})", 0xFF08},
                                            {"[]", 0xFF08}}) {
    home.Write(data + "velmora2.json", settings);
    EXPECT_EQ(static_cast<int>(ReadLogSettings().threshold), threshold) << settings;
  }
  Init();
  const std::string cache_folder = home.path() / data / "_cache_";
  EXPECT_EQ(home.Read(data + "tarncache.ini"),
            "[CACHE]\r\npath = " + cache_folder + "\r\nsize = 4");
  EXPECT_TRUE(std::filesystem::is_directory(cache_folder));
  home.Write(data + "tarncache.ini", "mine");
  Init();
  EXPECT_EQ(home.Read(data + "tarncache.ini"), "mine");
}

TEST(CacheFolderTest, IsEmptiedWithoutLeavingTheBaseFolderAndNotSharedWhileInUse) {
  EXPECT_EQ(FolderName(".."), "_");
  EXPECT_EQ(FolderName("../../etc"), "..:..:etc");
  const TempFolder folder;
  const std::string base = folder.path() / "cache";
  const std::string outside = folder.Write("outside/precious", "keep me");
  folder.Write("cache/L/old/deep/block", "stale");
  std::filesystem::create_directory_symlink(folder.path() / "outside", base + "/L/link");

  const CacheFolder first = OpenCacheFolder(base, "L");
  ASSERT_TRUE(first.lock.valid());
  EXPECT_TRUE(std::filesystem::is_empty(first.path));
  EXPECT_TRUE(std::filesystem::exists(outside));

  folder.Write("cache/L/block", "in use");
  EXPECT_EQ(OpenCacheFolder(base, "L").path, base + "/L0");
  EXPECT_TRUE(std::filesystem::exists(base + "/L/block"));

  // A link in place of the folder is not followed either.
  std::filesystem::create_directory_symlink(folder.path() / "outside", base + "/M");
  EXPECT_TRUE(OpenCacheFolder(base, "M").lock.valid());
  EXPECT_TRUE(std::filesystem::exists(outside));
}

}  // namespace
}  // namespace tarn::test
