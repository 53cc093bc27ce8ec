#pragma once

#include <cstddef>
#include <memory>

namespace tarn::fs {

// Memory for content on its way. Large ones of one size are used again while content flows; the
// rest goes back to the system at once.
//
// Threads: any; who shares the content sees to it that nobody reads what another one writes.
class Buffer {
 public:
  // Null when there is no memory.
  [[nodiscard]] static std::shared_ptr<Buffer> Make(size_t length);
  // Bytes in all buffers of this process.
  [[nodiscard]] static size_t Total();
  // Gives back to the system what is only kept to be used again.
  static void Trim();

  static constexpr size_t kReusedBytes = size_t{2} << 20;

  Buffer() = default;
  ~Buffer();
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  [[nodiscard]] char* data() { return bytes; }
  [[nodiscard]] const char* data() const { return bytes; }
  [[nodiscard]] size_t size() const { return byte_count; }

 private:
  std::unique_ptr<char[]> heap;  // of a small one
  char* bytes = nullptr;
  size_t byte_count = 0;
};

// A part of some content, and what keeps it.
struct Bytes {
  std::shared_ptr<const void> owner;
  const char* data = nullptr;
  size_t length = 0;
};

}  // namespace tarn::fs
