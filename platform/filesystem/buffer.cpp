#include "platform/filesystem/buffer.h"

#include <atomic>
#include <new>
#include <sys/mman.h>

namespace tarn::fs {

namespace {

// From here on the heap would keep memory that threads take and give back in turn; below, it is
// several times as quick.
constexpr size_t kMappedBytes = size_t{32} << 10;

std::atomic<size_t> total = 0;

char* Map(size_t length) {
  void* const mapped =
      ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return mapped == MAP_FAILED ? nullptr : static_cast<char*>(mapped);
}

}  // namespace

std::shared_ptr<Buffer> Buffer::Make(size_t length) {
  auto buffer = std::make_shared<Buffer>();
  if (length < kMappedBytes) {
    buffer->heap.reset(new (std::nothrow) char[length]);
    buffer->bytes = buffer->heap.get();
  } else {
    buffer->bytes = Map(length);
  }
  if (buffer->bytes == nullptr) {
    return nullptr;
  }
  buffer->byte_count = length;
  total += length;
  return buffer;
}

Buffer::~Buffer() {
  if (bytes != nullptr && !heap) {
    (void)::munmap(bytes, byte_count);  // fails only for what was not mapped
  }
  total -= byte_count;
}

size_t Buffer::Total() {
  return total;
}

}  // namespace tarn::fs
