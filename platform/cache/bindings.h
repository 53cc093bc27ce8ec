#pragma once

// What Cache_Bind... lent to the caches of this process.
namespace tarn {

// Writes an error to the logger that is bound; does nothing without one. Formats as printf.
void LogCacheError(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tarn
