// Sending: what programs wrote goes to the remote.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/errors.h"
#include "platform/filesystem/file_system.h"

namespace tarn::fs {

namespace {

constexpr size_t kMostAttempts = 4;  // that one file has on this machine's disk

// One snapshot on its way to the remote.
struct SnapshotSource {
  const WorkFile::Snapshot* snapshot;
  Sending* sending;
  std::atomic<std::uint64_t>* progress;
  std::uint64_t offset = 0;

  static long long Read(void* context, void* buffer, long long length) {
    auto& self = *static_cast<SnapshotSource*>(context);
    if (length < 0 || self.sending->give_up) {
      return -1;
    }
    const size_t wanted = std::min<std::uint64_t>(static_cast<std::uint64_t>(length),
                                                  self.snapshot->state.size - self.offset);
    size_t received = 0;
    if (self.snapshot->content->Read(self.offset, buffer, wanted, received) != 0 ||
        received < wanted) {
      return -1;
    }
    self.offset += received;
    self.sending->was_read = self.sending->was_read || self.offset == self.snapshot->state.size;
    if (self.offset > *self.snapshot->sent_bytes) {  // not what is only sent again
      *self.snapshot->sent_bytes = self.offset;
      ++*self.progress;
    }
    return static_cast<long long>(received);
  }

