#pragma once

#include <cstdint>

// A set of bits. A message carries one severity and at most one channel; a logger's threshold
// carries one severity and a mask of channels.
enum LOGLEVEL : std::uint32_t {
  LOGLEVEL_DEBUG = 0x1,
  LOGLEVEL_INFO = 0x2,
  LOGLEVEL_ERROR = 0x8,

  LOGLEVEL_SERVICE = 0x400,    // the service and its drive processes
  LOGLEVEL_HTTP = 0x800,       // trace of HTTP requests
  LOGLEVEL_TRANSFER = 0x2000,  // summaries of HTTP transfers
  LOGLEVEL_ALL = 0xFF00,       // every channel; for thresholds only
};

constexpr LOGLEVEL operator|(LOGLEVEL a, LOGLEVEL b) {
  return static_cast<LOGLEVEL>(static_cast<std::uint32_t>(a) | static_cast<std::uint32_t>(b));
}

constexpr LOGLEVEL operator&(LOGLEVEL a, LOGLEVEL b) {
  return static_cast<LOGLEVEL>(static_cast<std::uint32_t>(a) & static_cast<std::uint32_t>(b));
}
