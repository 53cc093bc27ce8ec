// Keeping: what programs wrote is safe on this machine's disk until the remote has it.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/errors.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr std::uint64_t kQuickBytes = std::uint64_t{1} << 20;  // an upload worth waiting for

// Without a journal.
std::string WorkFolder() {
  const Lent<ICache>::Lease cache(Bindings::Get().cache);
  if (const char* folder = cache ? cache->GetFolder() : nullptr; folder != nullptr) {
    return folder;
  }
  const char* temporary = std::getenv("TMPDIR");
  return temporary != nullptr && *temporary == '/' ? temporary : "/tmp";
}

bool IsSame(const Attributes& file, std::uint64_t size, const FS_TIME& modified) {
  return file.size == size && file.modified.seconds == modified.seconds &&
         file.modified.nanoseconds == modified.nanoseconds;
}

}  // namespace

void FileSystem::UseJournal(std::unique_ptr<Journal> unsent_files) {
  journal = std::move(unsent_files);
}

void FileSystem::AddProtocol(std::shared_ptr<IProtocol_V2> protocol) {
  const int index = remote.Add(std::move(protocol));
  const std::string identity = remote.GetIdentity(index);
  {
    const MutexLock guard(drive.lock);
    drive.listings.ForgetTree("/");
    identities.resize(std::max(identities.size(), static_cast<size_t>(index) + 1));
    identities[static_cast<size_t>(index)] = identity;
  }
  if (journal && !identity.empty()) {
    std::vector<Journal::Move> moves;
    auto found = journal->TakeOver(identity, moves);
    for (const Journal::Move& move : moves) {
      Settle(move, found);
    }
    if (!found.empty()) {
      Log(LOGLEVEL_INFO, "%zu files that were not sent before are sent now", found.size());
    }
    for (Journal::Unsent& unsent : found) {
      Adopt(std::move(unsent), index);
    }
  }
  space.Ask();
}

// The file is there for programs as it was, from the first moment.
void FileSystem::Adopt(Journal::Unsent unsent, int protocol) {
  const Journal::Record& record = unsent.record;
  Ino ino = 0;
  {
    const MutexLock guard(drive.lock);
    Ino folder = kRootIno;
    std::string name(NameOf(record.path));
    for (size_t start = 1, end = 0; end = record.path.find('/', start), end != std::string::npos;
         start = end + 1) {
      folder = drive.nodes.Ensure(folder, record.path.substr(start, end - start), true);
    }
    if (const auto other = drive.open_files.Find(folder, name); other && other->work) {
      name = FreeConflictName(folder, name);
    }
    ino = drive.nodes.Ensure(folder, name, false);
    const auto file = drive.open_files.Ensure(ino);
    file->work = std::make_shared<WorkFile>(unsent.content, record.size, record.modified);
    file->unsent = file->work->TakeSnapshot();
    file->id = unsent.id;
    file->is_kept = true;
    for (size_t i = 0; i < unsent.attempts.size(); ++i) {
      const WorkFile::State state{.change = 0, .size = record.attempts[i].size, .modified = {}};
      file->attempts.push_back(
          {.content = unsent.attempts[i], .state = state, .sent_bytes = nullptr});
    }
    file->attempts.push_back(file->unsent);
    file->at_remote = !record.replaces || !record.replaces->empty();
    file->remote.version = record.replaces.value_or("");
    file->remote.protocol = protocol;
  }
  GetUploads()->Add(ino);
}

int FileSystem::MakeWork(std::shared_ptr<WorkFile>& work) const {
  std::shared_ptr<Content> content;
  const std::string folder = journal ? journal->GetFolder() : WorkFolder();
  if (const int error = Content::Make(folder, journal != nullptr, content); error != 0) {
    return error;
  }
  work = std::make_shared<WorkFile>(std::move(content));
  return 0;
}

bool FileSystem::HasJournalFor(const OpenFile& file) {
  const MutexLock guard(drive.lock);
  const auto protocol = static_cast<size_t>(file.remote.protocol);
  return journal && protocol < identities.size() && !identities[protocol].empty();
}

// Of what was changed, all that the remote had and that was not needed before.
int FileSystem::Complete(OpenFile& file) {
  std::shared_ptr<WorkFile> work;
  {
    const MutexLock guard(drive.lock);
    work = file.work;
  }
  const int error = work && work->IsDirty() ? work->Complete() : 0;
  if (error != 0) {
    const MutexLock guard(drive.lock);
    file.is_kept = false;
    file.is_torn = error == ESTALE;
  }
  return error == ESTALE ? EIO : error;
}

int FileSystem::Save(const std::shared_ptr<OpenFile>& file) {
  int error = Complete(*file);
  if (error == 0 && (!HasJournalFor(*file) || Publish(file) != 0)) {  // the disk is full, perhaps
    error = SendNow(file);
  }
  bool is_unsent = false;
  {
    const MutexLock guard(drive.lock);
    is_unsent = file->unsent.content || (error != 0 && !file->is_torn);
  }
  if (is_unsent) {
    GetUploads()->Add(file->ino);
  }
  return error;
}

int FileSystem::Publish(const std::shared_ptr<OpenFile>& file) {
  std::shared_ptr<WorkFile> work;
  {
    const MutexLock guard(drive.lock);
    work = file->work;
  }
  if (!work || !work->IsDirty() || !work->IsComplete()) {
    return 0;
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
      return 0;
    }
  }
  if (const int error = PutRecord(*file, *path, snapshot); error != 0) {
    Log(LOGLEVEL_ERROR, "%s cannot be kept until it is sent: %d", path->c_str(), error);
    const MutexLock guard(drive.lock);
    file->is_kept = false;
    return error;
  }
  const MutexLock guard(drive.lock);
  std::swap(file->unsent, snapshot);
  file->is_kept = true;
  const bool is_attempt = std::any_of(
      file->attempts.begin(), file->attempts.end(),
      [&](const auto& attempt) { return attempt.content.get() == snapshot.content.get(); });
  if (snapshot.content && !is_attempt) {
    Discard({snapshot}, file->unsent);
  }
  return 0;
}

