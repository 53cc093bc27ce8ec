#include "common/curlimpl.h"

#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/curlauth.h"
#include "common/curllogger.h"
#include "common/log.h"
#include "tests/support/http/echo_server.h"
#include "tests/support/http/recording_log.h"

namespace tarn::test {
namespace {

using testing::AnyOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::string BodyOf(const _CURLRTN& result) {
  return {result.body.get(), result.body_length};
}

int Count(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

size_t Feed(char* data, size_t, size_t, void* text) {
  auto* rest = static_cast<std::string*>(text);
  const size_t bytes = rest->copy(data, 1);
  rest->erase(0, bytes);
  return bytes;
}

curl_httppost* FormWithField() {
  curl_httppost* first = nullptr;
  curl_httppost* last = nullptr;
  curl_formadd(&first, &last, CURLFORM_COPYNAME, "field", CURLFORM_COPYCONTENTS, "in a form",
               CURLFORM_END);
  return first;
}

// Each test performs against a server that answers with the request as it arrived.
class HttpHelperTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(server.Url("/").empty()) << "the echo server did not start";
    logger = &log;
  }
  ~HttpHelperTest() override { logger = nullptr; }

  EchoServer server;
  RecordingLog log;
};

TEST_F(HttpHelperTest, ParametersFollowTheUrlEncodedAndHeadersAreSent) {
  CURLImpl request;
  request.SetURL(server.Url("/path"));
  request.AddQuery("a", "x y&z");
  request.AddQuery("b", 1);
  request.AddQuery("b", 2);
  request.AddHeader("X-Number", 7);
  const std::string fresh = BodyOf(request.PerformGet(nullptr, nullptr));
  EXPECT_THAT(fresh, AnyOf(StartsWith("GET /path?a=x%20y%26z&b=2 HTTP/1.1\r\n"),
                           StartsWith("GET /path?b=2&a=x%20y%26z HTTP/1.1\r\n")));
  EXPECT_THAT(fresh, HasSubstr("X-Number: 7\r\n"));
  EXPECT_THAT(fresh, HasSubstr("User-Agent: Velmora(gzip)\r\n"));

  request.Clear();
  request.SetURL(server.Url("/path?has=one"));
  request.AddQuery("a", "1");
  request.SetRequest("PROPFIND");
  const std::string second = BodyOf(request.PerformGet(nullptr, nullptr));
  EXPECT_THAT(second, StartsWith("PROPFIND /path?has=one&a=1 HTTP/1.1\r\n"));
  EXPECT_THAT(second, Not(HasSubstr("X-Number")));
}

TEST_F(HttpHelperTest, PostsCarryTextParametersOrWhatIsRead) {
  CURLImpl request;
  request.SetURL(server.Url("/target"));
  request.AddQuery("name", "a value");
  const std::string parameters = BodyOf(request.PerformPost(nullptr, nullptr, -1));
  EXPECT_THAT(parameters, StartsWith("POST /target HTTP/1.1\r\n"));
  EXPECT_THAT(parameters, EndsWith("\r\n\r\nname=a%20value"));

  const _CURLRTN text = request.PerformPost("exactly this");
  EXPECT_THAT(BodyOf(text), StartsWith("POST /target?name=a%20value HTTP/1.1\r\n"));
  EXPECT_THAT(BodyOf(text), EndsWith("\r\n\r\nexactly this"));
  EXPECT_THAT(std::string(text.header.get()), StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(std::string(text.header.get()), EndsWith("\r\n\r\n"));
  EXPECT_EQ(std::string(text.header.get()).size(), text.header_length);

  std::string content = "abc";
  const _CURLRTN read = request.PerformPost(reinterpret_cast<void*>(Feed), &content, 3);
  EXPECT_THAT(BodyOf(read), EndsWith("\r\n\r\nabc"));
}

TEST_F(HttpHelperTest, ARedirectGetsTheBodyAgain) {
  CURLImpl request;
  request.SetURL(server.Url("/redirect/there"));
  const _CURLRTN result = request.PerformPost("sent twice");
  EXPECT_EQ(result.response, 200);
  EXPECT_THAT(BodyOf(result), HasSubstr("POST /there HTTP/1.1\r\n"));
  EXPECT_THAT(BodyOf(result), EndsWith("\r\n\r\nsent twice"));
}

TEST_F(HttpHelperTest, NothingOfAPostReachesTheNextRequest) {
  CURLImpl request;
  request.SetURL(server.Url("/"));
  request.SetRequest("PUT");
  request.AddQuery("gone", "text");
  (void)request.PerformPost(nullptr, nullptr, -1);
  (void)request.PerformPost("with a descriptor");
  request.SetRequest("");
  request.GetQuery().clear();
  const _CURLRTN get = request.PerformGet(nullptr, nullptr);
  EXPECT_THAT(BodyOf(get), StartsWith("GET / HTTP/1.1\r\n"));
  EXPECT_EQ(get.header_length, 0U);

  std::string content = "own";
  const _CURLRTN post = request.PerformPost(reinterpret_cast<void*>(Feed), &content, 3);
  EXPECT_THAT(BodyOf(post), EndsWith("\r\n\r\nown"));
  EXPECT_EQ(BodyOf(request.PerformPost(nullptr, nullptr, 100)).back(), '\n') << "an empty body";
}

TEST_F(HttpHelperTest, EncodedBodiesAreUnpackedAndStatusErrorsAreResults) {
  CURLImpl request;
  request.SetURL(server.Url("/gzip"));
  EXPECT_EQ(BodyOf(request.PerformGet(nullptr, nullptr)), "unpacked");
  request.SetURL(server.Url("/status/503"));
  const _CURLRTN refused = request.PerformGet(nullptr, nullptr);
  EXPECT_EQ(refused.code, CURLE_OK);
  EXPECT_EQ(refused.response, 503);
  EXPECT_EQ(BodyOf(refused), "status 503");
}

TEST_F(HttpHelperTest, FailuresTellTheirReasonAndAStalledServerIsCutOff) {
  CURLLogger request;
  request.SetURL("http://127.0.0.1:1/");
  const _CURLRTN refused = request.PerformGet(nullptr, nullptr);
  EXPECT_EQ(refused.code, CURLE_COULDNT_CONNECT);
  EXPECT_THAT(refused.error, HasSubstr("127.0.0.1 port 1"));
  EXPECT_THAT(log.Text(), HasSubstr("Download 0b/s : http://127.0.0.1:1/(0 bytes)\n"));

  request.SetURL(server.Url("/stall"));
  request.SetLowSpeedTimeout(1);
  const _CURLRTN stalled = request.PerformGet(nullptr, nullptr);
  EXPECT_EQ(stalled.code, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(stalled.response, 0);
  EXPECT_EQ(stalled.body, nullptr);

  request.SetURL(server.Url("/bytes/1"));
  EXPECT_EQ(request.PerformGet(nullptr, nullptr).error, "");
}

struct ProgressCalls {
  int count = 0;
  long long total = 0;
  long long sent = 0;
};

void CountProgress(long long total, long long sent, void* context, double) {
  auto* calls = static_cast<ProgressCalls*>(context);
  *calls = {.count = calls->count + 1, .total = total, .sent = sent};
}

TEST_F(HttpHelperTest, UploadsReportProgressAndClearEndsFormLimitsAndReports) {
  ProgressCalls calls;
  CURLImpl request;
  request.SetURL(server.Url("/"));
  request.BindHandle(std::make_shared<_FS_HANDLE>(
      _FS_HANDLE{.upload_progress = CountProgress, .upload_context = &calls}));
  (void)request.PerformPost(std::string(100'000, 'x'));
  EXPECT_EQ(calls.total, 100'000);
  EXPECT_EQ(calls.sent, 100'000);

  request.SetPost(FormWithField());
  const std::string with_form = BodyOf(request.PerformPost(nullptr, nullptr, -1));
  EXPECT_THAT(with_form, HasSubstr("Content-Type: multipart/form-data"));
  EXPECT_THAT(with_form, HasSubstr("in a form"));

  request.SetSpeedLimit(100);
  request.Clear();
  calls = {};
  request.SetURL(server.Url("/"));
  const auto start = std::chrono::steady_clock::now();
  const std::string plain = BodyOf(request.PerformPost(std::string(100'000, 'y')));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  EXPECT_THAT(plain, EndsWith("\r\n\r\n" + std::string(100'000, 'y')));
  EXPECT_EQ(calls.count, 0);
}

class Tokens final : public IAuth {
 public:
  bool GetValue(const char* key, char* buffer, int* length) override {
    EXPECT_STREQ(key, "access_token");
    EXPECT_EQ(*length, 65536);
    buffer[token.copy(buffer, 65535)] = '\0';
    return known;
  }
  bool Refresh() override {
    token = "refreshed";
    return true;
  }
  std::string token = "first";
  bool known = true;
};

TEST_F(HttpHelperTest, SigningTwiceLeavesOneHeaderWithTheLatestToken) {
  const auto tokens = std::make_shared<Tokens>();
  CURLAuth auth(tokens);
  auth.AddAuth("key", "1");
  auth.AddAuth("key", "2");
  const auto request = std::make_shared<CURLImpl>();
  request->SetURL(server.Url("/"));
  auth.SignAuthentication(*request);
  auth.RefreshAuth();
  auth.SignAuthentication(request);
  const std::string signed_twice = BodyOf(request->PerformGet(nullptr, nullptr));
  EXPECT_THAT(signed_twice, StartsWith("GET /?key=2 HTTP/1.1\r\n"));
  EXPECT_EQ(Count(signed_twice, "Authorization:"), 1);
  EXPECT_THAT(signed_twice, HasSubstr("Authorization: Bearer refreshed\r\n"));

  tokens->token = std::string(65535, 't');
  EXPECT_EQ(auth.GetToken(), tokens->token);
  tokens->known = false;
  EXPECT_EQ(auth.GetToken(), "") << "what the buffer holds after a failure is no token";
}

TEST_F(HttpHelperTest, TheTraceFollowsTheLogLevelFromRequestToRequest) {
  CURLLogger request;
  request.SetURL(server.Url("/bytes/1000"));
  request.AddQuery("q", "a b");
  log.SetLevel(LOGLEVEL_ERROR | LOGLEVEL_ALL);
  (void)request.PerformGet(nullptr, nullptr);
  EXPECT_THAT(log.Text(), Not(HasSubstr("[HEADER")));
  EXPECT_EQ(request.GetLastURL(), server.Url("/bytes/1000?q=a b"));

  log.SetLevel(LOGLEVEL_DEBUG | LOGLEVEL_ALL);
  request.GetQuery().clear();
  (void)request.PerformGet(nullptr, nullptr);
  EXPECT_THAT(log.Text(), HasSubstr("[HEADER   <<] GET /bytes/1000 HTTP/1.1\r\n"));
  EXPECT_THAT(log.Text(), HasSubstr("[HEADER   >>] HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(log.Text(), Not(HasSubstr("[HEADER   >>] \r")));
  const RecordingLog::Message last = log.Messages().back();
  EXPECT_EQ(last.level, LOGLEVEL_DEBUG | LOGLEVEL_TRANSFER);
  EXPECT_THAT(last.text, HasSubstr(" : " + server.Url("/bytes/1000") + "(1000 bytes)"));
}

TEST_F(HttpHelperTest, ATextPostIsSummedUpTwice) {
  CURLLogger request;
  request.SetURL(server.Url("/bytes/20"));
  (void)request.PerformPost("12345");
  EXPECT_EQ(Count(log.Text(), server.Url("/bytes/20") + "(-1 / 20 bytes)"), 1);
  EXPECT_THAT(log.Messages().back().text, HasSubstr(server.Url("/bytes/20") + "(5 / 20 bytes)"));
}

TEST_F(HttpHelperTest, PasswordLinesAreNeverWritten) {
  std::string password = "PASS secret\r\n";
  std::string user = "USER somebody\r\n";
  CURLDebug(nullptr, CURLINFO_HEADER_OUT, password.data(), password.size(), nullptr);
  CURLDebug(nullptr, CURLINFO_HEADER_OUT, user.data(), user.size(), nullptr);
  EXPECT_EQ(log.Text(), "[HEADER   <<] USER somebody\r\n\n");
}

}  // namespace
}  // namespace tarn::test
