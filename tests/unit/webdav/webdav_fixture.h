#pragma once

#include <string>

#include "tests/support/http/recording_log.h"
#include "tests/support/module_test.h"

namespace tarn::webdav {

// A protocol object from the module's file, logging everything.
class WebdavTest : public test::ModuleTest {
 protected:
  WebdavTest() : test::ModuleTest(WEBDAV_MODULE) {
    Export<decltype(BindLogger)>("BindLogger")(&log);
  }

  // Makes the protocol object for a URL and connects it. `data` are further members of the mount
  // request's "data", each with a comma in front.
  AERROR ConnectTo(const std::string& url, const std::string& data = "",
                   const std::string& type = "webdav") {
    EXPECT_FALSE(url.empty()) << "the server did not start";
    protocol = Make(url);
    const std::string request = R"({"cmd":"connect","data":{"type":")" + type + "\"" + data + "}}";
    protocol->SetOption("ex_info", request.c_str());
    return Connect(*protocol);
  }

  test::RecordingLog log;
  std::string content;  // of the last Get
  FS_INFO info{};
};

}  // namespace tarn::webdav
