#include "platform/filesystem/sender.h"

#include <algorithm>
#include <utility>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr int kMaxAttempts = 10;  // of one file, while others change what it meets
constexpr std::uint64_t kQuickBytes = std::uint64_t{1} << 20;  // an upload worth waiting for

// One snapshot on its way to the remote. It ends soon when somebody who wants to change its place
// cannot wait.
struct SnapshotSource {
  const PathLocks::Hold* hold;
  UnsentFiles::Outgoing* outgoing;
  std::uint64_t offset = 0;

  static long long Read(void* context, void* buffer, long long length) {
    auto& self = *static_cast<SnapshotSource*>(context);
    const WorkFile::Snapshot& snapshot = self.outgoing->snapshot;
    const std::uint64_t size = snapshot.state.size;
    const Haste haste = self.hold->HasteOfOthers();
    self.outgoing->is_given_up =
        haste == Haste::kAtOnce || (haste == Haste::kUnlessQuick && size > kQuickBytes);
    if (length < 0 || self.outgoing->is_given_up) {
      return -1;
    }
    const size_t wanted =
        std::min<std::uint64_t>(static_cast<std::uint64_t>(length), size - self.offset);
    size_t received = 0;
    if (snapshot.content->Read(self.offset, buffer, wanted, received) != 0 || received < wanted) {
      return -1;
    }
    self.offset += received;
    self.outgoing->was_read = self.outgoing->was_read || self.offset == size;
    if (self.offset > *snapshot.sent_bytes) {  // not what is only sent again
      *snapshot.sent_bytes = self.offset;
      ++*self.outgoing->progress;
    }
    return static_cast<long long>(received);
  }

  static int Rewind(void* context) {
    static_cast<SnapshotSource*>(context)->offset = 0;
    return 0;
  }
};

}  // namespace

Sender::~Sender() {
  if (uploads) {
    uploads->Stop();
  }
}

Uploads& Sender::GetUploads() {
  const MutexLock guard(making);
  if (!uploads) {
    uploads = std::make_shared<Uploads>(
        [this, whole = std::weak_ptr<void>(owner())](Ino ino) {
          const auto keep = whole.lock();
          return keep ? SendInBackground(ino) : SUCCESS;
        },
        Uploads::Pauses{});
  }
  return *uploads;
}

std::shared_ptr<Uploads> Sender::FindUploads() const {
  const MutexLock guard(making);
  return uploads;
}

void Sender::Hasten() {
  if (const auto sending = FindUploads(); sending) {
    sending->Hasten();
  }
}

void Sender::Drop(Ino ino) {
  if (const auto sending = FindUploads(); sending) {
    sending->Drop(ino);
  }
}

Uploads::Status Sender::GetStatus(Ino ino) const {
  const auto sending = FindUploads();
  return sending ? sending->Get(ino) : Uploads::Status{};
}

int Sender::Save(const FilePtr& file) {
  int error = unsent_files.Complete(*file);
  if (error == 0 && !unsent_files.Keep(file)) {  // the disk is full, perhaps
    error = SendNow(file);
  }
  bool is_unsent = false;
  {
    const MutexLock guard(drive.lock);
    is_unsent = file->unsent.content || (error != 0 && !file->is_torn);
  }
  if (is_unsent) {
    Add(file->ino);
  }
  return error;
}

int Sender::Sync(const FilePtr& file) {
  if (const int error = unsent_files.Complete(*file); error != 0) {
    return error;
  }
  (void)unsent_files.Keep(file);  // what cannot be kept is sent all the same
  const int error = SendNow(file);
  if (error != 0 && unsent_files.CanKeep(*file)) {
    Add(file->ino);  // tried again
  }
  return error;
}

size_t Sender::SendAll(Clock::duration patience) {
  std::vector<FilePtr> files;
  std::vector<Uploads::Awaited> awaited;
  {
    const MutexLock guard(drive.lock);
    for (const auto& [ino, file] : drive.open_files.All()) {
      if (file->work && file->work->IsDirty() && drive.nodes.PathOf(ino)) {
        files.push_back(file);
        awaited.push_back({ino, file->progress});
      }
    }
  }
  for (const auto& file : files) {
    // What cannot be kept is sent all the same.
    if (unsent_files.Complete(*file) != 0 || !unsent_files.Keep(file)) {
      const MutexLock guard(drive.lock);
      file->is_kept = false;
    }
    Add(file->ino);
  }
  return GetUploads().Finish(patience, awaited);
}