  static int Rewind(void* context) {
    static_cast<SnapshotSource*>(context)->offset = 0;
    return 0;
  }
};

std::vector<WorkFile::Snapshot>::iterator FindAttempt(std::vector<WorkFile::Snapshot>& attempts,
                                                      const WorkFile::Snapshot& snapshot) {
  return std::find_if(attempts.begin(), attempts.end(), [&](const WorkFile::Snapshot& attempt) {
    return attempt.content.get() == snapshot.content.get();
  });
}

}  // namespace

std::shared_ptr<Uploads> FileSystem::GetUploads() {
  const MutexLock guard(drive.lock);
  if (!uploads) {
    uploads = std::make_shared<Uploads>(
        [weak = weak_from_this()](Ino ino) {
          const auto files = weak.lock();
          return files ? files->SendInBackground(ino) : SUCCESS;
        },
        Uploads::Pauses{});
  }
  return uploads;
}

AERROR FileSystem::SendInBackground(Ino ino) {
  std::shared_ptr<OpenFile> file;
  int protocol = 0;
  {
    const MutexLock guard(drive.lock);
    file = drive.open_files.Find(ino);
    protocol = file ? file->remote.protocol : 0;
  }
  if (!file) {
    return SUCCESS;
  }
  if (!remote.CanReach(protocol)) {
    return DEVICE_NOT_READY;  // not tried, so there is nothing to tell
  }
  const AERROR error = Send(file, What::kSaved);
  const MutexLock guard(drive.lock);
  drive.open_files.DropIfUnused(file);
  const bool is_newer = file->unsent.content && drive.nodes.PathOf(ino);
  return error == SUCCESS && is_newer ? RETRY_UPLOAD : error;
}

int FileSystem::SendNow(const std::shared_ptr<OpenFile>& file) {
  AERROR error = Send(file, What::kCurrent);
  for (int attempt = 1; error == RETRY_UPLOAD && attempt < kMaxSendAttempts; ++attempt) {
    error = Send(file, What::kCurrent);
  }
  return ErrnoOf(error);
}

AERROR FileSystem::Send(const std::shared_ptr<OpenFile>& file, What what) {
  for (int attempt = 1;; ++attempt) {
    std::vector<std::string> paths;
    const auto hold = drive.HoldPlaces({{file->ino, ""}}, paths);
    if (!hold) {
      return SUCCESS;  // removed: nobody wants it any more
    }
    Outgoing outgoing;
    AERROR error = BeginSending(*file, what, outgoing);
    if (error != SUCCESS || !outgoing.snapshot.content) {
      return error;
    }
    Attributes stored;
    error = Upload(paths[0], outgoing, stored);
    const bool is_given_up = outgoing.sending->give_up;
    const bool again = error != SUCCESS && !is_given_up &&
                       Remedy(file, paths[0], outgoing, error, stored) &&
                       attempt < kMaxSendAttempts;
    if (error == SUCCESS) {
      Stored(*file, paths[0], *outgoing.work, outgoing.snapshot.state, stored);
      return SUCCESS;
    }
    NotSent(*file, outgoing);
    if (is_given_up) {
      return RETRY_UPLOAD;
    }
    if (!again) {
      events.Failed(FS_EVENT_CREATE_FILE, error, paths[0], paths[0]);
      return error;
    }
  }
}

AERROR FileSystem::BeginSending(OpenFile& file, What what, Outgoing& outgoing) {
  std::shared_ptr<WorkFile> work;
  {
    const MutexLock guard(drive.lock);
    work = file.work;
    what = file.is_kept ? what : What::kCurrent;
  }
  if (!work || !work->IsDirty()) {
    return SUCCESS;
  }
  if (what == What::kCurrent && Complete(file) != 0) {
    return FILE_READ_FAILED;
  }
  WorkFile::Snapshot current = what == What::kCurrent ? work->TakeSnapshot() : WorkFile::Snapshot{};
  const MutexLock one_at_a_time(publishing);
  const MutexLock guard(drive.lock);
  // What is written since the last close comes with the next.
  outgoing.snapshot = what == What::kCurrent ? std::move(current) : file.unsent;
  outgoing.work = std::move(work);
  outgoing.replaces = file.Replaces();
  if (!outgoing.snapshot.content || !outgoing.work->IsDirty()) {
    outgoing.snapshot = {};
    return SUCCESS;
  }
  file.sending = outgoing.sending;
  outgoing.sending->was_read = outgoing.snapshot.state.size == 0;
  outgoing.is_first_attempt = FindAttempt(file.attempts, outgoing.snapshot) == file.attempts.end();
  if (outgoing.is_first_attempt) {
    file.attempts.push_back(outgoing.snapshot);
  }
  return SUCCESS;
}

void FileSystem::NotSent(OpenFile& file, const Outgoing& outgoing) {
  const MutexLock one_at_a_time(publishing);
  const MutexLock guard(drive.lock);
  auto given_up = file.attempts.end();
  if (outgoing.is_first_attempt && !outgoing.sending->was_read) {
    given_up = FindAttempt(file.attempts, outgoing.snapshot);
  } else if (file.attempts.size() > kMostAttempts) {
    given_up = file.attempts.begin();
  }
  if (given_up != file.attempts.end()) {
    Discard({*given_up}, file.unsent);
    file.attempts.erase(given_up);
  }
}

void FileSystem::Discard(const std::vector<WorkFile::Snapshot>& attempts,
                         const WorkFile::Snapshot& unsent) {
  for (const WorkFile::Snapshot& attempt : attempts) {
    if (attempt.content.get() != unsent.content.get()) {
      attempt.content->Discard();
    }
  }
}

bool FileSystem::HasCome(const std::shared_ptr<OpenFile>& file, const std::string& path) {
  {
    const MutexLock guard(drive.lock);
    if (!file || file->at_remote || file->attempts.empty()) {
      return !file || file->at_remote;
    }
  }
  Attributes there;
  const AERROR error = remote.GetInfo(path, there);
  if (error != SUCCESS) {
    return ErrnoOf(error) != ENOENT;
  }
  return IsAnAttempt(*file, path, there) != false;  // else it is somebody else's
}

AERROR FileSystem::Upload(const std::string& path, const Outgoing& outgoing, Attributes& stored) {
  const WorkFile::Snapshot& snapshot = outgoing.snapshot;
  SnapshotSource content{&snapshot, outgoing.sending.get(), &progress};
  FS_SOURCE source = {};
  source.context = &content;
  source.read = &SnapshotSource::Read;
  source.rewind = &SnapshotSource::Rewind;
  source.modified = &snapshot.state.modified;
  source.replaces = outgoing.replaces ? outgoing.replaces->c_str() : nullptr;
  UploadEvents upload_events(events, path, static_cast<long long>(snapshot.state.size));
  stored = {.is_folder = false,
            .size = snapshot.state.size,
            .modified = snapshot.state.modified,
            .version = {}};
  AERROR error = remote.Upload(path, source, snapshot.state.size, &UploadEvents::OnProgress,
                               &upload_events, stored.protocol);
  if (error != SUCCESS && outgoing.sending->give_up) {
    error = UPLOAD_CANCELED;
  }
  if (error == SUCCESS) {
    ++progress;
    stored.version = source.version;
    Attributes answer;
    if (stored.version.empty() && remote.GetInfo(path, answer) == SUCCESS) {
      stored = answer;
    }
  }
  upload_events.End(error);
  return error;
}

void FileSystem::Stored(OpenFile& file, const std::string& path, WorkFile& work,
                        const WorkFile::State& state, const Attributes& stored) {
  {
    const MutexLock one_at_a_time(publishing);
    WorkFile::Snapshot sent;
    WorkFile::Snapshot newer;
    std::vector<WorkFile::Snapshot> earlier;
    {
      const MutexLock guard(drive.lock);
      earlier.swap(file.attempts);
      work.MarkStored(state);
      file.at_remote = true;
      file.remote = stored;
      file.is_fresh = false;
      file.sending.reset();
      file.DropReader();
      if (drive.nodes.Exists(file.ino)) {
        drive.nodes.KernelOf(file.ino).version = stored.version;
      }
      drive.listings.SetPresent(path, stored, Clock::now());
      (file.unsent.state.change <= state.change ? sent : newer) = file.unsent;
      if (sent.content) {
        file.unsent = {};
      }
    }
    if (sent.content) {
      journal->Remove(file.id, *sent.content);
    } else if (newer.content && PutRecord(file, path, newer) != 0) {
      Log(LOGLEVEL_ERROR, "the record of %s cannot be changed", path.c_str());
    }
    Discard(earlier, newer);
  }
  const WorkFile::State now = work.GetState();
  const bool has_another_time = now.modified.seconds != state.modified.seconds ||
                                now.modified.nanoseconds != state.modified.nanoseconds;
  if (now.change == state.change && has_another_time &&
      remote.SetModifiedTime(path, now.modified) == SUCCESS) {
    {
      const MutexLock guard(drive.lock);
      drive.listings.Forget(path);
    }
    if (finder.TakeNewVersion(file, path)) {
      PublishAnew(file);
    }
  }
}

size_t FileSystem::SendAll(Clock::duration patience) {
  std::vector<std::shared_ptr<OpenFile>> files;
  {
    const MutexLock guard(drive.lock);
    for (const auto& [ino, file] : drive.open_files.All()) {
      if (file->work && file->work->IsDirty() && drive.nodes.PathOf(ino)) {
        files.push_back(file);
      }
    }
  }
  const auto sender = GetUploads();
  for (const auto& file : files) {
    // What cannot be kept is sent all the same.
    if (Complete(*file) != 0 || !HasJournalFor(*file) || Publish(file) != 0) {
      const MutexLock guard(drive.lock);
      file->is_kept = false;
    }
    sender->Add(file->ino);
  }
  return sender->Finish(patience, [this] { return progress.load(); });
}

size_t FileSystem::CountLost() const {
  const MutexLock guard(drive.lock);
  return static_cast<size_t>(
      std::count_if(drive.open_files.All().begin(), drive.open_files.All().end(),
                    [&](const auto& open) TARN_REQUIRES(drive.lock) {
                      const OpenFile& file = *open.second;
                      return file.work && file.work->IsDirty() && !file.unsent.content &&
                             drive.nodes.PathOf(file.ino).has_value();
                    }));
}

void FileSystem::CloseAll() {
  GetUploads()->Stop();
  OpenFiles::Map closed;  // ends after the lock
  const MutexLock guard(drive.lock);
  closed = drive.open_files.Close();
  handles.Clear();
  open_folders.Clear();
  for (const auto& [ino, file] : closed) {
    file->DropReader();
  }
}

}  // namespace tarn::fs
