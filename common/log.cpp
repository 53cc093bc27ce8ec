#include "common/log.h"

#include <cstdarg>

ILog* logger = nullptr;

void __LOG__A(ILog* log, LOGLEVEL level, const char* format, ...) {
  if (log == nullptr) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  log->Write(level, format, arguments);
  va_end(arguments);
}
