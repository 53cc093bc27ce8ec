// Real WebDAV servers as volumes of the real service.
#include "tests/e2e/mounting.h"
#include "tests/support/http/dav_server.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using std::chrono_literals::operator""s;

constexpr auto kAttributesAreBelieved = 5s;

class WebdavE2eTest : public MountingTest {
 protected:
  // Mounts a server's folder. Further members of the mount request's "data" come in pairs.
  int MountServer(const std::string& url,
                  const std::vector<std::pair<std::string, std::string>>& data = {},
                  const std::string& type = "webdav") {
    EXPECT_FALSE(url.empty()) << "the server did not start";
    const Json message(ConnectMessage(url, volume, "Web", type).c_str());
    JsonObject members = message.GetObject("/data");
    for (const auto& [key, value] : data) {
      members.Insert(key.c_str(), value);
    }
    return client->AskForResult(message.ToText());
  }
};

class WebdavTreeTest : public WebdavE2eTest, public testing::WithParamInterface<DavServer::Kind> {};

INSTANTIATE_TEST_SUITE_P(Servers, WebdavTreeTest,
                         testing::Values(DavServer::Kind::kApache, DavServer::Kind::kNginx),
                         testing::PrintToStringParamName());

TEST_P(WebdavTreeTest, ATreeGoesInAndComesOutBitForBit) {
  const DavServer server(GetParam());
  PutTreeThrough([&] { return MountServer(server.Url()); }, server.Root(), 10UL << 20);
}

TEST_F(WebdavE2eTest, AFileChangedAtTheServerIsSeen) {
  const DavServer server(DavServer::Kind::kApache);
  server.WriteFile("file", "before");
  ASSERT_EQ(MountServer(server.Url()), 0);
  EXPECT_EQ(ReadFile(volume / "file"), "before");
  EXPECT_EQ(fs::file_size(volume / "file"), 6U);
  server.WriteFile("file", "and after");
  server.WriteFile("new", "x");
  const auto patience = kAttributesAreBelieved + 2s;
  EXPECT_TRUE(WaitUntil([&] { return ReadFile(volume / "file") == "and after"; }, patience));
  EXPECT_TRUE(WaitUntil([&] { return fs::exists(volume / "new"); }, patience));
  EXPECT_EQ(Unmount(volume), 0);
}

TEST_F(WebdavE2eTest, AServerThatRefusesTellsWhy) {
  const DavServer server(DavServer::Kind::kApache, {.login = DavServer::Login::kBasic});
  EXPECT_EQ(MountServer(server.Url()), 10);
  EXPECT_EQ(MountServer(server.Url(), {{"user", "alice"}, {"password", "guessed"}}), 10);
  EXPECT_EQ(MountServer(server.Url("/gone/"), {{"user", "alice"}, {"password", "open sesame"}}),
            12);
  const DavServer secure(DavServer::Kind::kApache, {.secure = true});
  EXPECT_EQ(MountServer(secure.Url(), {}, "webdavs"), 11);
  ASSERT_EQ(MountServer(secure.Url(), {{"ca_file", secure.Certificate()}}, "webdavs"), 0);
  WriteFile(volume / "file", "over TLS");
  EXPECT_EQ(Unmount(volume), 0);
  EXPECT_EQ(secure.ReadFile("file"), "over TLS");

  ASSERT_EQ(MountServer(server.Url(), {{"user", "alice"}, {"password", "open sesame"}}), 0);
  EXPECT_EQ(client->Ask(DriveMessage("get_username", volume)),
            R"({"cmd":"result_username","result":"alice"})");
  EXPECT_EQ(Unmount(volume), 0);
}

}  // namespace
}  // namespace tarn::test
