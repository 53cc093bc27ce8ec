// Fetching ahead what programs are likely to want next.
#include <utility>

#include "platform/filesystem/background.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr int kMaxTasks = 64;  // listings and files on their way at a time

}  // namespace

bool FileSystem::StartAhead(std::function<void()> work) {
  {
    const MutexLock guard(lock);
    if (ahead_tasks >= kMaxTasks) {
      return false;
    }
    ++ahead_tasks;
  }
  const bool is_pushed =
      PushWork([this, keep = shared_from_this(), work = std::move(work)](bool stopping) {
        if (!stopping) {
          work();
        }
        const MutexLock guard(lock);
        --ahead_tasks;
      });
  if (!is_pushed) {
    const MutexLock guard(lock);
    --ahead_tasks;
  }
  return is_pushed;
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
    if (!StartAhead([this, path] {
          FolderContent content;
          (void)GetListing(path, content);  // who wants it will ask again
        })) {
      return;
    }
  }
}

}  // namespace tarn::fs