AERROR Sender::SendInBackground(Ino ino) {
  FilePtr file;
  int protocol = 0;
  bool is_kept = true;
  {
    const MutexLock guard(drive.lock);
    file = drive.open_files.Find(ino);
    protocol = file ? file->remote.protocol : 0;
    is_kept = !file || file->is_kept;
  }
  if (!file) {
    return SUCCESS;
  }
  if (!remote.CanReach(protocol)) {
    return DEVICE_NOT_READY;  // not tried, so there is nothing to tell
  }
  if (!is_kept &&
      unsent_files.Complete(*file) != 0) {  // may take long, so before the place is held
    return FILE_READ_FAILED;
  }
  const AERROR error = Send(file, What::kKept);
  bool is_newer = false;
  {
    const MutexLock guard(drive.lock);
    drive.open_files.DropIfUnused(file);
    is_newer = file->work && file->unsent.content && drive.nodes.PathOf(ino);
  }
  if (error == SUCCESS && is_newer) {
    Add(ino);
  }
  return error;
}

int Sender::SendNow(const FilePtr& file) {
  AERROR error = Send(file, What::kCurrent);
  for (int attempt = 1; error == RETRY_UPLOAD && attempt < kMaxAttempts; ++attempt) {
    error = Send(file, What::kCurrent);
  }
  return ErrnoOf(error);
}

AERROR Sender::Send(const FilePtr& file, What what) {
  for (int attempt = 1;; ++attempt) {
    std::vector<std::string> paths;
    const auto hold = drive.HoldPlaces({{{file->ino, ""}}}, paths);
    if (!hold) {
      return SUCCESS;  // removed: nobody wants it any more
    }
    Outgoing outgoing;
    AERROR error = unsent_files.BeginSending(*file, what, outgoing);
    if (error != SUCCESS || !outgoing.snapshot.content) {
      return error;
    }
    Attributes stored;
    error = Upload(paths[0], *hold, outgoing, stored);
    const bool again = error != SUCCESS && !outgoing.is_given_up &&
                       Remedy(file, paths[0], outgoing, error, stored) && attempt < kMaxAttempts;
    if (error == SUCCESS) {
      Stored(*file, paths[0], outgoing, stored);
      return SUCCESS;
    }
    unsent_files.NotSent(*file, outgoing);
    if (outgoing.is_given_up) {
      return RETRY_UPLOAD;
    }
    if (!again) {
      events.Failed(FS_EVENT_CREATE_FILE, error, paths[0], paths[0]);
      return error;
    }
  }
}

AERROR Sender::Upload(const std::string& path, const PathLocks::Hold& hold, Outgoing& outgoing,
                      Attributes& stored) {
  const WorkFile::Snapshot& snapshot = outgoing.snapshot;
  SnapshotSource content{&hold, &outgoing};
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
  if (error != SUCCESS && outgoing.is_given_up) {
    error = UPLOAD_CANCELED;
  }
  stored.version = source.version;
  if (error == SUCCESS && stored.version.empty()) {
    error = remote.GetInfo(path, stored);  // until that tells so, nobody knows that it came there
    const bool is_all = !stored.is_folder && stored.size == snapshot.state.size;
    error = error == SUCCESS && !is_all ? FILE_WRITE_FAILED : error;
  }
  upload_events.End(error);
  return error;
}

void Sender::Stored(OpenFile& file, const std::string& path, const Outgoing& outgoing,
                    const Attributes& stored) {
  unsent_files.Sent(file, path, outgoing, stored);
  const WorkFile::State& sent = outgoing.snapshot.state;
  const WorkFile::State now = outgoing.work->GetState();
  const bool has_another_time = now.modified.seconds != sent.modified.seconds ||
                                now.modified.nanoseconds != sent.modified.nanoseconds;
  if (now.change == sent.change && has_another_time &&
      remote.SetModifiedTime(path, now.modified) == SUCCESS) {
    {
      const MutexLock guard(drive.lock);
      drive.listings.Forget(path);
    }
    if (finder.TakeNewVersion(file, path)) {
      unsent_files.KeepAnew(file);
    }
  }
}

}  // namespace tarn::fs
