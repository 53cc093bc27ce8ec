// The C functions by which the service finds this module and makes protocol objects of it.
#include "interfaces/module.h"

#include <cstdlib>
#include <cstring>
#include <curl/curl.h>
#include <libxml/parser.h>
#include <memory>

#include "common/log.h"
#include "modules/webdav/webdav_protocol.h"

namespace {

constexpr const char* kProtocolTypes = "webdav;webdavs";
constexpr int kVersion = 1;

}  // namespace

extern "C" {

void GetSupportProtocol(char** list) {
  *list = ::strdup(kProtocolTypes);
}

void FreeP(char* text) {
  std::free(text);
}

int GetProtocolVersion() {
  return kVersion;
}

bool GetProtocol(const char* connection_id, void* /*reserved*/, IProtocol_V2** protocol) {
  try {
    *protocol = nullptr;
    if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK) {
      return false;
    }
    xmlInitParser();
    const char* id = connection_id != nullptr ? connection_id : "";
    *protocol = std::make_unique<tarn::webdav::WebdavProtocol>(id).release();
    return true;
  } catch (...) {
    return false;
  }
}

void BindLogger(ILog* log) {
  logger = log;
}
}
