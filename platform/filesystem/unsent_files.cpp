#include "platform/filesystem/unsent_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/errors.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr size_t kMostAttempts = 4;  // that one file has on this machine's disk

// Without a journal.
std::string WorkFolder() {
  const Lent<ICache>::Lease cache(Bindings::Get().cache);
  if (const char* folder = cache ? cache->GetFolder() : nullptr; folder != nullptr) {
    return folder;
  }
  const char* temporary = std::getenv("TMPDIR");
  return temporary != nullptr && *temporary == '/' ? temporary : "/tmp";
}

std::vector<WorkFile::Snapshot>::iterator FindAttempt(std::vector<WorkFile::Snapshot>& attempts,
                                                      const WorkFile::Snapshot& snapshot) {
  return std::find_if(attempts.begin(), attempts.end(), [&](const WorkFile::Snapshot& attempt) {
    return attempt.content.get() == snapshot.content.get();
  });
}

}  // namespace

int UnsentFiles::MakeWork(std::shared_ptr<WorkFile>& work) const {
  std::shared_ptr<Content> content;
  const std::string folder = journal ? journal->GetFolder() : WorkFolder();
  if (const int error = Content::Make(folder, journal != nullptr, content); error != 0) {
    return error;
  }
  work = std::make_shared<WorkFile>(std::move(content));
  return 0;
}

bool UnsentFiles::CanKeep(const OpenFile& file) const {
  const MutexLock guard(drive.lock);
  return journal && !IdentityOf(file.remote.protocol).empty();
}

std::string UnsentFiles::IdentityOf(int protocol) const {
  const auto index = static_cast<size_t>(protocol);
  return index < identities.size() ? identities[index] : "";
}

int UnsentFiles::Complete(OpenFile& file) {
  std::shared_ptr<WorkFile> work;
  {
    const MutexLock guard(drive.lock);
    work = drive.nodes.PathOf(file.ino) ? file.work : nullptr;  // else it goes nowhere
  }
  const int error = work && work->IsDirty() ? work->Complete() : 0;
  const MutexLock guard(drive.lock);
  file.is_kept = file.is_kept && error == 0;
  file.is_torn = error == ESTALE;  // no longer when all of it was written anew
  return error == ESTALE ? EIO : error;
}

bool UnsentFiles::Keep(const FilePtr& file) {
  if (!CanKeep(*file)) {
    return false;
  }
  std::shared_ptr<WorkFile> work;
  {
    const MutexLock guard(drive.lock);
    work = file->work;
  }
  if (!work || !work->IsDirty() || !work->IsComplete()) {
    return true;
  }
  WorkFile::Snapshot snapshot = work->TakeSnapshot();  // may wait for a change that copies it all
  const MutexLock one_at_a_time(publishing);
  std::optional<std::string> path;
  {
    const MutexLock guard(drive.lock);
    path = drive.nodes.PathOf(file->ino);
    if (file->id.empty()) {
      file->id = Journal::MakeId();
    }
    const bool is_old = file->unsent.content && file->unsent.state.change >= snapshot.state.change;
    if (!path || !work->IsDirty() || is_old) {
      return true;
    }
  }
  if (const int error = PutRecord(*file, *path, snapshot); error != 0) {
    Log(LOGLEVEL_ERROR, "%s cannot be kept until it is sent: %d", path->c_str(), error);
    const MutexLock guard(drive.lock);
    file->is_kept = false;
    return false;
  }
  const MutexLock guard(drive.lock);
  std::swap(file->unsent, snapshot);
  file->is_kept = true;
  if (snapshot.content && FindAttempt(file->attempts, snapshot) == file->attempts.end()) {
    Discard({snapshot}, file->unsent);
  }
  return true;
}

int UnsentFiles::PutRecord(const OpenFile& file, const std::string& path,
                           const WorkFile::Snapshot& snapshot, const std::string& superseded_id) {
  Journal::Record record;
  record.supersedes = superseded_id;
  record.path = path;
  record.size = snapshot.state.size;
  record.modified = snapshot.state.modified;
  {
    const MutexLock guard(drive.lock);
    record.replaces = file.Replaces();
    for (const WorkFile::Snapshot& attempt : file.attempts) {
      if (attempt.content != snapshot.content && attempt.content->IsKept()) {
        record.attempts.push_back(
            {std::string(NameOf(attempt.content->Path())), attempt.state.size});
      }
    }
    record.remote = IdentityOf(file.remote.protocol);
  }
  return journal->Put(file.id, record, *snapshot.content);
}

