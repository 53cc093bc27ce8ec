#include "common/chronolog.h"

#include "common/log.h"

ChronoLog::ChronoLog(const std::string& label_text) : label(label_text) {}

ChronoLog::~ChronoLog() {
  __LOG__A(logger, LOGLEVEL_INFO | LOGLEVEL_SERVICE, "%s : %lldms", label.c_str(),
           static_cast<long long>(elapsed()));
}
