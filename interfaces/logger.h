#pragma once

#include "interfaces/ilog.h"

inline constexpr int LOGGER_KIND_FILE = 2;  // the only kind there is

extern "C" {

// Names the log file for this process. Returns 0 on success; otherwise there is no logging.
int InitLogger(const char* path);

// Makes the logger `name` in *logger. Returns 0 on success; non-zero for an unknown kind, before
// InitLogger, and for a name that a live process uses.
int GetLogger(int kind, const char* name, LOGLEVEL threshold, ILog** logger);

// Gives the name free. The object stays valid, because threads and modules may still hold it, but
// drops its messages. Returns 0; non-zero for a name not in use here.
int ReleaseLogger(const char* name);
}
