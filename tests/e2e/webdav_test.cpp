// Real WebDAV servers as volumes of the real service.
#include "tests/e2e/mounting.h"
#include "tests/support/http/dav_server.h"

namespace tarn::test {
namespace {

class WebdavE2eTest : public MountingTest {
 protected:
  // Mounts a server's folder, with more members of the mount request's "data", as JSON after a ",".
  int MountServer(const DavServer& server, const std::string& more = "") {
    const std::string url = server.Url();
    const char* type = url.starts_with("https:") ? "webdavs" : "webdav";
    std::string message = ConnectMessage(url, volume, "Web", type);
    return client->AskForResult(message.insert(message.size() - 2, more));
  }
};

TEST_F(WebdavE2eTest, ATreeGoesInAndComesOutBitForBit) {
  for (const DavServer::Kind kind : {DavServer::Kind::kApache, DavServer::Kind::kNginx}) {
    SCOPED_TRACE(kind);
    const DavServer server(kind);
    PutTreeThrough([&] { return MountServer(server); }, server.Root(), 10UL << 20);
    server.WriteFile("new", "x");
    EXPECT_TRUE(WaitUntil([&] { return fs::exists(volume / "new"); }));
    EXPECT_EQ(Unmount(volume), 0);
  }
}

TEST_F(WebdavE2eTest, SettingsOfTheMountReachTheModuleAndItsResultsTheClient) {
  const DavServer server(DavServer::Kind::kApache,
                         {.login = DavServer::Login::kBasic, .secure = true});
  const std::string login = R"(,"user":"alice","password":"open sesame")";
  const std::string certificate = R"(,"ca_file":")" + server.Certificate() + '"';
  EXPECT_EQ(MountServer(server, login), 11);
  EXPECT_EQ(MountServer(server, certificate), 10);
  ASSERT_EQ(MountServer(server, login + certificate), 0);
  WriteFile(volume / "file", "over TLS");
  EXPECT_EQ(client->Ask(DriveMessage("get_username", volume)),
            R"({"cmd":"result_username","result":"alice"})");
  EXPECT_EQ(Unmount(volume), 0);
  EXPECT_EQ(server.ReadFile("file"), "over TLS");
}

}  // namespace
}  // namespace tarn::test
