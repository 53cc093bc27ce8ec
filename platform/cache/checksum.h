#pragma once

#include <cstddef>
#include <cstdint>

namespace tarn {

// Tells damaged content from what was stored. Made for speed, not against somebody who forges.
std::uint64_t Checksum(const void* data, size_t length_bytes);

}  // namespace tarn
