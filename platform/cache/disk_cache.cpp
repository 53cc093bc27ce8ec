#include "platform/cache/disk_cache.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "common/log.h"
#include "platform/cache/bindings.h"
#include "platform/cache/checksum.h"

namespace tarn {

namespace {

constexpr int kWriteAttempts = 2;  // the second after the cache has shrunk

std::uint64_t UnitsFor(unsigned int length_bytes) {
  return std::max<std::uint64_t>(1, (length_bytes + kUnitBytes - 1) / kUnitBytes);
}

}  // namespace

DiskCache::DiskCache(const std::string& folder_path, unsigned long long capacity_in_bytes)
    : folder(folder_path),
      capacity_bytes(capacity_in_bytes),
      max_units(static_cast<std::uint32_t>(std::min<std::uint64_t>(
          capacity_in_bytes / kUnitBytes, std::numeric_limits<std::uint32_t>::max()))),
      store(folder_path + "/blocks"),
      unit_limit(max_units) {}

AERROR DiskCache::ReadBlock(const char* key, const char* version, unsigned long long number,
                            void* buffer, unsigned int capacity, unsigned int* length) {
  if (key == nullptr || version == nullptr || buffer == nullptr || length == nullptr) {
    return INVALID_PARAMETER;
  }
  const BlockName name{key, version, number};
  BlockIndex::Block found;
  {
    const MutexLock lock(mutex);
    const BlockIndex::Block* const block = index.Use(name);
    if (block == nullptr) {
      return CACHE_BLOCK_EMPTY;
    }
    found = *block;
  }
  *length = found.length;
  if (found.length > capacity) {
    return INSUFFICIENT_BUFFER;
  }
  const bool intact = store.Read(found.units, buffer, found.length) &&
                      Checksum(buffer, found.length) == found.checksum;
  MutexLock lock(mutex);
  const BlockIndex::Block* const block = index.Find(name);
  if (block == nullptr || block->id != found.id) {
    return CACHE_BLOCK_EMPTY;
  }
  if (!intact) {
    units.Give(index.Remove(name));
    lock.unlock();
    LogCacheError("%s:: block %llu of %s is damaged [%s:%d]", __func__, number, key, TARN_SOURCE);
    return CACHE_BLOCK_EMPTY;
  }
  return SUCCESS;
}

AERROR DiskCache::WriteBlock(const char* key, const char* version, unsigned long long number,
                             const void* data, unsigned int length) {
  if (key == nullptr || version == nullptr || (data == nullptr && length > 0)) {
    return INVALID_PARAMETER;
  }
  const BlockName name{key, version, number};
  const std::uint64_t checksum = Checksum(data, length);
  for (int attempt = 0; attempt < kWriteAttempts; ++attempt) {
    UnitRuns runs = TakeUnits(name, UnitsFor(length));
    if (runs.empty()) {
      return SUCCESS;
    }
    switch (store.Write(runs, data, length)) {
      case BlockStore::Outcome::kDone:
        Publish(name, {0, checksum, length, std::move(runs)});
        return SUCCESS;
      case BlockStore::Outcome::kFull:
        Shrink(runs);
        break;
      case BlockStore::Outcome::kFailed:
        ReportFailure(errno);
        GiveBack(runs);
        return CACHE_WRITE_FAILED;
    }
  }
  return SUCCESS;
}

void DiskCache::Drop(const char* key) {
  if (key != nullptr) {
    const MutexLock lock(mutex);
    units.Give(index.RemoveFile(key));
  }
}

unsigned long long DiskCache::GetUsed() {
  const MutexLock lock(mutex);
  return units.used() * kUnitBytes;
}

// Units for a block that is about to be written, at the cost of blocks that were not used for
// longest. Empty when the cache cannot hold it now.
UnitRuns DiskCache::TakeUnits(const BlockName& name, std::uint64_t count) {
  const MutexLock lock(mutex);
  if (unit_limit < max_units) {
    ++unit_limit;  // after a full disk: grows slowly back
  }
  units.Give(index.MakeWay(name));
  if (count > unit_limit) {
    return {};
  }
  while (units.used() + count > unit_limit) {
    const UnitRuns freed = index.RemoveLeastRecentlyUsed();
    if (freed.empty()) {
      return {};  // all the rest is being written at this moment
    }
    units.Give(freed);
  }
  return units.Take(static_cast<std::uint32_t>(count));
}

void DiskCache::Publish(const BlockName& name, BlockIndex::Block block) {
  const MutexLock lock(mutex);
  units.Give(index.MakeWay(name));
  block.id = ++last_id;
  index.Add(name, std::move(block));
}

void DiskCache::GiveBack(const UnitRuns& runs) {
  const MutexLock lock(mutex);
  units.Give(runs);
}

// The disk is full: gives the space of `failed` and of an eighth of what is held back to it. The
// lock is held meanwhile, lest somebody takes units whose disk space is about to go; it is a rare
// event.
void DiskCache::Shrink(const UnitRuns& failed) {
  MutexLock lock(mutex);
  store.Discard(failed);
  units.Give(failed);
  const std::uint32_t held = units.used();
  if (held > unit_limit) {
    return;  // another writer that failed has seen to it
  }
  const bool first = unit_limit == max_units;
  unit_limit = held - held / 8;
  while (units.used() > unit_limit) {
    const UnitRuns freed = index.RemoveLeastRecentlyUsed();
    if (freed.empty()) {
      break;
    }
    store.Discard(freed);
    units.Give(freed);
  }
  lock.unlock();
  if (first) {
    LogCacheError("%s:: disk is full, %llu bytes stay cached [%s:%d]", __func__, GetUsed(),
                  TARN_SOURCE);
  }
}

void DiskCache::ReportFailure(int error) {
  if (reported_errno.exchange(error) != error) {
    LogCacheError("%s:: failed to write in %s, errno %d [%s:%d]", __func__, folder.c_str(), error,
                  TARN_SOURCE);
  }
}

}  // namespace tarn
