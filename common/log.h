#pragma once

#include "interfaces/ilog.h"

// The process's logger: null until logging is set up, and for good where that fails. Set once,
// before other threads start. A protocol module has its own, which its BindLogger sets.
extern ILog* logger;

// Writes one message through `log`; does nothing when `log` is null. Formats as printf. Any thread.
void __LOG__A(ILog* log, LOGLEVEL level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

namespace tarn {

// The last component of a source path, for the " [%s:%d]" at the end of every message.
constexpr const char* SourceName(const char* path) {
  const char* name = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') {
      name = p + 1;
    }
  }
  return name;
}

}  // namespace tarn

// The two arguments for " [%s:%d]".
#define TARN_SOURCE tarn::SourceName(__FILE__), __LINE__
