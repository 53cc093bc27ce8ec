#include "tarnsvc/LogSettings.h"

#include "common/folders.h"
#include "common/json.h"
#include "common/posix.h"
#include "tarnsvc/main.h"

namespace tarn {

namespace {

constexpr size_t kSettingsLimitBytes = size_t{1} << 20;

std::string LogFile() {
  const auto folder = JoinPath(HomeFolder(), "/Library/Logs/" + ServiceName());
  if (!folder) {
    return "";
  }
  (void)CreateDirectory(folder->c_str(), nullptr);  // opening the log tells whether it worked
  return JoinPath(*folder, "/tarnsvclog").value_or("");
}

LOGLEVEL ReadThreshold(const std::string& file, LOGLEVEL default_threshold) {
  std::string text;
  if (!ReadFile(file, kSettingsLimitBytes, text)) {
    return default_threshold;
  }
  try {
    Json settings(text.data(), static_cast<unsigned int>(text.size()));
    if (settings.HasObject("/log_level")) {
      return ThresholdFromText(settings.GetObject("/log_level"));
    }
  } catch (AERROR) {
    // Not JSON: as if there were no file.
  }
  return default_threshold;
}

}  // namespace

LOGLEVEL ThresholdFromText(const std::string& level) {
  return (level == "DEBUG" ? LOGLEVEL_DEBUG : LOGLEVEL_ERROR) | LOGLEVEL_ALL;
}

LogSettings ReadLogSettings() {
  LogSettings settings;
  settings.log_file = LogFile();
  if (const auto data_folder = DataPath("")) {
    (void)CreateDirectory(data_folder->c_str(), nullptr);
  }
  if (const auto file = DataPath("/velmora2.json")) {
    settings.threshold = ReadThreshold(*file, settings.threshold);
  }
  return settings;
}

}  // namespace tarn
