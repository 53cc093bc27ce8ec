#include "platform/cache/bindings.h"

#include <cstdarg>

#include "common/sync.h"
#include "interfaces/cache.h"

namespace tarn {

namespace {

// Held while the logger is used, so that Unbind returns only when it no longer is.
Mutex bindings_lock;
ILog* bound_logger TARN_GUARDED_BY(bindings_lock) = nullptr;
// Reading and writing take place on the caller's own threads, so nothing is queued yet.
IAsyncQ* bound_queue [[maybe_unused]] TARN_GUARDED_BY(bindings_lock) = nullptr;

void BindLogger(ILog* log) {
  const MutexLock lock(bindings_lock);
  bound_logger = log;
}

void BindQueue(IAsyncQ* queue) {
  const MutexLock lock(bindings_lock);
  bound_queue = queue;
}

}  // namespace

void LogCacheError(const char* format, ...) {
  const MutexLock lock(bindings_lock);
  if (bound_logger == nullptr) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  bound_logger->Write(LOGLEVEL_ERROR | LOGLEVEL_SERVICE, format, arguments);
  va_end(arguments);
}

}  // namespace tarn

void Cache_BindAsyncQ(IAsyncQ* queue) {
  tarn::BindQueue(queue);
}

void Cache_BindLogger(ILog* logger) {
  tarn::BindLogger(logger);
}

void Cache_UnbindAsyncQ() {
  tarn::BindQueue(nullptr);
}

void Cache_UnbindLogger() {
  tarn::BindLogger(nullptr);
}
