#pragma once

#include <array>
#include <cstdint>

// The frame that both connections carry, client to service and service to drive process: a signed
// 32-bit little-endian length, then that many bytes of JSON text.
namespace tarn {

inline constexpr std::int32_t kMaxFrameBytes = 64 * 1024 * 1024;  // more is taken for garbage
inline constexpr int kFrameHeaderBytes = 4;

using FrameHeader = std::array<unsigned char, kFrameHeaderBytes>;

constexpr FrameHeader EncodeFrameHeader(std::int32_t length_bytes) {
  const auto bits = static_cast<std::uint32_t>(length_bytes);
  return {static_cast<unsigned char>(bits), static_cast<unsigned char>(bits >> 8),
          static_cast<unsigned char>(bits >> 16), static_cast<unsigned char>(bits >> 24)};
}

// The length as it stands, whatever it is; ask IsFrameLength before using it.
constexpr std::int32_t DecodeFrameHeader(const FrameHeader& header) {
  return static_cast<std::int32_t>(std::uint32_t{header[0]} | std::uint32_t{header[1]} << 8 |
                                   std::uint32_t{header[2]} << 16 | std::uint32_t{header[3]} << 24);
}

constexpr bool IsFrameLength(std::int32_t length_bytes) {
  return length_bytes >= 0 && length_bytes <= kMaxFrameBytes;
}

}  // namespace tarn