void UnsentFiles::KeepAnew(const OpenFile& file) {
  if (const int error = PutRecordAnew(file, ""); error != 0) {
    Log(LOGLEVEL_ERROR, "the record of %s cannot be changed: %d", file.id.c_str(), error);
  }
}

int UnsentFiles::PutRecordAnew(const OpenFile& file, const std::string& superseded_id) {
  const MutexLock one_at_a_time(publishing);
  std::optional<std::string> path;
  WorkFile::Snapshot snapshot;
  {
    const MutexLock guard(drive.lock);
    path = drive.nodes.PathOf(file.ino);
    snapshot = file.unsent;
  }
  return path && snapshot.content ? PutRecord(file, *path, snapshot, superseded_id) : 0;
}

bool UnsentFiles::SetModified(Ino ino, const FS_TIME& time) {
  FilePtr file;
  {
    const MutexLock one_at_a_time(publishing);
    const MutexLock guard(drive.lock);
    file = drive.open_files.Find(ino);
    if (!file || !file->work || !file->work->IsDirty()) {
      return false;
    }
    file->work->SetModified(time);
    file->unsent.state.modified = time;
  }
  KeepAnew(*file);
  return true;
}

void UnsentFiles::Drop(OpenFile& file) {
  const MutexLock one_at_a_time(publishing);
  WorkFile::Snapshot unsent;
  std::vector<WorkFile::Snapshot> attempts;
  {
    const MutexLock guard(drive.lock);
    unsent = std::exchange(file.unsent, {});
    attempts = std::exchange(file.attempts, {});
  }
  if (unsent.content) {
    journal->Remove(file.id, *unsent.content);
  }
  Discard(attempts, {});
}

size_t UnsentFiles::CountLost() const {
  const MutexLock guard(drive.lock);
  return static_cast<size_t>(
      std::count_if(drive.open_files.All().begin(), drive.open_files.All().end(),
                    [&](const auto& open) TARN_REQUIRES(drive.lock) {
                      const OpenFile& file = *open.second;
                      return file.work && file.work->IsDirty() && !file.unsent.content &&
                             drive.nodes.PathOf(file.ino).has_value();
                    }));
}

AERROR UnsentFiles::BeginSending(OpenFile& file, What what, Outgoing& outgoing) {
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
  outgoing.progress = file.progress;
  outgoing.was_read = outgoing.snapshot.state.size == 0;
  outgoing.is_first_attempt = FindAttempt(file.attempts, outgoing.snapshot) == file.attempts.end();
  if (outgoing.is_first_attempt) {
    file.attempts.push_back(outgoing.snapshot);
  }
  return SUCCESS;
}

void UnsentFiles::NotSent(OpenFile& file, const Outgoing& outgoing) {
  const MutexLock one_at_a_time(publishing);
  const MutexLock guard(drive.lock);
  auto given_up = file.attempts.end();
  if (outgoing.is_first_attempt && !outgoing.was_read) {
    given_up = FindAttempt(file.attempts, outgoing.snapshot);
  } else if (file.attempts.size() > kMostAttempts) {
    given_up = file.attempts.begin();
  }
  if (given_up != file.attempts.end()) {
    Discard({*given_up}, file.unsent);
    file.attempts.erase(given_up);
  }
}

void UnsentFiles::Discard(const std::vector<WorkFile::Snapshot>& attempts,
                          const WorkFile::Snapshot& unsent) {
  for (const WorkFile::Snapshot& attempt : attempts) {
    if (attempt.content.get() != unsent.content.get()) {
      attempt.content->Discard();
    }
  }
}

void UnsentFiles::Sent(OpenFile& file, const std::string& path, const Outgoing& outgoing,
                       const Attributes& stored) {
  const WorkFile::State& state = outgoing.snapshot.state;
  const MutexLock one_at_a_time(publishing);
  WorkFile::Snapshot sent;
  WorkFile::Snapshot newer;
  std::vector<WorkFile::Snapshot> earlier;
  {
    const MutexLock guard(drive.lock);
    earlier.swap(file.attempts);
    outgoing.work->MarkStored(state);
    file.at_remote = true;
    file.remote = stored;
    file.is_fresh = false;
    file.DropReader();
    if (drive.nodes.Exists(file.ino)) {
      drive.nodes.KernelOf(file.ino).version = stored.version;
      drive.nodes.HasNewContent(file.ino);
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

}  // namespace tarn::fs
