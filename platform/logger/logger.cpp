#include "interfaces/logger.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/sync.h"
#include "interfaces/aerror.h"
#include "platform/logger/log_file.h"
#include "platform/logger/log_line.h"
#include "platform/logger/name_claim.h"

namespace tarn {

namespace {

constexpr std::uint32_t kSeverities = 0xFF;
constexpr std::uint32_t kChannels = LOGLEVEL_ALL;

constexpr auto kNothingPasses = static_cast<LOGLEVEL>(kSeverities);

constexpr bool Passes(LOGLEVEL level, LOGLEVEL threshold) {
  const std::uint32_t channel = level & kChannels;
  return (level & kSeverities) >= (threshold & kSeverities) &&
         (channel == 0 || (channel & threshold) != 0);
}

// One named logger. Any thread; also in a forked child before exec, see LogFile.
class FileLog final : public ILog {
 public:
  FileLog(std::shared_ptr<const LogFile> log_file, NameClaim claimed, const char* name,
          LOGLEVEL initial)
      : file(std::move(log_file)),
        claim(std::move(claimed)),
        name_field(LogNameField(name)),
        threshold(initial) {}

  void SetLevel(LOGLEVEL wanted) override { threshold.store(wanted, std::memory_order_relaxed); }
  LOGLEVEL GetLevel() override { return threshold.load(std::memory_order_relaxed); }

  void Write(LOGLEVEL level, const char* format, va_list arguments) override {
    if (!Passes(level, GetLevel()) || format == nullptr) {
      return;
    }
    const int callers_errno = errno;
    LogLineBuffer buffer;
    file->Append(FormatLogLine(buffer, std::chrono::system_clock::now(), level, name_field, format,
                               arguments));
    errno = callers_errno;
  }

  // Gives the name free. Messages are dropped from now on.
  void Silence() {
    SetLevel(kNothingPasses);
    claim.reset();
  }

 private:
  std::shared_ptr<const LogFile> file;
  std::optional<NameClaim> claim;
  std::string name_field;
  std::atomic<LOGLEVEL> threshold;
};

// What this process logs to, and its loggers by name. Never destroyed: threads may log until the
// process has ended.
struct Loggers {
  Mutex mutex;
  std::shared_ptr<const LogFile> file TARN_GUARDED_BY(mutex);  // empty before InitLogger
  std::map<std::string, std::unique_ptr<FileLog>, std::less<>> by_name TARN_GUARDED_BY(mutex);
  // Ended ones: a thread may still be writing, and modules keep the pointer that they were lent.
  std::vector<std::unique_ptr<FileLog>> released TARN_GUARDED_BY(mutex);
};

Loggers& ProcessLoggers() {
  static Loggers* const loggers = std::make_unique<Loggers>().release();
  return *loggers;
}

// The file for a path, opened; empty when it cannot be. Absolute, because the process may change
// its working directory before the next rotation.
std::shared_ptr<const LogFile> OpenLogFile(const char* path) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  if (error) {
    return nullptr;
  }
  auto file = std::make_shared<LogFile>(absolute.string());
  return file->Open() ? file : nullptr;
}

}  // namespace

}  // namespace tarn

int InitLogger(const char* path) {
  tarn::Loggers& loggers = tarn::ProcessLoggers();
  const tarn::MutexLock lock(loggers.mutex);
  loggers.file = path == nullptr ? nullptr : tarn::OpenLogFile(path);
  return loggers.file == nullptr ? FILE_OPEN_FAILED : SUCCESS;
}

int GetLogger(int kind, const char* name, LOGLEVEL threshold, ILog** logger) {
  if (kind != LOGGER_KIND_FILE || name == nullptr || logger == nullptr) {
    return INVALID_PARAMETER;
  }
  tarn::Loggers& loggers = tarn::ProcessLoggers();
  const tarn::MutexLock lock(loggers.mutex);
  if (loggers.file == nullptr) {
    return DEVICE_NOT_READY;
  }
  std::optional<tarn::NameClaim> claim = tarn::NameClaim::Take(loggers.file->locks_folder(), name);
  if (!claim || loggers.by_name.contains(name)) {
    return ALREADY_EXISTS;
  }
  auto made = std::make_unique<tarn::FileLog>(loggers.file, std::move(*claim), name, threshold);
  *logger = made.get();
  loggers.by_name.emplace(name, std::move(made));
  return SUCCESS;
}

int ReleaseLogger(const char* name) {
  tarn::Loggers& loggers = tarn::ProcessLoggers();
  const tarn::MutexLock lock(loggers.mutex);
  const auto found = name == nullptr ? loggers.by_name.end() : loggers.by_name.find(name);
  if (found == loggers.by_name.end()) {
    return FILE_NOT_FOUND;
  }
  found->second->Silence();
  loggers.released.push_back(std::move(found->second));
  loggers.by_name.erase(found);
  return SUCCESS;
}
