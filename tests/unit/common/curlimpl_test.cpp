#include "common/curlimpl.h"

#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>

#include "common/curlauth.h"
#include "common/curllogger.h"
#include "common/log.h"
#include "tests/support/http/recording_log.h"
#include "tests/support/http/scripted_server.h"

namespace tarn::test {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// "unpacked", packed with gzip.
const std::string kPacked(
    "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03+\xcd+HL\xceNM\x01\x00\x96\x62/\xca\x08\x00\x00\x00",
    28);

// Without an answer here the request comes back as it arrived.
ScriptedServer::Reply Answer(const ScriptedServer::Request& request) {
  const std::map<std::string, ScriptedServer::Reply> answers = {
      {"/stall", {HttpAnswer(200), false, std::chrono::minutes(1)}},
      {"/redirect", HttpAnswer(307, "elsewhere", "Location: /there\r\n")},
      {"/packed", HttpAnswer(200, kPacked, "Content-Encoding: gzip\r\n")},
      {"/refused", HttpAnswer(503, "not now")},
      {"/twenty", HttpAnswer(200, std::string(20, 'x'))},
  };
  const auto answer = answers.find(request.target);
  return answer != answers.end() ? answer->second
                                 : HttpAnswer(200, request.head + "\r\n" + request.body);
}

std::string BodyOf(const _CURLRTN& result) {
  return {result.body.get(), result.body_length};
}

size_t Feed(char* data, size_t, size_t, void* text) {
  auto* rest = static_cast<std::string*>(text);
  const size_t bytes = rest->copy(data, 1);
  rest->erase(0, bytes);
  return bytes;
}

auto IsMessage(const std::string& first_line, const std::string& body) {
  return AllOf(StartsWith(first_line + "\r\n"), EndsWith("\r\n\r\n" + body));
}

auto IsRequest(const std::string& method_and_target, const std::string& body) {
  return IsMessage(method_and_target + " HTTP/1.1", body);
}

class HttpHelperTest : public testing::Test {
 protected:
  HttpHelperTest() { logger = &log; }
  ~HttpHelperTest() override { logger = nullptr; }

  _CURLRTN Get() { return request.PerformGet(nullptr, nullptr); }
  _CURLRTN Get(const std::string& path) {
    request.SetURL(server.Url(path));
    return Get();
  }

