#include "platform/filesystem/listings.h"

#include <algorithm>

#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr size_t kMaxRecords = 200'000;     // about 50 MiB at worst
constexpr std::chrono::seconds kOldFor{1};  // how long the kernel is to keep what may be old

}  // namespace

Listings::Answer Listings::Find(const std::string& path, Clock::time_point now) const {
  const auto folder = folders.find(std::string(FolderOf(path)));
  if (folder == folders.end()) {
    return {};
  }
  const Folder& known = folder->second;
  const auto found = known.records.find(std::string(NameOf(path)));
  if (found != known.records.end()) {
    const Record& record = found->second;
    if (IsBelievable(record.asked, now)) {
      return {record.present ? Known::kPresent : Known::kAbsent, record.attributes, record.asked,
              BelievableFor(record.asked, now)};
    }
  } else if (known.complete && IsBelievable(known.listed, now)) {
    return {Known::kAbsent, {}, known.listed, BelievableFor(known.listed, now)};
  }
  return {};
}

Clock::duration Listings::BelievableFor(Clock::time_point asked, Clock::time_point now) const {
  const auto left = asked + time_out - now;
  return believes_old ? std::max<Clock::duration>(left, kOldFor) : left;
}

bool Listings::Get(const std::string& folder, Clock::time_point now, std::vector<Entry>& entries,
                   Clock::time_point& asked) const {
  const auto found = folders.find(folder);
  if (found == folders.end() || !found->second.complete ||
      !IsBelievable(found->second.listed, now)) {
    return false;
  }
  asked = found->second.listed;
  entries.clear();
  for (const auto& [name, record] : found->second.records) {
    if (record.present) {
      entries.push_back({name, record.attributes});
    }
  }
  return true;
}

std::vector<Entry> Listings::After(const std::string& folder, const std::string& name,
                                   Clock::time_point now, size_t count) const {
  std::vector<Entry> entries;
  const auto found = folders.find(folder);
  if (found == folders.end() || !found->second.complete ||
      !IsBelievable(found->second.listed, now)) {
    return entries;
  }
  const auto& records = found->second.records;
  for (auto next = records.upper_bound(name); next != records.end() && entries.size() < count;
       ++next) {
    if (next->second.present) {
      entries.push_back({next->first, next->second.attributes});
    }
  }
  return entries;
}

bool Listings::HasSingleAnswers(const std::string& folder, Clock::time_point now) const {
  const auto known = folders.find(folder);
  return known != folders.end() &&
         std::any_of(known->second.records.begin(), known->second.records.end(),
                     [&](const auto& record) { return IsBelievable(record.second.asked, now); });
}

void Listings::AddListing(Ticket ticket, const std::string& folder,
                          const std::vector<Entry>& entries, Clock::time_point asked) {
  Folder& known = FolderAt(folder);
  if (ticket < known.changed) {
    return;
  }
  record_count -= known.records.size();
  known.records.clear();
  for (const Entry& entry : entries) {
    known.records.emplace(entry.name, Record{true, entry.attributes, asked, known.changed});
  }
  record_count += known.records.size();
  known.forgotten = known.changed;
  known.complete = true;
  known.listed = asked;
  Bound(folder);
}

bool Listings::Add(Ticket ticket, const std::string& path, const Attributes* attributes,
                   Clock::time_point asked) {
  const std::string folder(FolderOf(path));
  Folder& known = FolderAt(folder);
  const auto record = known.records.find(std::string(NameOf(path)));
  const Ticket changed = record == known.records.end() ? known.forgotten : record->second.changed;
  if (ticket < changed) {
    return false;
  }
  const bool present = attributes != nullptr;
  Put(known, path, {present, present ? *attributes : Attributes{}, asked, changed});
  Bound(folder);
  return true;
}

void Listings::SetPresent(const std::string& path, const Attributes& attributes,
                          Clock::time_point now) {
  Folder& folder = FolderAt(std::string(FolderOf(path)));
  folder.changed = ++changes;
  Put(folder, path, {true, attributes, now, changes});
}

void Listings::SetAbsent(const std::string& path, Clock::time_point now) {
  Folder& folder = FolderAt(std::string(FolderOf(path)));
  folder.changed = ++changes;
  Put(folder, path, {false, {}, now, changes});
}

void Listings::Forget(const std::string& path) {
  Folder& folder = FolderAt(std::string(FolderOf(path)));
  folder.changed = folder.forgotten = ++changes;
  folder.listed = {};
  if (const auto record = folder.records.find(std::string(NameOf(path)));
      record != folder.records.end()) {
    record->second.asked = {};
    record->second.changed = changes;
  }
}

void Listings::Expire() {
  for (auto& [path, folder] : folders) {
    folder.listed = {};
    for (auto& [name, record] : folder.records) {
      record.asked = {};
    }
  }
}

void Listings::ForgetTree(const std::string& folder) {
  floor = ++changes;  // also for folders below of which nothing is known yet
  for (auto below = folders.lower_bound(folder); below != folders.end();) {
    if (IsWithin(below->first, folder)) {
      record_count -= below->second.records.size();
      below = folders.erase(below);
    } else if (below->first.starts_with(folder)) {
      ++below;  // "/a-b" lies between "/a" and "/a/b"
    } else {
      break;
    }
  }
}

Listings::Folder& Listings::FolderAt(const std::string& path) {
  const auto [folder, is_new] = folders.try_emplace(path);
  if (is_new) {
    folder->second.changed = folder->second.forgotten = floor;
  }
  return folder->second;
}

void Listings::Put(Folder& folder, const std::string& path, Record record) {
  record_count -= folder.records.size();
  folder.records.insert_or_assign(std::string(NameOf(path)), std::move(record));
  record_count += folder.records.size();
}

void Listings::Bound(const std::string& keep) {
  while (record_count > kMaxRecords && folders.size() > 1) {
    const auto oldest =
        std::min_element(folders.begin(), folders.end(), [&](const auto& one, const auto& other) {
          return std::pair(one.first == keep, one.second.listed) <
                 std::pair(other.first == keep, other.second.listed);
        });
    floor = std::max(floor, oldest->second.changed);
    record_count -= oldest->second.records.size();
    folders.erase(oldest);
  }
}

}  // namespace tarn::fs
