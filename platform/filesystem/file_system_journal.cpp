// Keeping: what programs wrote is safe on this machine's disk until the remote has it.
#include <array>
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

// Empty when the module does not tell; then nothing can be kept for another time.
std::string IdentityOf(IProtocol_V2& protocol) {
  std::array<char, 4096> text = {};
  int length = static_cast<int>(text.size());
  if (protocol.GetIdentity(text.data(), &length) != SUCCESS || length < 0 ||
      static_cast<size_t>(length) >= text.size()) {
    return "";
  }
  return {text.data(), static_cast<size_t>(length)};
}

}  // namespace

void FileSystem::UseJournal(std::unique_ptr<Journal> unsent_files) {
  journal = std::move(unsent_files);
}

void FileSystem::AddProtocol(std::shared_ptr<IProtocol_V2> protocol) {
  const std::string identity = IdentityOf(*protocol);
  remote.Add(std::move(protocol));
  int index = 0;
  {
    const MutexLock guard(lock);
    listings.ForgetTree("/");
    index = static_cast<int>(identities.size());
    identities.push_back(identity);
  }
  if (journal && !identity.empty()) {
    auto found = journal->TakeOver(identity);
    if (!found.empty()) {
      Log(LOGLEVEL_INFO, "%zu files that were not sent before are sent now", found.size());
    }
    for (Journal::Unsent& unsent : found) {
      Adopt(std::move(unsent), index);
    }
  }
  AskSpace();
}

