#include "platform/filesystem/ahead.h"

#include <utility>

#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr int kMaxTasks = 64;  // listings and files on their way at a time

}  // namespace

bool Ahead::Start(std::function<void()> work) {
  {
    const MutexLock guard(drive.lock);
    if (tasks >= kMaxTasks) {
      return false;
    }
    ++tasks;
  }
  const bool is_pushed = PushWork([this, keep = owner(), work = std::move(work)](bool stopping) {
    if (!stopping) {
      work();
    }
    const MutexLock guard(drive.lock);
    --tasks;
  });
  if (!is_pushed) {
    const MutexLock guard(drive.lock);
    --tasks;
  }
  return is_pushed;
}

void Ahead::Listed(const std::string& folder, const std::vector<Entry>& entries) {
  for (const Entry& entry : entries) {
    if (!entry.attributes.is_folder) {
      continue;
    }
    const std::string path = JoinPath(folder, entry.name);
    {
      const auto now = Clock::now();
      FolderContent known;
      const MutexLock guard(drive.lock);
      if (drive.listings.Get(path, now, known.entries, known.asked)) {
        continue;
      }
    }
    if (!Start([this, path] {
          FolderContent content;
          (void)finder.GetListing(path, content);  // who wants it will ask again
        })) {
      return;
    }
  }
}

void Ahead::Opened(const OpenFile& file, bool was_missing, Clock::duration waited) {
  {
    const auto now = Clock::now();
    const MutexLock guard(drive.lock);
    const auto path = drive.nodes.PathOf(file.ino);
    const std::uint64_t bytes = file.remote.size;
    if (!path || file.work || bytes == 0 || bytes > SmallFiles::kMaxFileBytes) {
      return;
    }
    const SmallFiles::Wait wait{waited, remote.GetLine().RoundTrip()};
    small.Opened({drive.nodes.FolderOf(file.ino), std::string(NameOf(*path))}, bytes,
                 was_missing ? std::optional(wait) : std::nullopt, now);
  }
  FetchSmallFiles();
}

void Ahead::FetchSmallFiles() {
  for (;;) {
    std::optional<Place> next;
    {
      const auto now = Clock::now();
      const MutexLock guard(drive.lock);
      next = small.Next(now);
    }
    if (!next) {
      return;
    }
    const bool has_started = Start([this, next] {
      next->name.empty() ? finder.ListAnew(next->ino) : FetchFile(next->ino, next->name);
      {
        const MutexLock guard(drive.lock);
        small.Ended();
      }
      FetchSmallFiles();
    });
    if (!has_started) {
      const MutexLock guard(drive.lock);
      small.Ended();
      return;
    }
  }
}

// The whole of a file; false when it is not, or may not be, the version that is expected.
bool Ahead::Read(const std::string& path, const Attributes& expected,
                 const std::shared_ptr<Buffer>& content) {
  const auto asked = Clock::now();
  Listings::Ticket ticket = 0;
  {
    const MutexLock guard(drive.lock);
    ticket = drive.listings.Begin();
  }
  size_t received = 0;
  if (remote.ReadsVersions(expected.protocol)) {
    if (remote.ReadVersion(expected, path, 0, content, received) != SUCCESS ||
        received != expected.size) {
      return false;
    }
    const MutexLock guard(drive.lock);
    return drive.listings.Add(ticket, path, &expected, asked);
  }
  Listings::Answer now;
  return remote.Read(expected.protocol, path, 0, content, received) == SUCCESS &&
         received == expected.size && finder.Find(path, true, now) == 0 &&
         now.known == Listings::Known::kPresent && now.attributes.version == expected.version;
}

void Ahead::FetchFile(Ino folder, const std::string& name) {
  const auto asked = Clock::now();
  std::optional<std::string> path;
  Listings::Answer listed;
  std::string content_before;
  {
    const MutexLock guard(drive.lock);
    path = drive.nodes.PathOf(folder, name);
    listed = path ? drive.listings.Find(*path, Clock::now()) : listed;
    if (listed.known != Listings::Known::kPresent || drive.open_files.Find(folder, name)) {
      return;
    }
    const auto ino = drive.nodes.Find(folder, name);
    if (ino && drive.nodes.KernelOf(*ino).version == listed.attributes.version) {
      return;  // a program was quicker
    }
    content_before = drive.nodes.ContentOf(folder, name);
  }
  const Attributes& expected = listed.attributes;
  const auto content = Buffer::Make(expected.size + 1);  // more must not come
  if (!content || !Read(*path, expected, content)) {
    return;
  }
  Ino ino = 0;
  std::string key;
  {
    const MutexLock guard(drive.lock);
    const Listings::Answer known = drive.listings.Find(*path, Clock::now());
    if (drive.nodes.PathOf(folder, name) != path || drive.open_files.Find(folder, name) ||
        drive.open_files.HoldsUnsent(folder, name) ||
        drive.nodes.ContentOf(folder, name) != content_before ||
        known.known != Listings::Known::kPresent || known.attributes.version != expected.version) {
      return;  // changed from here meanwhile
    }
    ino = drive.nodes.Ensure(folder, name, false);
    drive.nodes.Remember(ino);
    key = drive.nodes.ContentOf(ino);
  }
  {
    const Lent<ICache>::Lease cache(Bindings::Get().cache);
    if (!cache || cache->WriteBlock(key.c_str(), expected.version.c_str(), 0, content->data(),
                                    static_cast<unsigned>(expected.size)) != SUCCESS) {
      return;
    }
  }
  const MutexLock guard(drive.lock);
  if (drive.nodes.Find(folder, name) == ino) {
    drive.nodes.KernelOf(ino).fetched_ahead = true;
    small.Fetched(folder, asked);
  }
}

}  // namespace tarn::fs
