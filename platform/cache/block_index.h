#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/cache/unit_map.h"

namespace tarn {

// Which block of which file: any texts that the cache's user tells them apart by.
struct BlockName {
  std::string_view key;
  std::string_view version;
  std::uint64_t number;
};

// What the cache holds: for each key one version and its blocks, all blocks in the order of their
// last use. Owns the units of its blocks: operations that forget blocks return their units, which
// the caller gives back. Not thread-safe.
class BlockIndex {
 public:
  struct Block {
    std::uint64_t id;  // never used again
    std::uint64_t checksum;
    std::uint32_t length;  // bytes
    UnitRuns units;
  };

  // Null when it is not held. Valid until the next operation that is not const.
  [[nodiscard]] const Block* Find(const BlockName& name) const;

  // As Find, and the block is now the one last used.
  const Block* Use(const BlockName& name);

  // Adds a block as the one last used, after MakeWay.
  void Add(const BlockName& name, Block block);

  // Removes the block of that name, and every other version of its file.
  UnitRuns MakeWay(const BlockName& name);

  UnitRuns Remove(const BlockName& name);
  UnitRuns RemoveFile(std::string_view key);
  UnitRuns RemoveLeastRecentlyUsed();  // empty when nothing is held

 private:
  struct File;
  struct Hash : std::hash<std::string_view> {
    using is_transparent = void;
  };
  using Files = std::unordered_map<std::string, File, Hash, std::equal_to<>>;
  struct Entry {
    Files::value_type* file;
    std::uint64_t number;
    Block block;
  };
  using Entries = std::list<Entry>;
  struct File {
    std::string version;
    std::map<std::uint64_t, Entries::iterator> blocks;  // by number
  };

  [[nodiscard]] Entries::const_iterator Locate(const BlockName& name) const;
  UnitRuns Erase(Entries::const_iterator entry);

  Files files;      // by key
  Entries entries;  // last used first
};

}  // namespace tarn
