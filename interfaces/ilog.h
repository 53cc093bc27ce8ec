#pragma once

#include <cstdarg>

#include "interfaces/loglevel.h"

// A logger, made by GetLogger of interfaces/logger.h. Valid until the process ends. Any thread.
struct ILog {
  virtual void SetLevel(LOGLEVEL threshold) = 0;  // 0
  virtual LOGLEVEL GetLevel() = 0;                // 1
  // 2: formats as vprintf and writes one line, if `level` passes the threshold.
  virtual void Write(LOGLEVEL level, const char* format, va_list arguments) = 0;

 protected:
  ~ILog() = default;
};
