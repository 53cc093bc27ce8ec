// The module against real servers.
#include <filesystem>
#include <gmock/gmock.h>

#include "tests/support/http/dav_server.h"
#include "tests/unit/webdav/webdav_fixture.h"

namespace tarn::webdav {
namespace {

namespace fs = std::filesystem;
using test::DavServer;
using test::Pattern;
using test::TextSource;
using testing::ElementsAre;
using testing::HasSubstr;

class ServerTest : public WebdavTest, public testing::WithParamInterface<DavServer::Kind> {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(WebdavTest::SetUp());
    ASSERT_EQ(ConnectTo(server.Url()), SUCCESS) << message;
  }

  DavServer server{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Servers, ServerTest,
                         testing::Values(DavServer::Kind::kApache, DavServer::Kind::kNginx),
                         testing::PrintToStringParamName());

TEST_P(ServerTest, NamesOfEveryKindGoInAndComeOut) {
  const std::vector<std::string> names = {
      "with blank", "hash#mark",  "question?mark", "percent%41",      "quote\"'s",
      "amp&lt;<b>", "plus+semi;", "back\\slash",   "colon:at@",       "caf\u00e9",
      "cafe\u0301", "\u65e5",     "trailing.",     "[brackets]{}|^`",
  };
  ASSERT_EQ(protocol->CreateFolder("/a # folder"), SUCCESS);
  const auto path = [](const std::string& name) { return "/a # folder/" + name; };
  for (const std::string& name : names) {
    ASSERT_EQ(Put(path(name).c_str(), "content of " + name), SUCCESS) << name;
    EXPECT_EQ(server.ReadFile(path(name)), "content of " + name);
  }
  EXPECT_THAT(Names("/a # folder"), testing::UnorderedElementsAreArray(names));
  for (const std::string& name : names) {
    const std::string folder = path(name) + ".d";
    const std::string moved = folder + "/" + name;
    EXPECT_EQ(Get(path(name).c_str(), content), SUCCESS);
    EXPECT_EQ(content, "content of " + name);
    ASSERT_EQ(protocol->CreateFolder(folder.c_str()), SUCCESS);
    EXPECT_EQ(protocol->Move(path(name).c_str(), moved.c_str()), SUCCESS);
    EXPECT_EQ(protocol->DeleteFile(moved.c_str()), SUCCESS);
    EXPECT_EQ(protocol->DeleteFolder(folder.c_str()), SUCCESS);
  }
  EXPECT_TRUE(fs::is_empty(server.Root() / "a # folder"));
}

TEST_P(ServerTest, SomebodyElsesChangeIsNotOverwritten) {
  ASSERT_EQ(Put("/file", "first", ""), SUCCESS);
  const std::string first = Version("/file");
  for (const char* content_at_server : {"theirs", "theirs once more", "theirs, the last time"}) {
    const std::string known = Version("/file");
    server.WriteFile("file", content_at_server);
    EXPECT_EQ(Put("/file", "mine", known.c_str()), SHARING_VIOLATION);
    EXPECT_EQ(Put("/file", "mine", ""), SHARING_VIOLATION) << "nothing may be there";
    EXPECT_EQ(server.ReadFile("file"), content_at_server);
    const std::string theirs = Version("/file");
    EXPECT_NE(theirs, known);
    std::string stored;
    EXPECT_EQ(Put("/file", "mine now", theirs.c_str(), &stored), SUCCESS);
    EXPECT_EQ(server.ReadFile("file"), "mine now");
    EXPECT_TRUE(stored.empty() || stored == Version("/file")) << stored;
    EXPECT_EQ(Get("/file", content, theirs.c_str()), SHARING_VIOLATION);
  }
  const std::string mine = Version("/file");
  EXPECT_EQ(Get("/file", content, mine.c_str()), SUCCESS);
  EXPECT_EQ(content, "mine now");
  EXPECT_EQ(Put("/other", "x", first.c_str()), SHARING_VIOLATION) << "what was there is gone";
  EXPECT_EQ(Names("/"), std::vector<std::string>{"file"});
}

TEST_P(ServerTest, AFailedUploadLeavesTheOldFile) {
  ASSERT_EQ(Put("/file", "old"), SUCCESS);
  TextSource broken(std::string(3'000'000, 'x'));
  broken.fail_at = 2'000'000;
  EXPECT_EQ(protocol->Upload("/file", &broken.source, 3'000'000, nullptr, nullptr),
            FILE_READ_FAILED);
  TextSource shorter("abc");
  EXPECT_EQ(protocol->Upload("/file", &shorter.source, 4, nullptr, nullptr), FILE_READ_FAILED);
  EXPECT_EQ(server.ReadFile("file"), "old");
  EXPECT_EQ(Put("/file", ""), SUCCESS);
  EXPECT_EQ(fs::file_size(server.Root() / "file"), 0U);
  EXPECT_EQ(Get("/file", content), SUCCESS);
  EXPECT_EQ(content, "");
}

TEST_P(ServerTest, MovesReplaceFilesAndEmptyFoldersOnly) {
  server.WriteFile("a", "content of a");
  server.WriteFile("b", "content of b");
  for (const char* path : {"/folder", "/empty", "/full", "/full/x"}) {
    ASSERT_EQ(protocol->CreateFolder(path), SUCCESS);
  }
  const std::string version = Version("/a");
  EXPECT_EQ(protocol->Move("/a", "/b"), SUCCESS);
  EXPECT_EQ(server.ReadFile("b"), "content of a");
  EXPECT_EQ(Version("/b"), version) << "a new name is no new content";
  EXPECT_EQ(protocol->Move("/b", "/folder/b"), SUCCESS);
  EXPECT_EQ(protocol->Move("/folder", "/full"), DIR_NOT_EMPTY);
  EXPECT_EQ(protocol->Move("/folder", "/empty"), SUCCESS);
  EXPECT_EQ(server.ReadFile("empty/b"), "content of a");
  EXPECT_EQ(protocol->Move("/empty", "/new name"), SUCCESS);
  EXPECT_EQ(protocol->Move("/new name/b", "/full"), ALREADY_EXISTS);
  EXPECT_EQ(protocol->Move("/full", "/new name/b"), ALREADY_EXISTS);
  EXPECT_EQ(protocol->Move("/gone", "/anything"), FILE_NOT_FOUND);
  if (GetParam() == DavServer::Kind::kApache) {  // nginx makes the folder that is missing
    EXPECT_EQ(protocol->Move("/new name/b", "/no/folder"), PATH_NOT_FOUND);
  }
  EXPECT_THAT(Names("/"), ElementsAre("full", "new name"));
}

TEST_P(ServerTest, WhatCannotBeDoneSaysWhy) {
  ASSERT_EQ(protocol->CreateFolder("/full"), SUCCESS);
  ASSERT_EQ(Put("/full/file", "x"), SUCCESS);
  for (const AERROR error :
       {protocol->GetInfo("/gone", &info), Get("/gone", content), protocol->DeleteFile("/gone"),
        protocol->List("/gone", nullptr, nullptr), protocol->DeleteFolder("/gone")}) {
    EXPECT_EQ(error, FILE_NOT_FOUND);
  }
  EXPECT_EQ(protocol->DeleteFolder("/full/file"), INVALID_DIRECTORY);
  EXPECT_EQ(protocol->CreateFolder("/full"), ALREADY_EXISTS);
  EXPECT_EQ(protocol->CreateFolder("/no/folder"), PATH_NOT_FOUND);
  EXPECT_EQ(Put("/no/file", "x"), PATH_NOT_FOUND);
  EXPECT_EQ(protocol->DeleteFolder("/full"), DIR_NOT_EMPTY);
  EXPECT_NE(protocol->DeleteFile("/full"), SUCCESS) << "a folder is not deleted as a file";
  EXPECT_EQ(server.ReadFile("full/file"), "x");
  EXPECT_EQ(protocol->GetInfo("/../etc", &info), INVALID_NAME);
  EXPECT_EQ(protocol->Move("/full", "/../up"), INVALID_NAME);
  for (const char* path : {"/gone/", "/full/file"}) {
    EXPECT_EQ(ConnectTo(server.Url(path)), PATH_NOT_FOUND) << path;
  }
  EXPECT_EQ(ConnectTo(server.Url("/full")), SUCCESS);
  EXPECT_EQ(Names("/"), std::vector<std::string>{"file"});
}

TEST_F(WebdavTest, BasicAndDigestLoginsWorkAndNoSecretIsLogged) {
  for (const char* login : {"Basic", "Digest"}) {
    const DavServer server(DavServer::Kind::kApache, {.login = login});
    ASSERT_EQ(ConnectTo(server.Url(), R"(,"user":"alice","password":"open sesame")"), SUCCESS)
        << message;
    EXPECT_EQ(TextOf(&IProtocol_V2::GetUserName), "alice");
    EXPECT_EQ(TextOf(&IProtocol_V2::GetCredential), "alice:open sesame");
    EXPECT_EQ(Put("/file", Pattern(300'000), ""), SUCCESS);
    EXPECT_EQ(server.ReadFile("file"), Pattern(300'000));
    EXPECT_EQ(ConnectTo(server.Url(), R"(,"user":"alice","password":"guessed")"), ACCESS_DENIED);
    EXPECT_THAT(message, HasSubstr("user and password"));
    EXPECT_EQ(ConnectTo(server.Url()), ACCESS_DENIED);
  }
  EXPECT_THAT(log.Text(), HasSubstr("Authorization: Digest..."));
  for (const char* secret : {"open sesame", "YWxpY2U6", "response="}) {  // "alice:" in Basic
    EXPECT_THAT(log.Text(), testing::Not(HasSubstr(secret)));
  }
}

TEST_F(WebdavTest, CertificatesAreVerifiedUnlessTheClientSaysOtherwise) {
  const DavServer server(DavServer::Kind::kApache, {.secure = true});
  EXPECT_EQ(ConnectTo(server.Url(), "", "webdavs"), DEVICE_NOT_READY);
  EXPECT_THAT(message, HasSubstr("certificate"));
  EXPECT_EQ(ConnectTo(server.Url(), R"(,"insecure":1)", "webdavs"), SUCCESS) << message;
  const std::string trusted = R"(,"ca_file":")" + server.Certificate() + "\"";
  ASSERT_EQ(ConnectTo(server.Url(), trusted, "webdavs"), SUCCESS) << message;
  const DavServer other(DavServer::Kind::kApache, {.secure = true, .certified = "DNS:elsewhere"});
  const std::string its_own = R"(,"ca_file":")" + other.Certificate() + "\"";
  EXPECT_EQ(ConnectTo(other.Url(), its_own, "webdavs"), DEVICE_NOT_READY);
  EXPECT_THAT(message, HasSubstr("certificate"));
}

}  // namespace
}  // namespace tarn::webdav
