// The C functions by which the service finds this module and makes protocol objects of it.
#include "interfaces/module.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "modules/local/local_protocol.h"

namespace {

constexpr const char* kProtocolTypes = "local";  // several would be separated by ";"
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
    const char* id = connection_id != nullptr ? connection_id : "";
    *protocol = std::make_unique<tarn::local::LocalProtocol>(id).release();
    return true;
  } catch (...) {
    *protocol = nullptr;
    return false;
  }
}

void BindLogger(ILog* log) {
  logger = log;
}
}
