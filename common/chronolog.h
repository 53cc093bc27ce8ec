#pragma once

#include <string>

#include "common/chrono.h"

// Logs how long the block took at whose start it stands: "<label> : <milliseconds>ms".
class ChronoLog : public Chrono {
 public:
  explicit ChronoLog(const std::string& label_text);
  ~ChronoLog() override;
  ChronoLog(const ChronoLog&) = delete;
  ChronoLog& operator=(const ChronoLog&) = delete;

 private:
  std::string label;
};
