#include "tarnctl/output.h"

#include <cstdio>

namespace tarn {

namespace {

void PrintLine(std::FILE* stream, const std::string& text) {
  (void)std::fprintf(stream, "%s\n", text.c_str());
  (void)std::fflush(stream);
}

}  // namespace

int Output::Tell(const std::string& text, const Json& json) const {
  PrintLine(stdout, as_json ? json.ToText() : text);
  return kExitOk;
}

int Output::Fail(const std::string& text, int code, Exit status) const {
  if (!as_json) {
    PrintLine(stderr, "tarnctl: " + text);
    return status;
  }
  JsonObject error;
  error.Insert("code", code);
  error.Insert("message", text);
  Json json;
  json.Insert("error", error);
  PrintLine(stdout, json.ToText());
  return status;
}

}  // namespace tarn