int FileSystem::PutRecord(const OpenFile& file, const std::string& path,
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
    record.remote = identities[static_cast<size_t>(file.remote.protocol)];
  }
  return journal->Put(file.id, record, *snapshot.content);
}

void FileSystem::PublishAnew(const OpenFile& file, const std::string& superseded_id) {
  const MutexLock one_at_a_time(publishing);
  std::optional<std::string> path;
  WorkFile::Snapshot snapshot;
  {
    const MutexLock guard(drive.lock);
    path = drive.nodes.PathOf(file.ino);
    snapshot = file.unsent;
  }
  if (!path || !snapshot.content) {
    return;
  }
  if (const int error = PutRecord(file, *path, snapshot, superseded_id); error != 0) {
    Log(LOGLEVEL_ERROR, "the record of %s cannot be changed: %d", path->c_str(), error);
  }
}

// A move may have changed the versions, too: what is still ours is to be replaced under the new
// one.
void FileSystem::UnsentMoved(Ino top, bool at_remote, const std::string& superseded_id) {
  std::vector<std::pair<std::shared_ptr<OpenFile>, std::string>> moved;
  {
    const MutexLock guard(drive.lock);
    moved = drive.open_files.UnsentAt(top);
  }
  for (const auto& [file, place] : moved) {
    Attributes now;
    if (at_remote && file->at_remote && remote.GetInfo(place, now) == SUCCESS) {
      const MutexLock guard(drive.lock);
      const bool is_the_same = IsSame(now, file->remote.size, file->remote.modified);
      file->remote = is_the_same ? now : file->remote;
    }
    PublishAnew(*file, file->ino == top ? superseded_id : "");
  }
}

std::optional<Journal::Move> FileSystem::NoteMove(Ino source_ino,
                                                  const std::vector<std::string>& paths,
                                                  const OpenFile* target) {
  Journal::Move move;
  {
    const MutexLock guard(drive.lock);
    if (target != nullptr && target->unsent.content) {
      move.replaced_id = target->id;
    }
    if (!journal || (move.replaced_id.empty() && drive.open_files.UnsentAt(source_ino).empty())) {
      return std::nullopt;
    }
  }
  Attributes source;
  if (remote.GetInfo(paths[0], source) != SUCCESS) {
    return std::nullopt;  // neither will it be moved
  }
  {
    const MutexLock guard(drive.lock);
    move.remote = identities[static_cast<size_t>(source.protocol)];
  }
  move.id = Journal::MakeId();
  move.from = paths[0];
  move.to = paths[1];
  move.is_folder = source.is_folder;
  move.size = source.size;
  move.modified = source.modified;
  if (const int error = journal->Put(move); error != 0) {
    Log(LOGLEVEL_ERROR, "the move of %s cannot be noted: %d", paths[0].c_str(), error);
  }
  return move;
}

void FileSystem::Settle(const Journal::Move& move, std::vector<Journal::Unsent>& found) {
  Attributes there;
  Attributes moved;
  const bool has_gone = ErrnoOf(remote.GetInfo(move.from, there)) == ENOENT;
  const bool has_come = has_gone && remote.GetInfo(move.to, moved) == SUCCESS &&
                        moved.is_folder == move.is_folder &&
                        (moved.is_folder || IsSame(moved, move.size, move.modified));
  for (Journal::Unsent& unsent : found) {
    Journal::Record& record = unsent.record;
    if (has_come && unsent.id == move.replaced_id) {
      journal->Remove(unsent.id, *unsent.content);
    } else if (has_come && IsWithin(record.path, move.from)) {
      record.path = move.to + record.path.substr(move.from.size());
      if (!moved.is_folder && record.replaces && !record.replaces->empty()) {
        record.replaces = moved.version;
      }
      (void)journal->Put(unsent.id, record, *unsent.content);  // else it is asked for once more
    }
  }
  std::erase_if(found, [&](const Journal::Unsent& unsent) {
    return has_come && unsent.id == move.replaced_id;
  });
  journal->Remove(move);
}

// True when the file waits to be sent: the time goes with it.
bool FileSystem::SetUnsentModified(Ino ino, const FS_TIME& time) {
  std::shared_ptr<OpenFile> file;
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
  PublishAnew(*file);
  return true;
}

void FileSystem::DropUnsent(OpenFile& file) {
  const MutexLock one_at_a_time(publishing);
  WorkFile::Snapshot unsent;
  std::vector<WorkFile::Snapshot> attempts;
  std::shared_ptr<Uploads> sender;
  {
    const MutexLock guard(drive.lock);
    unsent = std::exchange(file.unsent, {});
    attempts = std::exchange(file.attempts, {});
    sender = uploads;
  }
  if (unsent.content) {
    journal->Remove(file.id, *unsent.content);
  }
  Discard(attempts, {});
  if (sender) {
    sender->Drop(file.ino);
  }
}

void FileSystem::GiveUpUploadsAt(Ino folder, const std::string& name, bool all) {
  const MutexLock guard(drive.lock);
  const auto path = drive.nodes.PathOf(folder, name);
  for (const auto& [ino, file] : drive.open_files.All()) {
    if (!path || !file->sending || (!all && file->unsent.state.size <= kQuickBytes)) {
      continue;
    }
    if (const auto place = drive.nodes.PathOf(ino); place && IsWithin(*place, *path)) {
      file->sending->give_up = true;
    }
  }
}

}  // namespace tarn::fs