  ScriptedServer server{Answer};
  RecordingLog log;
  CURLLogger request;
};

TEST_F(HttpHelperTest, ParametersFollowTheUrlEncodedAndHeadersAreSent) {
  request.SetURL(server.Url("/path"));
  request.AddQuery("a", "x y&z");
  request.AddQuery("b", 2);
  request.AddHeader("X-Number", 7);
  const std::string fresh = BodyOf(Get());
  EXPECT_THAT(fresh, AnyOf(IsRequest("GET /path?a=x%20y%26z&b=2", ""),
                           IsRequest("GET /path?b=2&a=x%20y%26z", "")));
  EXPECT_THAT(fresh, HasSubstr("X-Number: 7\r\n"));
  EXPECT_THAT(fresh, HasSubstr("User-Agent: Velmora(gzip)\r\n"));

  request.Clear();
  const std::string second = BodyOf(Get("/path?has=one"));
  EXPECT_THAT(second, IsRequest("GET /path?has=one", ""));
  EXPECT_THAT(second, Not(HasSubstr("X-Number")));
}

TEST_F(HttpHelperTest, PostsCarryTextParametersOrWhatIsReadAndLeaveNothingBehind) {
  request.SetURL(server.Url("/target"));
  request.AddQuery("name", "a value");
  const std::string parameters = BodyOf(request.PerformPost(nullptr, nullptr, -1));
  EXPECT_THAT(parameters, IsRequest("POST /target", "name=a%20value"));

  request.SetRequest("PUT");
  const _CURLRTN text = request.PerformPost("exactly this");
  EXPECT_THAT(BodyOf(text), IsRequest("PUT /target?name=a%20value", "exactly this"));
  const std::string header = text.header.get();
  EXPECT_THAT(header, IsMessage("HTTP/1.1 200 As Scripted", ""));
  EXPECT_EQ(header.size(), text.header_length);

  request.SetRequest("");
  request.GetQuery().clear();
  const _CURLRTN get = Get();
  EXPECT_THAT(BodyOf(get), IsRequest("GET /target", ""));
  EXPECT_EQ(get.header_length, 0U);
  std::string content = "own";
  const _CURLRTN post = request.PerformPost(reinterpret_cast<void*>(Feed), &content, 3);
  EXPECT_THAT(BodyOf(post), IsRequest("POST /target", "own"));
  EXPECT_EQ(BodyOf(request.PerformPost(nullptr, nullptr, 100)).back(), '\n') << "an empty body";
}

TEST_F(HttpHelperTest, RedirectsEncodingsAndStatusErrorsBecomeResults) {
  request.SetURL(server.Url("/redirect"));
  const _CURLRTN redirected = request.PerformPost("sent twice");
  EXPECT_EQ(redirected.response, 200);
  EXPECT_THAT(BodyOf(redirected), IsRequest("POST /there", "sent twice"));
  EXPECT_EQ(BodyOf(Get("/packed")), "unpacked");
  const _CURLRTN refused = Get("/refused");
  EXPECT_EQ(refused.code, CURLE_OK);
  EXPECT_EQ(refused.response, 503);
  EXPECT_EQ(BodyOf(refused), "not now");
}

TEST_F(HttpHelperTest, FailuresTellTheirReasonAndAStalledServerIsCutOff) {
  request.SetURL("http://127.0.0.1:1/");
  const _CURLRTN refused = Get();
  EXPECT_EQ(refused.code, CURLE_COULDNT_CONNECT);
  EXPECT_THAT(refused.error, HasSubstr("127.0.0.1 port 1"));
  EXPECT_THAT(log.Text(), HasSubstr("Download 0b/s : http://127.0.0.1:1/(0 bytes)\n"));

  request.SetLowSpeedTimeout(1);
  const _CURLRTN stalled = Get("/stall");
  EXPECT_EQ(stalled.code, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(stalled.response, 0);
  EXPECT_EQ(stalled.body, nullptr);

  EXPECT_EQ(Get("/").error, "");
}

TEST_F(HttpHelperTest, UploadsReportProgressUntilClear) {
  using Seen = std::pair<long long, long long>;
  Seen seen;
  const auto note = [](long long total, long long sent, void* context, double) {
    *static_cast<Seen*>(context) = {total, sent};
  };
  request.SetURL(server.Url());
  request.BindHandle(
      std::make_shared<_FS_HANDLE>(_FS_HANDLE{.upload_progress = note, .upload_context = &seen}));
  (void)request.PerformPost(std::string(100'000, 'x'));
  EXPECT_EQ(seen, Seen(100'000, 100'000));

  request.Clear();
  seen = {};
  request.SetURL(server.Url());
  const std::string plain = BodyOf(request.PerformPost(std::string(100'000, 'y')));
  EXPECT_THAT(plain, EndsWith("\r\n\r\n" + std::string(100'000, 'y')));
  EXPECT_EQ(seen, Seen());
}

class Tokens final : public IAuth {
 public:
  bool GetValue(const char* key, char* buffer, int* length) override {
    EXPECT_STREQ(key, "access_token");
    buffer[token.copy(buffer, static_cast<size_t>(*length) - 1)] = '\0';
    return true;
  }
  bool Refresh() override {
    token = "refreshed";
    return true;
  }
  std::string token = "first";
};

TEST_F(HttpHelperTest, SigningTwiceLeavesOneHeaderWithTheLatestToken) {
  const auto tokens = std::make_shared<Tokens>();
  CURLAuth auth(tokens);
  auth.AddAuth("key", "1");
  auth.AddAuth("key", "2");
  const auto shared = std::make_shared<CURLImpl>();
  shared->SetURL(server.Url());
  auth.SignAuthentication(*shared);
  auth.RefreshAuth();
  auth.SignAuthentication(shared);
  const std::string signed_twice = BodyOf(shared->PerformGet(nullptr, nullptr));
  EXPECT_THAT(signed_twice, IsRequest("GET /?key=2", ""));
  EXPECT_THAT(signed_twice, HasSubstr("Authorization: Bearer refreshed\r\n"));
  EXPECT_EQ(signed_twice.find("Authorization:"), signed_twice.rfind("Authorization:"));

  tokens->token = std::string(65535, 't');
  EXPECT_EQ(auth.GetToken(), tokens->token);
}

TEST_F(HttpHelperTest, TheTraceFollowsTheLogLevelAndShowsNoPasswords) {
  log.SetLevel(LOGLEVEL_ERROR | LOGLEVEL_ALL);
  (void)Get("/twenty");
  EXPECT_THAT(log.Text(), Not(HasSubstr("[HEADER")));

  log.SetLevel(LOGLEVEL_DEBUG | LOGLEVEL_ALL);
  (void)request.PerformPost("12345");
  EXPECT_THAT(log.Text(), HasSubstr("[HEADER   <<] POST /twenty HTTP/1.1\r\n"));
  EXPECT_THAT(log.Text(), HasSubstr("[HEADER   >>] HTTP/1.1 200 As Scripted\r\n"));
  EXPECT_THAT(log.Text(), EndsWith(server.Url("/twenty") + "(5 / 20 bytes)\n"));

  std::string line = "PASS secret\r\n";
  CURLDebug(nullptr, CURLINFO_HEADER_OUT, line.data(), line.size(), nullptr);
  EXPECT_THAT(log.Text(), Not(HasSubstr("secret")));
}

}  // namespace
}  // namespace tarn::test
