// Small files, fetched before a program opens them.
#include <algorithm>
#include <utility>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

using std::chrono::milliseconds;

constexpr size_t kSmallFileBytes = Reader::kBlockBytes;
constexpr size_t kMaxSkipped = 4;  // entries that a program may leave out and still go on in order
// Without an open for so long a program has what it wanted.
constexpr milliseconds kPause{500};
// Fetched, or on their way, and not opened yet. What nobody opens is all that this can cost.
constexpr size_t kMaxFiles = 2048;
constexpr std::uint64_t kMaxBytes = std::uint64_t{16} << 20;
// On their way at a time: as many as the queue has workers for it, while that holds up no program;
// fewer on a line that is busy with it, and then only those that come next in order.
constexpr size_t kMaxOnWay = 14;
constexpr size_t kMinOnWay = 2;
constexpr size_t kOnWayInAnyOrder = 4;
// One listing tells of a whole folder that its files have not changed; asked in time before what
// was found with them is too old for an open.
constexpr milliseconds kListAfter{600};

}  // namespace

// Programs that read trees of small files open them in the order of the names, of the listing or in
// none. So the second file that had to be waited for lets the rest of its folder be fetched, the
// next ones in order first, and a program that goes from folder to folder lets the folders beside
// them follow, as far as they are listed. All of it ends soon after the last open.
void FileSystem::OpenedSmall(const OpenFile& file, const Beginning& begun, Clock::duration waited) {
  {
    const auto now = Clock::now();
    const MutexLock guard(lock);
    const auto path = nodes.PathOf(file.ino);
    if (!path || file.work || file.remote.size == 0 || file.remote.size > kSmallFileBytes) {
      return;
    }
    if (small.last_opened + kPause < now) {
      const size_t on_way = small.on_way;
      small = {};
      small.on_way = on_way;
    }
    const SmallFile opened{nodes.FolderOf(file.ino), std::string(NameOf(*path))};
    const auto following =
        listings.After(std::string(FolderOf(*path)), small.last.name, now, kMaxSkipped);
    small.in_order = small.last.folder == opened.folder &&
                     std::any_of(following.begin(), following.end(),
                                 [&](const Entry& e) { return e.name == opened.name; });
    small.last = opened;
    small.last_opened = now;
    small.opened_folders.insert(opened.folder);
    if (small.files > 0 && small.planned_folders.count(opened.folder) != 0) {
      --small.files;
      small.bytes -= std::min<std::uint64_t>(small.bytes, file.remote.size);
    }
    if (begun.reader && ++small.misses > 1) {
      LearnFromWait(waited);
      const bool all_came = small.planned.empty() && small.on_way == 0;
      if (small.planned_folders.insert(opened.folder).second || all_came) {
        PlanFolder(opened);
      }
    }
  }
  FetchNextSmall();
}

// An open that takes hardly longer than an answer without content leaves room on the line; one that
// takes much longer does not. In between, nothing changes.
void FileSystem::LearnFromWait(Clock::duration waited) {
  const Clock::duration round_trip = remote.GetLine().RoundTrip();
  if (waited <= round_trip * 5 / 4) {
    small.window = std::clamp(2 * small.window, kOnWayInAnyOrder, kMaxOnWay);
  } else if (waited > round_trip * 3 / 2 || small.window == 0) {
    small.window = std::max(small.window / 2, kMinOnWay);
  }
}

// The small files of a folder that are not here yet, those after `start` first.
void FileSystem::PlanFolder(const SmallFile& start) {
  const auto path = nodes.PathOf(start.folder);
  FolderContent known;
  if (!path || !listings.Get(*path, Clock::now(), known.entries, known.asked)) {
    return;
  }
  auto& entries = known.entries;
  std::rotate(entries.begin(),
              std::find_if(entries.begin(), entries.end(),
                           [&](const Entry& entry) { return entry.name > start.name; }),
              entries.end());
  for (const Entry& entry : entries) {
    const Attributes& attributes = entry.attributes;
    if (!attributes.is_folder && attributes.size > 0 && attributes.size <= kSmallFileBytes &&
        small.files < kMaxFiles && small.bytes + attributes.size <= kMaxBytes &&
        !IsHere(start.folder, entry)) {
      small.planned.push_back({start.folder, entry.name});
      ++small.files;
      small.bytes += attributes.size;
    }
  }
}

bool FileSystem::IsHere(Ino folder, const Entry& entry) const {
  const auto ino = nodes.Find(folder, entry.name);
  const auto known = ino ? kernel.find(*ino) : kernel.end();
  return known != kernel.end() &&
         (known->second.fetched_ahead || known->second.version == entry.attributes.version);
}

