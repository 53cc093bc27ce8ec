#pragma once

#include <string_view>

#include "interfaces/aerror.h"

namespace tarn {

// Copies a text with its terminating zero into a caller's buffer. *length is the buffer's capacity,
// then the text's bytes. INSUFFICIENT_BUFFER, and nothing copied, where it does not fit.
[[nodiscard]] AERROR HandOut(std::string_view text, char* buffer, int* length);

}  // namespace tarn
