// Fetching ahead what programs are likely to want next.
#include <algorithm>
#include <utility>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr int kMaxTasks = 64;          // listings and files on their way at a time
constexpr size_t kMaxFilesAhead = 32;  // of the folder that is read; 4 MiB at most
constexpr size_t kMaxSkipped = 4;      // entries that a program may leave out and still go on
constexpr size_t kSmallFileBytes = Reader::kBlockBytes;

}  // namespace

bool FileSystem::StartAhead(std::function<void(FileSystem&)> work) {
  struct Task {
    std::shared_ptr<FileSystem> files;
    std::function<void(FileSystem&)> work;

    static void Run(void* context, int stopping) {
      const std::unique_ptr<Task> self(static_cast<Task*>(context));
      if (stopping == 0) {
        self->work(*self->files);
      }
      const MutexLock guard(self->files->lock);
      --self->files->ahead_tasks;
    }
  };
  {
    const MutexLock guard(lock);
    if (ahead_tasks >= kMaxTasks) {
      return false;
    }
    ++ahead_tasks;
  }
  auto task = std::make_unique<Task>(Task{shared_from_this(), std::move(work)});
  {
    const Lent<IAsyncQ>::Lease queue(Bindings::Get().queue);
    if (queue && queue->Push(&Task::Run, task.get(), ASYNCQ_BACKGROUND) == SUCCESS) {
      (void)task.release();  // the queue's now
      return true;
    }
  }
  const MutexLock guard(lock);
  --ahead_tasks;
  return false;
}

void FileSystem::ListAhead(const std::string& folder, const std::vector<Entry>& entries) {
  for (const Entry& entry : entries) {
    if (!entry.attributes.is_folder) {
      continue;
    }
    const std::string path = JoinPath(folder, entry.name);
    {
      const auto now = Clock::now();
      FolderContent known;
      const MutexLock guard(lock);
      if (listings.Get(path, now, known.entries, known.asked)) {
        continue;
      }
    }
    if (!StartAhead([path](FileSystem& files) {
          FolderContent content;
          (void)files.GetListing(path, content);  // who wants it will ask again
        })) {
      return;
    }
  }
}

// Called for every file that was opened. A small one that follows the last one in the order of the
// names lets the next ones be fetched.
void FileSystem::ReadsOneAfterAnother(const OpenFile& file) {
  std::vector<std::string> next;
  Ino folder = 0;
  {
    const auto now = Clock::now();
    const MutexLock guard(lock);
    const auto path = nodes.PathOf(file.ino);
    if (!path || file.work || file.remote.size > kSmallFileBytes) {
      return;
    }
    folder = nodes.FolderOf(file.ino);
    const std::string folder_path(fs::FolderOf(*path));
    const std::string name(NameOf(*path));
    const SmallFile last = std::exchange(last_small, {folder, name});
    const auto following = listings.After(folder_path, last.name, now, kMaxSkipped);
    if (last.folder != folder || std::none_of(following.begin(), following.end(),
                                              [&](const Entry& e) { return e.name == name; })) {
      ahead_until.clear();
      return;
    }
    next = NextSmall(listings.After(folder_path, name, now, kMaxFilesAhead));
    if (!next.empty()) {
      ahead_until = next.back();
    }
  }
  for (const std::string& name : next) {
    if (!StartAhead([folder, name](FileSystem& files) { files.FetchFileAhead(folder, name); })) {
      return;
    }
  }
}

// Those that are not fetched ahead yet; none while more than half of what may be ahead is.
std::vector<std::string> FileSystem::NextSmall(const std::vector<Entry>& entries) const {
  std::vector<std::string> next;
  for (const Entry& entry : entries) {
    const bool is_small = !entry.attributes.is_folder && entry.attributes.size > 0 &&
                          entry.attributes.size <= kSmallFileBytes;
    if (is_small && entry.name > ahead_until) {
      next.push_back(entry.name);
    }
  }
  if (entries.size() == kMaxFilesAhead && next.size() < kMaxFilesAhead / 2) {
    next.clear();
  }
  return next;
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
    kernel[ino].fetched_ahead = Clock::now();
  }
}

}  // namespace tarn::fs
