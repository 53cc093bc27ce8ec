#pragma once

#include <atomic>
#include <string>

#include "common/sync.h"
#include "interfaces/cache.h"
#include "platform/cache/block_index.h"
#include "platform/cache/block_store.h"
#include "platform/cache/unit_map.h"

namespace tarn {

// One cache: an index in memory over a store of units on disk.
//
// Locks: `mutex` guards index and units and is not held while content is read or written. A writer
// owns the units it has taken until the block is in the index. A reader looks the block up again
// after reading: only if it is still there were its units not written meanwhile.
class DiskCache final : public ICache {
 public:
  static constexpr long long kMinCapacityBytes =
      1024L * 1024;  // one block of the largest usual size

  DiskCache(const std::string& folder_path, unsigned long long capacity_in_bytes);

  // False when the folder does not take the store file, or has one already.
  [[nodiscard]] bool Start() { return store.Create(); }

  AERROR ReadBlock(const char* key, const char* version, unsigned long long number, void* buffer,
                   unsigned int capacity, unsigned int* length) override;
  AERROR WriteBlock(const char* key, const char* version, unsigned long long number,
                    const void* data, unsigned int length) override;
  void Drop(const char* key) override;
  unsigned long long GetUsed() override;
  unsigned long long GetCapacity() override { return capacity_bytes; }
  const char* GetFolder() override { return folder.c_str(); }

 private:
  UnitRuns TakeUnits(const BlockName& name, std::uint64_t count);
  void Publish(const BlockName& name, BlockIndex::Block block);
  void GiveBack(const UnitRuns& runs);
  void Shrink(const UnitRuns& failed);
  void ReportFailure(int error);

  const std::string folder;
  const unsigned long long capacity_bytes;
  const std::uint32_t max_units;
  BlockStore store;

  Mutex mutex;  // guards what follows
  BlockIndex index TARN_GUARDED_BY(mutex);
  UnitMap units TARN_GUARDED_BY(mutex);
  std::uint32_t unit_limit TARN_GUARDED_BY(mutex);  // max_units, or less since the disk was full
  std::uint64_t last_id TARN_GUARDED_BY(mutex) = 0;

  std::atomic<int> reported_errno = 0;  // so that a broken disk does not fill the log
};

}  // namespace tarn