// The file is there for programs as it was, from the first moment.
void FileSystem::Adopt(Journal::Unsent unsent, int protocol) {
  const Journal::Record& record = unsent.record;
  Ino ino = 0;
  {
    const MutexLock guard(lock);
    Ino folder = kRootIno;
    std::string name(NameOf(record.path));
    for (size_t start = 1, end = 0; end = record.path.find('/', start), end != std::string::npos;
         start = end + 1) {
      folder = nodes.Ensure(folder, record.path.substr(start, end - start), true);
    }
    if (const auto other = FindOpenFile(folder, name); other && other->work) {
      name = ConflictName(name, std::time(nullptr));
    }
    ino = nodes.Ensure(folder, name, false);
    const auto file = EnsureOpenFile(ino);
    file->work = std::make_shared<WorkFile>(unsent.content, record.size, record.modified);
    file->unsent = file->work->TakeSnapshot();
    file->id = unsent.id;
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
  const MutexLock guard(lock);
  const auto protocol = static_cast<size_t>(file.remote.protocol);
  return journal && protocol < identities.size() && !identities[protocol].empty();
}

// Of what was changed, all that the remote had and that was not needed before.
int FileSystem::Complete(const OpenFile& file) {
  std::shared_ptr<WorkFile> work;
  {
    const MutexLock guard(lock);
    work = file.work;
  }
  return work && work->IsDirty() ? work->Complete() : 0;
}

int FileSystem::Save(const std::shared_ptr<OpenFile>& file) {
  if (const int error = Complete(*file); error != 0) {
    return error;
  }
  if (!HasJournalFor(*file) || Publish(file) != 0) {  // the disk is full, perhaps
    return SendNow(file);
  }
  bool is_unsent = false;
  {
    const MutexLock guard(lock);
    is_unsent = file->unsent.content != nullptr;
  }
  if (is_unsent) {
    GetUploads()->Add(file->ino);
  }
  return 0;
}

int FileSystem::Publish(const std::shared_ptr<OpenFile>& file) {
  const MutexLock one_at_a_time(publishing);
  std::shared_ptr<WorkFile> work;
  std::optional<std::string> path;
  {
    const MutexLock guard(lock);
    work = file->work;
    path = nodes.PathOf(file->ino);
    if (file->id.empty()) {
      file->id = Journal::MakeId();
    }
  }
  if (!path || !work || !work->IsDirty() || !work->IsComplete()) {
    return 0;
  }
  WorkFile::Snapshot snapshot = work->TakeSnapshot();
  if (file->unsent.content && file->unsent.state.change == snapshot.state.change) {
    return 0;
  }
  if (const int error = PutRecord(*file, *path, snapshot); error != 0) {
    Log(LOGLEVEL_ERROR, "%s cannot be kept until it is sent: %d", path->c_str(), error);
    return error;
  }
  {
    const MutexLock guard(lock);
    std::swap(file->unsent, snapshot);
  }
  if (snapshot.content && snapshot.content.get() != file->unsent.content.get()) {
    snapshot.content->Discard();
  }
  return 0;
}

int FileSystem::PutRecord(const OpenFile& file, const std::string& path,
                          const WorkFile::Snapshot& snapshot) {
  Journal::Record record;
  record.path = path;
  record.size = snapshot.state.size;
  record.modified = snapshot.state.modified;
  {
    const MutexLock guard(lock);
    record.replaces = file.Replaces();
    record.remote = identities[static_cast<size_t>(file.remote.protocol)];
  }
  return journal->Put(file.id, record, *snapshot.content);
}

void FileSystem::PublishAnew(const std::shared_ptr<OpenFile>& file) {
  const MutexLock one_at_a_time(publishing);
  std::optional<std::string> path;
  WorkFile::Snapshot snapshot;
  {
    const MutexLock guard(lock);
    path = nodes.PathOf(file->ino);
    snapshot = file->unsent;
  }
  if (!path || !snapshot.content) {
    return;
  }
  if (const int error = PutRecord(*file, *path, snapshot); error != 0) {
    Log(LOGLEVEL_ERROR, "the record of %s cannot be changed: %d", path->c_str(), error);
  }
}

// A move may have changed the versions, too: what is still ours is to be replaced under the new
// one.
void FileSystem::UnsentMoved(const std::string& path) {
  std::vector<std::pair<std::shared_ptr<OpenFile>, std::string>> moved;
  {
    const MutexLock guard(lock);
    for (const auto& [ino, file] : open_files) {
      const bool is_dirty = file->work && file->work->IsDirty();
      const auto place = is_dirty ? nodes.PathOf(ino) : std::nullopt;
      if (place && IsWithin(*place, path)) {
        moved.emplace_back(file, *place);
      }
    }
  }
  for (const auto& [file, place] : moved) {
    Attributes now;
    if (file->at_remote && remote.GetInfo(place, now) == SUCCESS) {
      const MutexLock guard(lock);
      const bool is_the_same = now.size == file->remote.size &&
                               now.modified.seconds == file->remote.modified.seconds &&
                               now.modified.nanoseconds == file->remote.modified.nanoseconds;
      file->remote = is_the_same ? now : file->remote;
    }
    PublishAnew(file);
  }
}

// True when the file waits to be sent: the time goes with it.
bool FileSystem::SetUnsentModified(const std::shared_ptr<OpenFile>& file, const FS_TIME& time) {
  {
    const MutexLock one_at_a_time(publishing);
    const MutexLock guard(lock);
    if (!file->work || !file->work->IsDirty()) {
      return false;
    }
    file->work->SetModified(time);
    file->unsent.state.modified = time;
  }
  PublishAnew(file);
  return true;
}

void FileSystem::DropUnsent(OpenFile& file) {
  const MutexLock one_at_a_time(publishing);
  WorkFile::Snapshot unsent;
  std::shared_ptr<Uploads> sender;
  {
    const MutexLock guard(lock);
    unsent = std::exchange(file.unsent, {});
    sender = uploads;
  }
  if (unsent.content) {
    journal->Remove(file.id, *unsent.content);
  }
  if (sender) {
    sender->Drop(file.ino);
  }
}

void FileSystem::GiveUpUploadsAt(Ino folder, const std::string& name, bool all) {
  const MutexLock guard(lock);
  const auto path = PathOf(folder, name);
  for (const auto& [ino, file] : open_files) {
    if (!path || !file->give_up || (!all && file->unsent.state.size <= kQuickBytes)) {
      continue;
    }
    if (const auto place = nodes.PathOf(ino); place && IsWithin(*place, *path)) {
      *file->give_up = true;
    }
  }
}

}  // namespace tarn::fs
