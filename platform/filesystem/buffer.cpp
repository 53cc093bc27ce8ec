#include "platform/filesystem/buffer.h"

#include <atomic>
#include <new>
#include <sys/mman.h>
#include <vector>

#include "common/sync.h"

namespace tarn::fs {

namespace {

// From here on the heap would keep memory that threads take and give back in turn; below, it is
// several times as quick.
constexpr size_t kMappedBytes = size_t{32} << 10;

constexpr size_t kMaxSpare = 4;

std::atomic<size_t> total = 0;

// Fresh memory costs a fault and a cleared page for every 4 KiB, a tenth of the work of reading on.
struct Spare {
  Mutex lock;
  std::vector<char*> buffers TARN_GUARDED_BY(lock);  // of kReusedBytes each
};

Spare& ProcessSpare() {
  static Spare* const spare = std::make_unique<Spare>().release();  // for threads that outlive main
  return *spare;
}

char* TakeSpare() {
  Spare& spare = ProcessSpare();
  const MutexLock guard(spare.lock);
  if (spare.buffers.empty()) {
    return nullptr;
  }
  char* const taken = spare.buffers.back();
  spare.buffers.pop_back();
  return taken;
}

bool KeepSpare(char* bytes) {
  Spare& spare = ProcessSpare();
  const MutexLock guard(spare.lock);
  if (spare.buffers.size() >= kMaxSpare) {
    return false;
  }
  spare.buffers.push_back(bytes);
  return true;
}

char* Map(size_t length) {
  if (char* const spare = length == Buffer::kReusedBytes ? TakeSpare() : nullptr) {
    return spare;
  }
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
  const bool is_mapped = bytes != nullptr && !heap;
  if (is_mapped && (byte_count != kReusedBytes || !KeepSpare(bytes))) {
    (void)::munmap(bytes, byte_count);  // fails only for what was not mapped
  }
  total -= byte_count;
}

void Buffer::Trim() {
  while (char* const spare = TakeSpare()) {
    (void)::munmap(spare, kReusedBytes);  // as above
  }
}

size_t Buffer::Total() {
  return total;
}

}  // namespace tarn::fs