// The folders beside the one that was opened last, where a program goes from folder to folder.
bool FileSystem::PlanFoldersBeside() {
  if (small.opened_folders.size() < 2 || !nodes.Exists(small.last.folder)) {
    return false;
  }
  const Ino parent = nodes.FolderOf(small.last.folder);
  const auto path = nodes.PathOf(parent);
  FolderContent known;
  if (!path || !listings.Get(*path, Clock::now(), known.entries, known.asked)) {
    return false;
  }
  for (const Entry& entry : known.entries) {
    const auto folder = entry.attributes.is_folder ? nodes.Find(parent, entry.name) : std::nullopt;
    if (folder && small.planned.size() < kMaxOnWay &&
        small.planned_folders.insert(*folder).second) {
      PlanFolder({*folder, ""});
    }
  }
  return !small.planned.empty();
}

std::optional<FileSystem::SmallFile> FileSystem::NextSmall(Clock::time_point now) {
  if (small.on_way >= small.window || small.last_opened + kPause < now) {
    return std::nullopt;
  }
  for (auto& [folder, listed] : small.fetched) {
    if (listed + kListAfter < now) {
      listed = now;
      return SmallFile{folder, ""};
    }
  }
  const bool may_be_next = small.in_order || small.window >= kOnWayInAnyOrder;
  if (!may_be_next || (small.planned.empty() && !PlanFoldersBeside())) {
    return std::nullopt;
  }
  SmallFile next = std::move(small.planned.front());
  small.planned.pop_front();
  return next;
}

void FileSystem::FetchNextSmall() {
  for (;;) {
    std::optional<SmallFile> next;
    {
      const auto now = Clock::now();
      const MutexLock guard(lock);
      next = NextSmall(now);
      small.on_way += next ? 1 : 0;
    }
    if (!next) {
      return;
    }
    const bool started = StartAhead([next](FileSystem& files) {
      next->name.empty() ? files.ListAgain(next->folder)
                         : files.FetchFileAhead(next->folder, next->name);
      {
        const MutexLock guard(files.lock);
        --files.small.on_way;
      }
      files.FetchNextSmall();
    });
    if (!started) {
      const MutexLock guard(lock);
      --small.on_way;
      return;
    }
  }
}

void FileSystem::ListAgain(Ino folder) {
  const auto asked = Clock::now();
  std::optional<std::string> path;
  Listings::Ticket ticket = 0;
  {
    const MutexLock guard(lock);
    path = nodes.PathOf(folder);
    ticket = listings.Begin();
  }
  std::vector<Entry> entries;
  if (path && remote.List(*path, entries) == SUCCESS) {
    const MutexLock guard(lock);
    listings.AddListing(ticket, *path, entries, asked);
  }
}

// The whole of a file; false when it is not, or may not be, the version that is expected.
bool FileSystem::ReadSmall(const std::string& path, const Attributes& expected,
                           const std::shared_ptr<Buffer>& content) {
  const auto asked = Clock::now();
  Listings::Ticket ticket = 0;
  {
    const MutexLock guard(lock);
    ticket = listings.Begin();
  }
  size_t received = 0;
  if (remote.ReadsVersions(expected.protocol)) {
    if (remote.ReadVersion(expected, path, 0, content, received) != SUCCESS ||
        received != expected.size) {
      return false;
    }
    const MutexLock guard(lock);
    return listings.Add(ticket, path, &expected, asked);
  }
  Listings::Answer now;
  return remote.Read(expected.protocol, path, 0, content, received) == SUCCESS &&
         received == expected.size && Find(path, true, now) == 0 &&
         now.known == Listings::Known::kPresent && now.attributes.version == expected.version;
}

void FileSystem::FetchFileAhead(Ino folder, const std::string& name) {
  const auto asked = Clock::now();
  std::optional<std::string> path;
  Listings::Answer listed;
  {
    const MutexLock guard(lock);
    path = PathOf(folder, name);
    listed = path ? listings.Find(*path, Clock::now()) : listed;
    if (listed.known != Listings::Known::kPresent || FindOpenFile(folder, name)) {
      return;
    }
    const auto ino = nodes.Find(folder, name);
    if (ino && kernel[*ino].version == listed.attributes.version) {
      return;  // a program was quicker
    }
  }
  const Attributes& expected = listed.attributes;
  const auto content = Buffer::Make(expected.size + 1);  // more must not come
  if (!content || !ReadSmall(*path, expected, content)) {
    return;
  }
  Ino ino = 0;
  {
    const MutexLock guard(lock);
    const Listings::Answer known = listings.Find(*path, Clock::now());
    if (PathOf(folder, name) != path || FindOpenFile(folder, name) ||
        known.known != Listings::Known::kPresent || known.attributes.version != expected.version) {
      return;  // changed from here meanwhile
    }
    ino = nodes.Ensure(folder, name, false);
    Remember(ino);
  }
  {
    const Lent<ICache>::Lease cache(Bindings::Get().cache);
    if (!cache ||
        cache->WriteBlock(std::to_string(ino).c_str(), expected.version.c_str(), 0, content->data(),
                          static_cast<unsigned>(expected.size)) != SUCCESS) {
      return;
    }
  }
  const MutexLock guard(lock);
  if (nodes.Find(folder, name) == ino) {
    kernel[ino].fetched_ahead = true;
    small.fetched.try_emplace(folder, asked);
  }
}

}  // namespace tarn::fs
