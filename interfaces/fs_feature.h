#pragma once

#include <cstdint>

// Feature bits of a mounted drive. Bits without a name are kept and handed back as they are.
enum FS_FEATURE : std::int64_t {
  FS_FEATURE_NONE = 0,
  FS_FEATURE_CLIENT = 0x20,  // asked for by the client's mount option 0x400
};

// Combines the low 32 bits; the result is widened with its sign.
constexpr FS_FEATURE operator|(FS_FEATURE a, FS_FEATURE b) {
  return static_cast<FS_FEATURE>(static_cast<std::int32_t>(static_cast<std::int64_t>(a)) |
                                 static_cast<std::int32_t>(static_cast<std::int64_t>(b)));
}
