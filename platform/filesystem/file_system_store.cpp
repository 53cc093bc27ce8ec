// Sending: what programs wrote goes to the remote.
#include <algorithm>
#include <ctime>
#include <utility>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr int kMaxAttempts = 3;  // while a program keeps changing the file under the upload

}  // namespace

struct FileSystem::StoreSource {
  const WorkFile* work;
  std::uint64_t size;
  std::atomic<std::uint64_t>* progress;
  std::uint64_t offset = 0;

  static long long Read(void* context, void* buffer, long long length) {
    auto& self = *static_cast<StoreSource*>(context);
    if (length < 0) {
      return -1;
    }
    const size_t wanted =
        std::min<std::uint64_t>(static_cast<std::uint64_t>(length), self.size - self.offset);
    size_t received = 0;
    if (self.work->Read(self.offset, buffer, wanted, received) != 0 || received < wanted) {
      return -1;
    }
    self.offset += received;
    ++*self.progress;
    return static_cast<long long>(received);
  }

  static int Rewind(void* context) {
    static_cast<StoreSource*>(context)->offset = 0;
    return 0;
  }
};

int FileSystem::Store(const std::shared_ptr<OpenFile>& file) {
  for (int attempt = 1;; ++attempt) {
    std::vector<std::string> paths;
    const auto hold = HoldPlaces({{file->ino, ""}}, paths);
    if (!hold) {
      return 0;  // removed: nobody wants it any more
    }
    std::shared_ptr<WorkFile> work;
    bool is_new = false;
    {
      const MutexLock guard(lock);
      work = file->work;
      is_new = !file->at_remote;
    }
    if (!work || !work->IsDirty()) {
      return 0;
    }
    const WorkFile::State state = work->GetState();
    Attributes stored;
    const AERROR error = Upload(paths[0], *work, state, is_new, stored);
    if (error == SUCCESS) {
      Stored(*file, paths[0], *work, state, stored);
      return 0;
    }
    if (is_new && error == SHARING_VIOLATION && attempt < kMaxAttempts) {
      MoveAside(*file, paths[0]);
      continue;
    }
    const bool was_cut = work->GetSize() < state.size;
    if (!was_cut || attempt == kMaxAttempts) {
      return ErrnoOf(error);
    }
  }
}

AERROR FileSystem::Upload(const std::string& path, const WorkFile& work,
                          const WorkFile::State& state, bool is_new, Attributes& stored) {
  StoreSource content{&work, state.size, &progress};
  FS_SOURCE source = {};
  source.context = &content;
  source.read = &StoreSource::Read;
  source.rewind = &StoreSource::Rewind;
  source.modified = &state.modified;
  source.replaces = is_new ? "" : nullptr;
  UploadEvents upload_events(events, path, static_cast<long long>(state.size));
  stored = {.is_folder = false, .size = state.size, .modified = state.modified, .version = {}};
  const AERROR error = remote.Upload(path, source, state.size, &UploadEvents::OnProgress,
                                     &upload_events, stored.protocol);
  ++progress;
  if (error == SUCCESS) {
    stored.version = source.version;
    Attributes answer;
    if (stored.version.empty() && remote.GetInfo(path, answer) == SUCCESS) {
      stored = answer;
    }
  }
  upload_events.End(error);
  return error;
}

void FileSystem::MoveAside(const OpenFile& file, const std::string& path) {
  std::string new_path;
  {
    const MutexLock guard(lock);
    const std::string name = ConflictName(std::string(NameOf(path)), std::time(nullptr));
    new_path = JoinPath(FolderOf(path), name);
    nodes.Move(file.ino, nodes.FolderOf(file.ino), name);
    listings.Forget(path);
    listings.Forget(new_path);
  }
  events.Failed(FS_EVENT_CREATE_FILE, SHARING_VIOLATION, new_path, path);
}

void FileSystem::Stored(OpenFile& file, const std::string& path, WorkFile& work,
                        const WorkFile::State& state, const Attributes& stored) {
  work.MarkStored(state);
  const MutexLock guard(lock);
  file.at_remote = true;
  file.remote = stored;
  file.is_fresh = false;
  DropReader(file);
  kernel[file.ino].version = stored.version;
  listings.SetPresent(path, stored, Clock::now());
}

int FileSystem::StoreAll() {
  std::vector<std::shared_ptr<OpenFile>> files;
  {
    const MutexLock guard(lock);
    for (const auto& [ino, file] : open_files) {
      files.push_back(file);
    }
  }
  int failures = 0;
  for (const auto& file : files) {
    failures += Store(file) == 0 ? 0 : 1;
    const MutexLock guard(lock);
    DropOpenFileIfUnused(file);
  }
  return failures;
}

void FileSystem::CloseAll() {
  std::unordered_map<Ino, std::shared_ptr<OpenFile>> closed;  // ends after the lock
  const MutexLock guard(lock);
  closed.swap(open_files);
  handles.clear();
  open_folders.clear();
  for (const auto& [ino, file] : closed) {
    DropReader(*file);
  }
}

}  // namespace tarn::fs
