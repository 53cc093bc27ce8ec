// Fetching ahead what programs are likely to want next.
#include <algorithm>
#include <utility>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr int kMaxTasks = 64;  // listings and files on their way at a time

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

}  // namespace tarn::fs
