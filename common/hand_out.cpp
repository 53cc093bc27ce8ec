#include "common/hand_out.h"

#include <cstring>

namespace tarn {

AERROR HandOut(std::string_view text, char* buffer, int* length) {
  if (buffer == nullptr || length == nullptr || *length <= 0) {
    return INVALID_PARAMETER;
  }
  if (text.size() >= static_cast<size_t>(*length)) {
    return INSUFFICIENT_BUFFER;
  }
  std::memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = '\0';
  *length = static_cast<int>(text.size());
  return SUCCESS;
}

}  // namespace tarn
