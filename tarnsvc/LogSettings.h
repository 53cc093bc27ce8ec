#pragma once

#include <string>

#include "interfaces/loglevel.h"

// What both kinds of process need to open their logger.
namespace tarn {

inline constexpr char kVersion[] = "2.7.0-dev 105";

struct LogSettings {
  std::string log_file;  // empty where the path does not fit its buffer: the process has no logger
  LOGLEVEL threshold = LOGLEVEL_ERROR | LOGLEVEL_ALL;
};

// "DEBUG" shows everything; any other text only failures.
LOGLEVEL ThresholdFromText(const std::string& level);

// Creates the log folder and the data folder and reads the log settings file. A file that is
// missing or makes no sense leaves the default threshold.
LogSettings ReadLogSettings();

}  // namespace tarn
