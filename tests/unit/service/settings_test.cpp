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

namespace tarn {
namespace {

// The service reads its settings with the one, its clients with the other.
TEST(SettingsTest, TheFirstKeyOfTheFirstSectionCounts) {
  const test::TempFolder folder;
  using Case = std::pair<std::string, std::optional<std::string>>;
  for (const auto& [content, wanted] : {
           Case{"[SDK]\r\nNAME=tarn", "tarn"},
           Case{"[sdk]\nname=Tarn\n", "Tarn"},
           Case{"[SDK]\r\n  NAME  =   a b  \r\n", "a b  "},
           Case{"[SDK]\nNAME=a=b\n", "a=b"},
           Case{"[SDK]\nNAME=\n", ""},
           Case{"[SDK]\n\nx\nNAME=1\nNAME=2\n", "1"},
           Case{" [SDK]\nNAME=1\n[SDK] \nNAME=2\n", std::nullopt},
           Case{"[A]\nNAME=1\n[SDK]\nNAME=2\n", "2"},
           Case{"[SDK]\n\n[X]\n[SDK]\nNAME=2\n", std::nullopt},
           Case{"[SDK]", std::nullopt},
           Case{"[SDK]\n;NAME=1\n", std::nullopt},
           Case{"[SDK]\n\tNAME=1\n", std::nullopt},
       }) {
    const std::string path = folder.Write("x.ini", content);
    std::array<char, kPathBytes> value = {};
    EXPECT_EQ(GetPrivateProfileString("SDK", "NAME", "", value.data(), kPathBytes, path.c_str()),
              wanted.has_value())
        << content;
    EXPECT_EQ(value.data(), wanted.value_or("")) << content;
    EXPECT_EQ(ReadIniValue(path, "SDK", "NAME"), wanted.value_or("")) << content;
  }
}

TEST(SettingsTest, ValuesAreCutDefaultsFillInAndMissingFilesChangeNothing) {
  const test::TempFolder folder;
  const std::string path = folder.Write(
      "x.ini", "[S]\nK=" + std::string(1500, 'v') + "\n" + std::string(2047, 'x') + "L=1");
  std::array<char, 8> value = {"before"};
  EXPECT_FALSE(GetPrivateProfileString("S", "K", "d", value.data(), 8, "/nowhere/x.ini"));
  EXPECT_STREQ(value.data(), "before");
  EXPECT_TRUE(GetPrivateProfileString("S", "K", "d", value.data(), 8, path.c_str()));
  EXPECT_STREQ(value.data(), "vvvvvvv");
  EXPECT_FALSE(GetPrivateProfileString("S", "none", "d", value.data(), 8, path.c_str()));
  EXPECT_STREQ(value.data(), "d");
  EXPECT_TRUE(GetPrivateProfileString("S", "L", "d", value.data(), 8, path.c_str()));
  EXPECT_STREQ(value.data(), "1");  // of a line that is read in pieces
}

// A process with its executable and its home in a temporary folder.
class HomeTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string executable = home.Write("bin/tarnsvc", "");
    std::strncpy(lpCmdLineData[0], executable.c_str(), kPathBytes - 1);
    home.Write("bin/tarnapi.ini", "[SDK]\r\nNAME=svc");
    std::filesystem::create_directories(home.path() / "Library/Application Support");
    std::filesystem::create_directories(home.path() / "Library/Logs");
    ::setenv("HOME", home.path().c_str(), 1);
  }

  const test::TempFolder home;
  const std::string data = "Library/Application Support/svc/";
};

TEST_F(HomeTest, FirstStartMakesTheCacheSettingsAndLaterOnesLeaveThemAlone) {
  Init();
  const std::string cache_folder = home.path() / data / "_cache_";
  EXPECT_EQ(home.Read(data + "tarncache.ini"),
            "[CACHE]\r\npath = " + cache_folder + "\r\nsize = 4");
  EXPECT_TRUE(std::filesystem::is_directory(cache_folder));
  home.Write(data + "tarncache.ini", "mine");
  Init();
  EXPECT_EQ(home.Read(data + "tarncache.ini"), "mine");
  write_port(50123);
  write_port(7);
  EXPECT_EQ(home.Read(data + "tarnsvc.ini"), "[NET]\r\nPORT=7");
  std::filesystem::remove(home.path() / "bin/tarnapi.ini");
  EXPECT_EQ(ServiceName(), "");
  EXPECT_EQ(DataPath("/x"), home.path().string() + "/Library/Application Support//x");
}

TEST_F(HomeTest, APathThatDoesNotFitIsNoOtherPath) {
  ::setenv("HOME", ("/" + std::string(1020, 'h')).c_str(), 1);
  std::array<char, kPathBytes> path = {"x"};
  EXPECT_EQ(GetAppDataPath(path.data()), 0);
  EXPECT_STREQ(path.data(), "");
  EXPECT_FALSE(DataPath("/x"));
  Init();
  EXPECT_EQ(ReadLogSettings().log_file, "");
}

TEST_F(HomeTest, OnlyDebugInCapitalsShowsEverything) {
  const auto threshold = [&](const std::string& settings) {
    home.Write(data + "velmora2.json", settings);
    return static_cast<unsigned>(ReadLogSettings().threshold);
  };
  EXPECT_EQ(static_cast<unsigned>(ReadLogSettings().threshold), 0xFF08U);
  EXPECT_EQ(threshold(R"({"log_level":"DEBUG"})"), 0xFF01U);
  for (const char* settings : {R"({"log_level":"ERROR"})", R"({"log_level":"debug"})",
                               R"({"log_level":1})", R"({})", "[]", "not json", ""}) {
    EXPECT_EQ(threshold(settings), 0xFF08U) << settings;
  }
}

TEST(CacheFolderTest, IsEmptiedWithoutLeavingTheBaseFolderAndNotSharedWhileInUse) {
  EXPECT_EQ(FolderName(".."), "_");
  EXPECT_EQ(FolderName("."), "_");
  EXPECT_EQ(FolderName("../../etc"), "..:..:etc");
  const test::TempFolder folder;
  const std::string base = folder.path() / "cache";
  const std::string outside = folder.Write("outside/precious", "keep me");
  folder.Write("cache/L/old/deep/block", "stale");
  std::filesystem::create_directory_symlink(folder.path() / "outside", base + "/L/link");

  const CacheFolder first = OpenCacheFolder(base, "L");
  ASSERT_TRUE(first.lock.valid());
  EXPECT_EQ(first.path, base + "/L");
  EXPECT_TRUE(std::filesystem::is_empty(first.path));
  EXPECT_TRUE(std::filesystem::exists(outside));

  folder.Write("cache/L/block", "in use");
  const CacheFolder second = OpenCacheFolder(base, "L");
  EXPECT_EQ(second.path, base + "/L0");
  EXPECT_TRUE(std::filesystem::exists(base + "/L/block"));

  // A link in place of the folder is not followed either.
  std::filesystem::create_directory_symlink(folder.path() / "outside", base + "/M");
  const CacheFolder third = OpenCacheFolder(base, "M");
  EXPECT_TRUE(third.lock.valid());
  EXPECT_FALSE(std::filesystem::is_symlink(base + "/M"));
  EXPECT_TRUE(std::filesystem::exists(outside));
  EXPECT_FALSE(OpenCacheFolder(base, std::string(300, 'x')).lock.valid());
}

}  // namespace
}  // namespace tarn
