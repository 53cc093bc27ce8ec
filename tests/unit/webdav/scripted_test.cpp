// The module against answers that real servers give rarely.
#include <atomic>
#include <chrono>
#include <gmock/gmock.h>
#include <set>
#include <thread>

#include "modules/webdav/client.h"
#include "tests/support/http/scripted_server.h"
#include "tests/unit/webdav/webdav_fixture.h"

namespace tarn::webdav {
namespace {

using namespace std::chrono_literals;
using test::DavResponse;
using test::HttpAnswer;
using test::kDavFolder;
using test::MultistatusAnswer;
using test::ScriptedServer;
using testing::ElementsAre;
using testing::HasSubstr;
using Clock = std::chrono::steady_clock;
using Reply = ScriptedServer::Reply;
using Request = ScriptedServer::Request;

const std::string kByte = "<D:getcontentlength>1</D:getcontentlength>";
const std::string kRootAnswer = MultistatusAnswer(DavResponse("/", kDavFolder));

std::string RedirectTo(const std::string& url, int status = 302) {
  return HttpAnswer(status, "", "Location: " + url + "\r\n");
}

// `range`: where the bytes are in the file, and its size.
std::string PartAnswer(const std::string& bytes, const std::string& range,
                       const std::string& headers = "") {
  return HttpAnswer(206, bytes, "Content-Range: bytes " + range + "\r\n" + headers);
}

std::string FileAnswer(const std::string& href, const std::string& etag) {
  return MultistatusAnswer(
      DavResponse(href, "<D:resourcetype/><D:getcontentlength>3</D:getcontentlength><D:getetag>" +
                            etag + "</D:getetag>"));
}

// The script sees all but the question that Connect asks.
class ScriptedTest : public WebdavTest {
 protected:
  void Serve(const ScriptedServer::Script& script, const std::string& data = "") {
    server = std::make_unique<ScriptedServer>([this, script](const Request& request) {
      return connected ? script(request) : Reply(kRootAnswer);
    });
    ASSERT_EQ(ConnectTo(server->Url(), data), SUCCESS) << message;
    connected = true;
  }

