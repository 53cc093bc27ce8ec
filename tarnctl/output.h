#pragma once

#include <string>

#include "common/json.h"

namespace tarn {

// Exit statuses of tarnctl.
enum Exit : int { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitNotRunning = 3 };

// Prints what a command has to say: words for people, or one JSON object a line. Lines go out at
// once, whoever reads them. One thread.
class Output {
 public:
  explicit Output(bool prints_json) : as_json(prints_json) {}

  // Standard output. Returns kExitOk.
  int Tell(const std::string& text, const Json& json) const;

  // Standard error for people; as JSON {"error":{"code":code,"message":text}} on standard output.
  // Returns `status`.
  int Fail(const std::string& text, int code = -1, Exit status = kExitFailed) const;

 private:
  bool as_json;
};

}  // namespace tarn
