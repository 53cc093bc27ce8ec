// Small files, fetched before a program opens them.
#include <utility>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

void FileSystem::OpenedSmall(const OpenFile& file, const Beginning& begun, Clock::duration waited) {
  {
    const auto now = Clock::now();
    const MutexLock guard(lock);
    const auto path = nodes.PathOf(file.ino);
    if (!path || file.work || file.remote.size == 0 ||
        file.remote.size > SmallFiles::kMaxFileBytes) {
      return;
    }
    using Wait = SmallFiles::Wait;
    small.Opened(
        {nodes.FolderOf(file.ino), std::string(NameOf(*path))}, file.remote.size,
        begun.reader ? std::optional(Wait{waited, remote.GetLine().RoundTrip()}) : std::nullopt,
        now);
  }
  FetchNextSmall();
}

void FileSystem::FetchNextSmall() {
  for (;;) {
    std::optional<Place> next;
    {
      const auto now = Clock::now();
      const MutexLock guard(lock);
      next = small.Next(now);
    }
    if (!next) {
      return;
    }
    const bool has_started = StartAhead([this, next] {
      next->name.empty() ? ListAgain(next->ino) : FetchFileAhead(next->ino, next->name);
      {
        const MutexLock guard(lock);
        small.Ended();
      }
      FetchNextSmall();
    });
    if (!has_started) {
      const MutexLock guard(lock);
      small.Ended();
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
    path = nodes.PathOf(folder, name);
    listed = path ? listings.Find(*path, Clock::now()) : listed;
    if (listed.known != Listings::Known::kPresent || FindOpenFile(folder, name)) {
      return;
    }
    const auto ino = nodes.Find(folder, name);
    if (ino && nodes.KernelOf(*ino).version == listed.attributes.version) {
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
    if (nodes.PathOf(folder, name) != path || FindOpenFile(folder, name) ||
        known.known != Listings::Known::kPresent || known.attributes.version != expected.version) {
      return;  // changed from here meanwhile
    }
    ino = nodes.Ensure(folder, name, false);
    nodes.Remember(ino);
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
    nodes.KernelOf(ino).fetched_ahead = true;
    small.Fetched(folder, asked);
  }
}

}  // namespace tarn::fs