  std::atomic<bool> connected{false};
  std::unique_ptr<ScriptedServer> server;
};

TEST_F(ScriptedTest, ListingsAreUnderstoodHoweverServersWriteThem) {
  Serve([](const Request&) {
    std::string responses =
        DavResponse("/dir%20one/", kDavFolder) + DavResponse("/dir one", kDavFolder) +
        DavResponse("https://other/%64ir%20one", kDavFolder) + DavResponse("./", kDavFolder) +
        DavResponse("http://10.0.0.1/dir%20one/caf%c3%a9/", kDavFolder) +
        DavResponse("/dir%20one/weak", kByte + "<D:getetag>W/\"weak\"</D:getetag>") +
        DavResponse("/dir%20one/lines",
                    kByte + "<D:getetag>\"a&#13;&#10;Overwrite: T\"</D:getetag>");
    for (const char* href :
         {"relative", "/dir one/raw#name?", "100%", "a:b", "//host/dir%20one/a%23b%3fc",
          "/dir%20one/%FF%FE", "/dir%20one/caf%2F", "/dir%20one/a/b", "/dir%20one/x/../../../etc",
          "/dir%20one/a%00b", "/somewhere/else"}) {
      responses += DavResponse(href, kByte);
    }
    return MultistatusAnswer(responses);
  });
  const auto entries = List("/dir one");
  EXPECT_THAT(Names("/dir one"), ElementsAre("100%", "a#b?c", "a:b", "caf\u00e9", "lines",
                                             "raw#name?", "relative", "weak"));
  EXPECT_EQ(entries.at("caf\u00e9").is_folder, 1);
  EXPECT_STREQ(entries.at("weak").version, "\"weak\"");
  EXPECT_STREQ(entries.at("relative").version, "~0-1");
  EXPECT_STREQ(entries.at("lines").version, "~0-1") << "an ETag of several lines is none";
}

TEST_F(ScriptedTest, SizesThatListingsLackAreFoundOutAndNeverMadeUp) {
  const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::string hidden = HttpAnswer(403);
  // The answers to HEAD and to a GET of the first byte.
  const std::map<std::string, std::pair<std::string, std::string>> files = {
      {"head", {"HTTP/1.1 200 OK\r\nContent-Length: 77\r\n\r\n", hidden}},
      {"range", {hidden, PartAnswer("x", "0-0/78")}},
      {"whole", {HttpAnswer(200), HttpAnswer(200, std::string(79, 'x'))}},
      {"chunks", {head, head + "5\r\nabcde\r\n3\r\nabc\r\n0\r\n\r\n"}},
      {"empty", {head, HttpAnswer(416, "", "Content-Range: bytes */0\r\n")}},
      {"none", {head, PartAnswer("x", "0-0/*")}},
      {"hidden", {hidden, hidden}},
  };
  std::string listing = DavResponse("/", kDavFolder);
  for (const auto& file : files) {
    listing += DavResponse("/" + file.first, "<D:getetag/>");
  }
  Serve([&](const Request& request) {
    const std::string name = request.target.substr(1);
    return request.method == "PROPFIND" ? MultistatusAnswer(listing)
           : request.method == "GET"    ? files.at(name).second
                                        : files.at(name).first;
  });
  std::map<std::string, unsigned long long> sizes;
  for (const auto& [name, entry] : List("/")) {
    sizes[name] = entry.size;
  }
  EXPECT_EQ(sizes, (std::map<std::string, unsigned long long>{
                       {"head", 77}, {"range", 78}, {"whole", 79}, {"chunks", 8}, {"empty", 0}}));
  EXPECT_EQ(protocol->GetInfo("/hidden", &info), ACCESS_DENIED);
  EXPECT_EQ(protocol->GetInfo("/none", &info), FAILED);
}

TEST_F(ScriptedTest, AFolderOfWhatListingsLeaveOutIsNotDeletedAndAChangeIsNotLedElsewhere) {
  const std::string folder = DavResponse("/d/", kDavFolder) + DavResponse("/d/%FF%FE", kByte);
  Serve([&](const Request& request) {
    return request.method == "DELETE" ? RedirectTo("/login", 303) : MultistatusAnswer(folder);
  });
  EXPECT_THAT(Names("/d"), ElementsAre());
  EXPECT_EQ(protocol->DeleteFolder("/d"), DIR_NOT_EMPTY);
  EXPECT_EQ(server->Count("DELETE"), 0);
  EXPECT_NE(protocol->DeleteFile("/f"), SUCCESS);
  EXPECT_EQ(server->Count("DELETE"), 1);
}

TEST_F(ScriptedTest, RedirectsAreFollowedAndTheDriveMovesToAnAddressOnTheSameHost) {
  ScriptedServer target([](const Request& request) {
    return request.method == "PROPFIND" ? MultistatusAnswer(DavResponse("/new/", kDavFolder))
                                        : HttpAnswer(201);
  });
  ScriptedServer entrance([&](const Request& request) {
    return RedirectTo(target.Url("/new") + request.target.substr(4), 301);
  });
  ASSERT_EQ(ConnectTo(entrance.Url("/old")), SUCCESS) << message;
  EXPECT_EQ(Put("/file", "abc"), SUCCESS);
  EXPECT_EQ(entrance.Requests().size(), 1U);
  EXPECT_EQ(target.Requests().back().target, "/new/file");
  EXPECT_THAT(target.Requests().front().body, HasSubstr("propfind")) << "redirected with its body";
}

TEST_F(ScriptedTest, TokensAreShownToTheServerAndToNobodyElse) {
  ScriptedServer stranger([](const Request&) { return HttpAnswer(200, "abc"); });
  Serve(
      [&](const Request& request) {
        return request.method == "GET" ? RedirectTo(stranger.Url()) : FileAnswer("/file", "\"1\"");
      },
      R"(,"token":"top-secret")");
  EXPECT_EQ(Get("/file", content), SUCCESS);
  EXPECT_EQ(server->Requests().front().Header("Authorization"), "Bearer top-secret");
  EXPECT_EQ(stranger.Requests().front().Header("Authorization"), "");
}

TEST_F(ScriptedTest, ServersWithoutRangesAndWithWrongOnesAreNoticed) {
  std::string answer = HttpAnswer(200, "0123456789");
  Serve([&](const Request&) { return answer; });
  char part[4] = {};
  unsigned long long received = 0;
  for (const auto& [from, expected] :
       std::map<unsigned long long, std::string>{{3, "3456"}, {8, "89"}, {20, ""}}) {
    EXPECT_EQ(protocol->Read("/f", from, part, 4, &received), SUCCESS);
    EXPECT_EQ(std::string(part, received), expected);
  }
  for (const std::string& wrong :
       {HttpAnswer(206, "3456"), HttpAnswer(206, ""), HttpAnswer(204), HttpAnswer(202, "wait"),
        PartAnswer("3456", "5-8/10"), PartAnswer("", "3-2/10"),
        HttpAnswer(416, "", "Content-Range: bytes */10\r\n")}) {
    answer = wrong;
    EXPECT_EQ(protocol->Read("/f", 3, part, 4, &received), FILE_READ_FAILED) << wrong;
    EXPECT_EQ(received, 0U);
  }
}

TEST_F(ScriptedTest, TheRestOfAShortPartIsAskedForAndIsOfTheSameFile) {
  std::string size;
  bool changes = false;
  Serve([&](const Request& request) {  // three bytes at a time
    const size_t from = std::stoul(request.Header("Range").substr(6));
    const std::string piece = std::string("0123456789").substr(from, 3);
    const std::string range =
        std::to_string(from) + "-" + std::to_string(from + piece.size() - 1) + "/" + size;
    const std::string tag = "ETag: \"" + std::to_string(changes ? from : 0) + "\"\r\n";
    return piece.empty() ? HttpAnswer(416) : PartAnswer(piece, range, tag);
  });
  for (const char* told : {"10", "*"}) {
    size = told;
    EXPECT_EQ(Get("/f", content), SUCCESS);
    EXPECT_EQ(content, "0123456789");
  }
  changes = true;
  EXPECT_EQ(Get("/f", content), SHARING_VIOLATION);
  EXPECT_EQ(content, "");
}

TEST_F(ScriptedTest, APageInAFilesPlaceIsNotTakenForTheFile) {
  std::string first;   // answer for the file
  std::string second;  // answer for where that leads
  Serve([&](const Request& request) {
    const std::string& bytes = request.target == "/f" ? first : second;
    return request.method == "PROPFIND" ? FileAnswer("/f", "\"1\"")  // of 3 bytes
                                        : Reply(bytes, bytes.find("close") != std::string::npos);
  });
  const std::string page = "Content-Type: text/html\r\n";
  const std::string login = RedirectTo("/login");
  using Case = std::tuple<std::string, std::string, bool>;
  for (const auto& [at_file, at_target, is_file] : {
           Case{HttpAnswer(200, "log in", page), "", false},
           Case{HttpAnswer(200, "<a>", page), "", true},  // a page that is the file
           Case{login, HttpAnswer(200, "log in", page), false},
           Case{login, HttpAnswer(200, ""), false},
           Case{login, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nlog in", false},
           Case{login, HttpAnswer(200, "abc"), true},
           Case{login, HttpAnswer(200, "abcdef", "ETag: \"1\"\r\n"), true},
           Case{RedirectTo("/f/", 301), HttpAnswer(200, "abcdef"), true},
       }) {
    first = at_file;
    second = at_target;
    SCOPED_TRACE(first + second);
    EXPECT_EQ(Get("/f", content), is_file ? SUCCESS : FILE_READ_FAILED);
    EXPECT_EQ(content.empty(), !is_file);
    EXPECT_TRUE(is_file || Get("/f", content, "\"1\"") == FILE_READ_FAILED);
  }
}

TEST_F(ScriptedTest, AVersionIsReadOrNothing) {
  const std::string range = "Content-Range: bytes 0-2/3\r\n";
  const std::string time = "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\n";
  const char* const made_up = "~784111777-3";
  struct Case {
    const char* version;
    std::string headers;  // of the file
    const char* listed;   // its ETag in a listing
    AERROR result;
    int questions;
  };
  Case now{};
  Serve([&](const Request& request) {
    return request.method == "PROPFIND"
               ? FileAnswer("/f", now.listed)
               : HttpAnswer(now.headers.find("bytes") == std::string::npos ? 200 : 206, "abc",
                            now.headers);
  });
  for (const Case& each : {
           Case{"\"1\"", range + "ETag: \"1\"\r\n", "\"2\"", SUCCESS, 0},
           Case{"\"1\"", "ETag: W/\"1\"\r\n", "\"2\"", SUCCESS, 0},
           Case{"bare", range + "ETag: \"bare\"\r\n", "x", SUCCESS, 0},
           Case{"\"1\"", range + "ETag: \"2\"\r\n", "\"2\"", SHARING_VIOLATION, 1},
           Case{"\"1\"", range + "ETag: \"1-gzip\"\r\n", "\"1\"", SUCCESS, 1},
           Case{"\"1\"", range + time, "\"1\"", SUCCESS, 1},
           Case{"\"1\"", range + time, "\"2\"", SHARING_VIOLATION, 1},
           Case{made_up, range + time, "\"2\"", SUCCESS, 0},
           Case{made_up, time, "\"2\"", SUCCESS, 0},
           Case{made_up, "Content-Range: bytes 0-2/4\r\n" + time, "\"2\"", SHARING_VIOLATION, 1},
           Case{made_up, "Content-Range: bytes 0-2/*\r\n" + time, "\"2\"", SHARING_VIOLATION, 1},
       }) {
    now = each;
    const int questions = server->Count("PROPFIND");
    SCOPED_TRACE(now.version + now.headers);
    EXPECT_EQ(Get("/f", content, now.version), now.result);
    EXPECT_EQ(content, now.result == SUCCESS ? "abc" : "");
    EXPECT_EQ(server->Count("PROPFIND") - questions, now.questions);
  }
}

TEST_F(ScriptedTest, WhatOnlyReadsIsAskedForOnceMoreAndNoUploadIsSentAgain) {
  std::set<std::string> known;
  Serve([&](const Request& request) -> Reply {
    const bool is_first = known.insert(request.target).second;
    if (request.method == "PUT") {
      return Reply("", true);  // after the whole content, without an answer
    }
    if (request.target == "/cut") {
      const std::string answer = PartAnswer("abcd", "0-3/4");
      return Reply(answer.substr(0, answer.size() - (is_first ? 2 : 0)), is_first);
    }
    const bool is_busy = is_first || request.target == "/down";
    return is_busy ? HttpAnswer(503) : FileAnswer("/busy", "\"1\"");
  });
  EXPECT_EQ(Get("/cut", content), SUCCESS);
  EXPECT_EQ(content, "abcd");
  EXPECT_EQ(protocol->GetInfo("/busy", &info), SUCCESS);
  const int questions = server->Count("PROPFIND");
  EXPECT_EQ(protocol->GetInfo("/down", &info), DEVICE_NOT_READY);
  EXPECT_EQ(server->Count("PROPFIND") - questions, 2);
  EXPECT_EQ(Put("/file", "content"), DEVICE_NOT_READY);  // on a connection that was kept
  EXPECT_EQ(server->Count("PUT"), 1);
}

TEST_F(ScriptedTest, OnlyWhatSaysThatAChangeIsMadeCounts) {
  std::atomic<int> status{0};
  Serve([&](const Request& request) {
    const bool asks = request.method == "PROPFIND" && request.target == "/";
    return asks ? kRootAnswer : HttpAnswer(status, "<html/>");
  });
  for (const int answered : {200, 201, 202, 204, 207, 303, 403, 405, 413, 423, 501, 507}) {
    const AERROR expected = std::set{200, 201, 204}.count(answered) != 0 ? SUCCESS
                            : answered == 403                            ? ACCESS_DENIED
                            : answered == 423                            ? SHARING_VIOLATION
                                                                         : FILE_WRITE_FAILED;
    status = answered;
    EXPECT_EQ(Put("/f", "x"), expected) << answered;
    EXPECT_EQ(protocol->DeleteFile("/f"), expected) << answered;
    EXPECT_EQ(protocol->CreateFolder("/f"), expected) << answered;
    if (answered != 403) {  // may be said of a folder that is asked for as a file
      EXPECT_EQ(protocol->Move("/f", "/g"), expected) << answered;
    }
  }
}

TEST_F(ScriptedTest, AFailedComparisonIsLookedAtOnceMore) {
  std::string etag = "W/\"1\"";  // a server that compares weak tags refuses even its own
  Serve([&](const Request& request) {
    if (request.method != "PUT") {
      return FileAnswer("/f", etag);
    }
    const bool holds = request.Header("If-Match").empty() && request.Header("If") == "([\"1\"])";
    return HttpAnswer(holds ? 204 : 412);
  });
  EXPECT_EQ(Put("/f", "abc", "\"1\""), SUCCESS);
  EXPECT_EQ(server->Requests().back().body, "abc");
  etag = "\"2\"";
  EXPECT_EQ(Put("/f", "abc", "\"1\""), SHARING_VIOLATION);
}

struct Habits {
  bool heeds_match;
  bool heeds_none_match;
  int gone;  // what it says to If-Match where nothing is
};

TEST_F(ScriptedTest, NobodyElsesFileIsReplacedWhateverConditionsTheServerHeeds) {
  for (const Habits& habits : {Habits{true, true, 412},
                               {true, true, 404},
                               {true, false, 404},
                               {false, true, 412},
                               {false, false, 412}}) {
    SCOPED_TRACE(std::to_string(habits.heeds_match) + std::to_string(habits.heeds_none_match));
    std::map<std::string, std::string> etags;  // of all files
    connected = false;
    Serve([&](const Request& request) {
      const auto found = etags.find(request.target);
      const bool exists = found != etags.end();
      if (request.method == "PROPFIND") {
        return exists                  ? FileAnswer(request.target, found->second)
               : request.target == "/" ? kRootAnswer
                                       : HttpAnswer(404);
      }
      const std::string match = request.Header("If-Match");
      const bool matches = match.empty() || (exists && found->second == match);
      const bool none_matches = request.Header("If-None-Match").empty() || !exists;
      if ((habits.heeds_match && !matches) || (habits.heeds_none_match && !none_matches)) {
        return HttpAnswer(exists ? 412 : habits.gone);
      }
      etags[request.target] = "\"" + request.body + "\"";
      return HttpAnswer(201, "", "ETag: " + etags[request.target] + "\r\n");
    });
    std::string version;
    for (const char* path : {"/a", "/b", "/c"}) {  // from what the first ones teach, the next gain
      EXPECT_EQ(Put(path, "new", "", &version), SUCCESS);
      EXPECT_EQ(Put(path, "newer", version.c_str(), &version), SUCCESS);
      EXPECT_EQ(Put(path, "newer still", version.c_str(), &version), SUCCESS);
      EXPECT_EQ(version, etags[path]);
      EXPECT_EQ(Put(path, "mine", ""), SHARING_VIOLATION);
      EXPECT_EQ(Put(path, "mine", "\"0\""), SHARING_VIOLATION);
      EXPECT_EQ(version, etags[path]);
      EXPECT_EQ(Put("/deleted", "mine", version.c_str()), SHARING_VIOLATION);
    }
    const int questions = server->Count("PROPFIND");
    EXPECT_EQ(Put("/d", "new", ""), SUCCESS);
    EXPECT_EQ(Put("/d", "newer", etags["/d"].c_str()), SUCCESS);
    EXPECT_EQ(server->Count("PROPFIND") - questions,
              !habits.heeds_match + !habits.heeds_none_match);
    EXPECT_EQ(etags.count("/deleted"), 0U);
  }
}

TEST_F(ScriptedTest, CancelEndsTransfersWithinASecondAndLaterOnesRunOverNewConnections) {
  std::atomic<bool> drips{true};
  Serve([&](const Request&) {
    thread_local int served = 0;  // over this connection
    return Reply(HttpAnswer(200, std::to_string(++served)), false, drips ? 1s : 0s);
  });
  std::atomic<int> started{0};
  std::atomic<int> cancelled{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 20; ++i) {  // some of them wait for a connection
    readers.emplace_back([&] {
      ++started;
      std::string own;
      cancelled += Get("/slow", own) == READ_CANCELED ? 1 : 0;
    });
  }
  while (server->Count("GET") < 16 || started < 20) {
    std::this_thread::yield();
  }
  EXPECT_EQ(server->Count("GET"), 16) << "more connections than allowed";
  drips = false;  // for those who come only now
  const auto start = Clock::now();
  EXPECT_EQ(protocol->Cancel(), SUCCESS);
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_LT(Clock::now() - start, 1s);
  EXPECT_GE(cancelled, 16);
  const auto served = [&] { return Get("/slow", content) == SUCCESS ? content[0] : '0'; };
  const char before = served();
  EXPECT_EQ(served(), before + 1) << "kept alive";
  EXPECT_EQ(protocol->Cancel(), SUCCESS);
  EXPECT_EQ(served(), '1') << "what is from before may be dead";
}

TEST(ClientTest, AnswersThatDripAreGivenUp) {
  ScriptedServer drips([](const Request& request) {
    return Reply(HttpAnswer(200, std::string(1000, 'x')), false,
                 request.target == "/slow" ? 200ms : 5ms);
  });
  Settings settings;
  settings.location = *Location::Parse(drips.Url(), false);
  const Secrets secrets("", "", "");
  Throttle throttle;
  Client client(settings, secrets, nullptr, throttle);
  tarn::webdav::Request slow{.method = "GET", .url = drips.Url("/slow"), .stall_limit_s = 1};
  tarn::webdav::Request steady{.method = "GET", .url = drips.Url("/steady"), .deadline_s = 1};
  for (auto* request : {&slow, &steady}) {
    const auto start = Clock::now();
    EXPECT_EQ(client.Perform(*request, throttle.Begin(), CURLAUTH_BASIC, false).code,
              CURLE_OPERATION_TIMEDOUT);
    EXPECT_LT(Clock::now() - start, 5s);
  }
}

TEST_F(WebdavTest, AServerThatIsNoneSaysWhyWithoutSecretsAndTheIdentityIsOfTheRequest) {
  EXPECT_EQ(ConnectTo("http://127.0.0.1:1/dav"), DEVICE_NOT_READY);
  EXPECT_THAT(message, HasSubstr("refuses connections"));
  ScriptedServer no_dav([](const Request&) { return HttpAnswer(200, "Welcome"); });
  EXPECT_EQ(ConnectTo(no_dav.Url()), FAILED);
  EXPECT_THAT(message, HasSubstr("no WebDAV answer"));
  ScriptedServer echo([](const Request& request) {
    const std::string sent = request.Header("Authorization");
    return Reply("HTTP/1.1 500 " + sent + "\r\n\r\n" + sent, true);
  });
  EXPECT_EQ(ConnectTo(echo.Url(), R"(,"token":"top-secret")"), FAILED);
  EXPECT_THAT(message + log.Text(), testing::Not(HasSubstr("top-secret")));
  ScriptedServer server([](const Request&) { return kRootAnswer; });
  ASSERT_EQ(ConnectTo(server.Url("/a b"), R"(,"user":"bob")"), SUCCESS);
  EXPECT_EQ(TextOf(&IProtocol_V2::GetIdentity), "webdav:bob@" + server.Url("/a%20b/"));
  protocol->Disconnect();
  EXPECT_EQ(protocol->GetInfo("/", &info), DEVICE_NOT_READY);
}

}  // namespace
}  // namespace tarn::webdav
