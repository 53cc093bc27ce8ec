#include "tarnctl/installation.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <stdlib.h>

namespace tarn {
namespace {

class InstallationTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = "/tmp/tarn_installation_XXXXXX";
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    folder = name;
  }
  void TearDown() override { std::filesystem::remove_all(folder); }
  void Write(const std::filesystem::path& path, const std::string& content) const {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
  }
  std::filesystem::path folder;
};

TEST_F(InstallationTest, PortComesFromTheRecordOfTheNamedService) {
  Write(folder / "tarnapi.ini", "[SDK]\r\nNAME=some name");
  const Installation found = InstallationIn(folder, folder / "home");
  EXPECT_EQ(found.service_name, "some name");
  EXPECT_EQ(ReadPort(found), 0);
  const std::filesystem::path record =
      folder / "home/Library/Application Support/some name/tarnsvc.ini";
  Write(record, "[NET]\r\nPORT=49881");
  EXPECT_EQ(ReadPort(found), 49881);
  for (const char* content : {"[NET]\r\nPORT=0", "[NET]\r\nPORT=65536", "[NET]\r\nPORT=x", ""}) {
    Write(record, content);
    EXPECT_EQ(ReadPort(found), 0) << content;
  }
}

TEST_F(InstallationTest, IniValuesAreFoundAsTheServiceFindsThem) {
  struct Case {
    const char* content;
    const char* value;
  };
  for (const Case& wanted : {
           Case{"[sdk]\r\nname=x", "x"},
           Case{" [SDK]\r\nNAME=x", ""},
           Case{"[SDK] \r\nNAME=x", ""},
           Case{"[other]\nNAME=y\n[SDK]\n\nnothing\n  NAME  =  a = b \r\nNAME=z", "a = b "},
           Case{"[SDK]\r\n[other]\r\nNAME=y\r\n[SDK]\r\nNAME=x", ""},
           Case{"[SDK]\r\n;NAME=y\r\nNAME=x", "x"},
           Case{"[SDK]", ""},
           Case{"[SDK]\r\nNAME=", ""},
       }) {
    Write(folder / "file.ini", wanted.content);
    EXPECT_EQ(ReadIniValue(folder / "file.ini", "SDK", "NAME"), wanted.value) << wanted.content;
  }
}

}  // namespace
}  // namespace tarn
