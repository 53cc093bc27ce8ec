#include "platform/cache/block_index.h"

#include <utility>

namespace tarn {

BlockIndex::Entries::const_iterator BlockIndex::Locate(const BlockName& name) const {
  const auto file = files.find(name.key);
  if (file == files.end() || file->second.version != name.version) {
    return entries.end();
  }
  const auto block = file->second.blocks.find(name.number);
  return block == file->second.blocks.end() ? entries.end()
                                            : Entries::const_iterator(block->second);
}

const BlockIndex::Block* BlockIndex::Find(const BlockName& name) const {
  const auto entry = Locate(name);
  return entry == entries.end() ? nullptr : &entry->block;
}

const BlockIndex::Block* BlockIndex::Use(const BlockName& name) {
  const auto entry = Locate(name);
  if (entry == entries.end()) {
    return nullptr;
  }
  entries.splice(entries.begin(), entries, entry);
  return &entry->block;
}

void BlockIndex::Add(const BlockName& name, Block block) {
  auto file = files.find(name.key);
  if (file == files.end()) {
    file = files.emplace(name.key, File{std::string(name.version), {}}).first;
  }
  entries.push_front({&*file, name.number, std::move(block)});
  file->second.blocks.emplace(name.number, entries.begin());
}

UnitRuns BlockIndex::MakeWay(const BlockName& name) {
  const auto file = files.find(name.key);
  const bool other_version = file != files.end() && file->second.version != name.version;
  return other_version ? RemoveFile(name.key) : Remove(name);
}

UnitRuns BlockIndex::Remove(const BlockName& name) {
  const auto entry = Locate(name);
  return entry == entries.end() ? UnitRuns() : Erase(entry);
}

UnitRuns BlockIndex::RemoveFile(std::string_view key) {
  UnitRuns units;
  const auto file = files.find(key);
  if (file != files.end()) {
    for (const auto& [number, entry] : file->second.blocks) {
      units.insert(units.end(), entry->block.units.begin(), entry->block.units.end());
      entries.erase(entry);
    }
    files.erase(file);
  }
  return units;
}

UnitRuns BlockIndex::RemoveLeastRecentlyUsed() {
  return entries.empty() ? UnitRuns() : Erase(std::prev(entries.end()));
}

UnitRuns BlockIndex::Erase(Entries::const_iterator entry) {
  Files::value_type& file = *entry->file;
  UnitRuns units = entry->block.units;
  file.second.blocks.erase(entry->number);
  entries.erase(entry);
  if (file.second.blocks.empty()) {
    files.erase(files.find(file.first));
  }
  return units;
}

}  // namespace tarn
