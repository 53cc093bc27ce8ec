#include "tarnctl/installation.h"

#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"

namespace tarn {
namespace {

TEST(InstallationTest, PortComesFromTheRecordOfTheNamedService) {
  const test::TempFolder folder;
  folder.Write("tarnapi.ini", "[SDK]\r\nNAME=some name");
  const Installation found = InstallationIn(folder.path(), folder.path() / "home");
  EXPECT_EQ(found.service_name, "some name");
  EXPECT_EQ(ReadPort(found), 0);
  for (const auto& [content, port] : {std::pair{"[NET]\r\nPORT=49881", 49881},
                                      {"[NET]\r\nPORT=0", 0},
                                      {"[NET]\r\nPORT=65536", 0},
                                      {"[NET]\r\nPORT=x", 0},
                                      {"", 0}}) {
    folder.Write("home/Library/Application Support/some name/tarnsvc.ini", content);
    EXPECT_EQ(ReadPort(found), port) << content;
  }
}

}  // namespace
}  // namespace tarn
