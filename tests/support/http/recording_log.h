#pragma once

#include <array>
#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

#include "common/sync.h"
#include "interfaces/ilog.h"

namespace tarn::test {

// A logger that keeps every message; the threshold is only remembered. Any thread.
class RecordingLog final : public ILog {
 public:
  struct Message {
    LOGLEVEL level;
    std::string text;
  };

  explicit RecordingLog(LOGLEVEL first = LOGLEVEL_DEBUG | LOGLEVEL_ALL) : threshold(first) {}

  void SetLevel(LOGLEVEL next) override { threshold = next; }
  LOGLEVEL GetLevel() override { return threshold; }

  void Write(LOGLEVEL level, const char* format, va_list arguments) override
      __attribute__((format(printf, 3, 0))) {
    std::array<char, 16384> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    const MutexLock lock(guard);
    messages.push_back({level, text.data()});
  }

  [[nodiscard]] std::vector<Message> Messages() {
    const MutexLock lock(guard);
    return messages;
  }

  // The texts of all messages, one a line.
  [[nodiscard]] std::string Text() {
    std::string all;
    for (const Message& message : Messages()) {
      all += message.text + "\n";
    }
    return all;
  }

  void Clear() {
    const MutexLock lock(guard);
    messages.clear();
  }

 private:
  std::atomic<LOGLEVEL> threshold;
  Mutex guard;
  std::vector<Message> messages TARN_GUARDED_BY(guard);
};

}  // namespace tarn::test
