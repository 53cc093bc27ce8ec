#include "platform/filesystem/bindings.h"

#include <cstdarg>

namespace tarn::fs {

Bindings& Bindings::Get() {
  static auto* const bindings = new Bindings;  // never destroyed: threads may outlive main()
  return *bindings;
}

void Bindings::SetServiceName(const char* name) {
  const MutexLock guard(lock);
  service_name = name;
}

std::string Bindings::GetServiceName() {
  const MutexLock guard(lock);
  return service_name;
}

void Log(LOGLEVEL level, const char* format, ...) {
  const Lent<ILog>::Lease log(Bindings::Get().loggers[0]);
  if (log) {
    va_list arguments;
    va_start(arguments, format);
    log->Write(level, format, arguments);
    va_end(arguments);
  }
}

}  // namespace tarn::fs
