#include "modules/local/connection_id.h"

#include <charconv>

namespace tarn::local {

namespace {

constexpr std::string_view kScheme = "file://";
constexpr std::string_view kThisMachine = "localhost";

// The empty text for a "%" that is not followed by two hexadecimal digits, and for a zero byte.
std::string PercentDecoded(std::string_view text) {
  std::string decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    const std::string_view digits = text.substr(i + 1, 2);
    unsigned char byte = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (error != std::errc() || end != digits.data() + 2 || byte == 0) {
      return {};
    }
    decoded += static_cast<char>(byte);
    i += 2;
  }
  return decoded;
}

}  // namespace

std::string FolderOfConnectionId(std::string_view connection_id) {
  if (connection_id.starts_with('/')) {
    return std::string(connection_id);
  }
  if (!connection_id.starts_with(kScheme)) {
    return {};
  }
  std::string_view place = connection_id.substr(kScheme.size());
  if (place.starts_with(kThisMachine)) {
    place.remove_prefix(kThisMachine.size());
  }
  return place.starts_with('/') ? PercentDecoded(place) : std::string();
}

}  // namespace tarn::local
