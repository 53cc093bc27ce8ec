#pragma once

#include <array>
#include <atomic>
#include <cstdio>
#include <string>

#include "common/sync.h"
#include "interfaces/ilog.h"

namespace tarn::test {

// A logger that keeps every message; the threshold is only remembered. Any thread.
class RecordingLog final : public ILog {
 public:
  void SetLevel(LOGLEVEL next) override { threshold = next; }
  LOGLEVEL GetLevel() override { return threshold; }

  void Write(LOGLEVEL /*level*/, const char* format, va_list arguments) override
      __attribute__((format(printf, 3, 0))) {
    std::array<char, 16384> line{};
    std::vsnprintf(line.data(), line.size(), format, arguments);
    const MutexLock lock(guard);
    text.append(line.data()).append("\n");
  }

  // The texts of all messages, one a line.
  [[nodiscard]] std::string Text() {
    const MutexLock lock(guard);
    return text;
  }

 private:
  std::atomic<LOGLEVEL> threshold{LOGLEVEL_DEBUG | LOGLEVEL_ALL};
  Mutex guard;
  std::string text TARN_GUARDED_BY(guard);
};

}  // namespace tarn::test
