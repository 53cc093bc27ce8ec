#pragma once

#include "interfaces/aerror.h"

// Error codes as text and as POSIX error numbers. All texts live as long as the program. Any
// thread.

// The code's name, e.g. "FILE_NOT_FOUND"; "Unknown" for a value without one.
const char* GetAERRORA(AERROR value);

// What a file system call answers: 0 for SUCCESS, -ENOENT for FILE_NOT_FOUND, -EIO otherwise.
int ConvertAERROR(AERROR value);

namespace tarn {

// The code in words for people, e.g. "file not found"; "error" for a value without any.
const char* AERRORMessage(AERROR value);

}  // namespace tarn
