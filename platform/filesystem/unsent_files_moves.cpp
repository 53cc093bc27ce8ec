// Unsent files whose places change: with a move, or because another process has left them.
#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/errors.h"
#include "platform/filesystem/names.h"
#include "platform/filesystem/unsent_files.h"

namespace tarn::fs {

namespace {

bool IsSame(const Attributes& file, std::uint64_t size, const FS_TIME& modified) {
  return file.size == size && file.modified.seconds == modified.seconds &&
         file.modified.nanoseconds == modified.nanoseconds;
}

bool Concerns(const Journal::Move& move, const Journal::Unsent& unsent) {
  return unsent.id == move.replaced_id || IsWithin(unsent.record.path, move.from) ||
         IsWithin(unsent.record.path, move.to);
}

bool IsNewer(const Journal::Unsent& one, const Journal::Unsent& other) {
  const auto time = [](const FS_TIME& of) { return std::pair(of.seconds, of.nanoseconds); };
  return time(one.record.modified) > time(other.record.modified);
}

template <typename T>
void Append(std::vector<T>& all, std::vector<T>& more) {
  all.insert(all.end(), std::move_iterator(more.begin()), std::move_iterator(more.end()));
}

}  // namespace

void UnsentFiles::Identify(int protocol) {
  std::string identity = remote.GetIdentity(protocol);
  const MutexLock guard(drive.lock);
  identities.resize(std::max(identities.size(), static_cast<size_t>(protocol) + 1));
  identities[static_cast<size_t>(protocol)] = std::move(identity);
}

std::vector<Ino> UnsentFiles::TakeOver(int protocol) {
  std::string identity;
  {
    const MutexLock guard(drive.lock);
    identity = IdentityOf(protocol);
  }
  std::vector<Ino> adopted;
  if (!journal || identity.empty()) {
    return adopted;
  }
  std::vector<Journal::Move> moves;
  auto found = journal->TakeOver(identity, moves);
  Unsettled rest;
  {
    const MutexLock guard(drive.lock);
    rest = std::exchange(unsettled[protocol], {});
  }
  Append(moves, rest.moves);
  Append(found, rest.files);
  std::erase_if(moves, [&](const Journal::Move& move) { return Settle(move, found); });
  const auto waiting = std::stable_partition(found.begin(), found.end(), [&](const auto& unsent) {
    return std::none_of(moves.begin(), moves.end(),
                        [&](const auto& move) { return Concerns(move, unsent); });
  });
  rest = {std::move(moves), {std::move_iterator(waiting), std::move_iterator(found.end())}};
  found.erase(waiting, found.end());
  {
    const MutexLock guard(drive.lock);
    Append(unsettled[protocol].moves, rest.moves);
    Append(unsettled[protocol].files, rest.files);
  }
  if (!found.empty()) {
    Log(LOGLEVEL_INFO, "%zu files that were not sent before are sent now", found.size());
  }
  std::stable_sort(found.begin(), found.end(), IsNewer);  // the newest of a name gets it
  for (Journal::Unsent& unsent : found) {
    adopted.push_back(Adopt(std::move(unsent), protocol));
  }
  std::reverse(adopted.begin(), adopted.end());
  return adopted;
}

bool UnsentFiles::HasMoreToDo() const {
  if (journal && journal->MayInherit()) {
    return true;
  }
  const MutexLock guard(drive.lock);
  return !unwritten_moves.empty() ||
         std::any_of(unsettled.begin(), unsettled.end(),
                     [](const auto& rest) { return !rest.second.moves.empty(); });
}

// The file is there for programs as it was, from the first moment. Where they have changed a file
// of this name themselves, it stands beside that.
Ino UnsentFiles::Adopt(Journal::Unsent unsent, int protocol) {
  const Journal::Record& record = unsent.record;
  std::vector<std::string> paths;
  const auto hold = drive.HoldPlaces({{{kRootIno, record.path.substr(1)}}}, paths);
  FilePtr file;
  bool is_beside = false;
  {
    const MutexLock guard(drive.lock);
    file = MakePlaceFor(record.path, is_beside);
    FillAdopted(*file, unsent, protocol, is_beside);
  }
  if (is_beside) {
    KeepAnew(*file);  // under the name that it has now
  }
  return file->ino;
}

UnsentFiles::FilePtr UnsentFiles::MakePlaceFor(const std::string& path, bool& is_beside) {
  Ino folder = kRootIno;
  const auto beside_changed = [&](std::string name) TARN_REQUIRES(drive.lock) {
    const auto other = drive.open_files.Find(folder, name);
    if (!other || !(other->work || other->preparing || other->writers > 0)) {
      return name;
    }
    is_beside = true;
    return drive.nodes.FreeConflictName(folder, name);
  };
  for (size_t start = 1, end = 0; end = path.find('/', start), end != std::string::npos;
       start = end + 1) {
    folder = drive.nodes.Ensure(folder, beside_changed(path.substr(start, end - start)), true);
  }
  drive.nodes.Pin(folder);
  std::string name = beside_changed(std::string(NameOf(path)));
  if (drive.open_files.HoldsUnsent(folder, name)) {
    is_beside = true;
    name = drive.nodes.FreeConflictName(folder, name);
  } else if (const auto known = drive.nodes.Find(folder, name); known) {
    drive.nodes.Unlink(*known);  // what the kernel and readers have of it is of another content
  }
  FilePtr file = drive.open_files.Ensure(drive.nodes.Ensure(folder, name, false));
  drive.nodes.Unpin(folder);
  return file;
}

void UnsentFiles::FillAdopted(OpenFile& file, const Journal::Unsent& unsent, int protocol,
                              bool is_beside) {
  const Journal::Record& record = unsent.record;
  file.work = std::make_shared<WorkFile>(unsent.content, record.size, record.modified);
  file.unsent = file.work->TakeSnapshot();
  file.id = unsent.id;
  file.is_kept = true;
  for (size_t i = 0; i < unsent.attempts.size(); ++i) {
    const WorkFile::State state{.change = 0, .size = record.attempts[i].size, .modified = {}};
    file.attempts.push_back({.content = unsent.attempts[i], .state = state, .sent_bytes = nullptr});
  }
  file.attempts.push_back(file.unsent);
  file.at_remote = !is_beside && (!record.replaces || !record.replaces->empty());
  file.remote.version = is_beside ? "" : record.replaces.value_or("");
  file.remote.protocol = protocol;
}

int UnsentFiles::Move(const OpenFile& file, const std::string& path,
                      const std::string& superseded_id, const std::function<void()>& move) {
  const MutexLock one_at_a_time(publishing);
  WorkFile::Snapshot snapshot;
  {
    const MutexLock guard(drive.lock);
    snapshot = file.unsent;
  }
  const int error = snapshot.content ? PutRecord(file, path, snapshot, superseded_id) : 0;
  if (error == 0) {
    move();
  }
  return error;
}

int UnsentFiles::BeginMove(Ino source_ino, const std::vector<std::string>& paths,
                           const OpenFile* target, std::optional<Journal::Move>& noted) {
  Journal::Move move;
  {
    const MutexLock guard(drive.lock);
    if (target != nullptr && target->unsent.content) {
      move.replaced_id = target->id;
    }
    if (!journal || (move.replaced_id.empty() && drive.open_files.UnsentAt(source_ino).empty())) {
      return 0;
    }
  }
  Attributes source;
  if (const AERROR error = remote.GetInfo(paths[0], source); error != SUCCESS) {
    return ErrnoOf(error);
  }
  {
    const MutexLock guard(drive.lock);
    move.remote = IdentityOf(source.protocol);
  }
  move.id = Journal::MakeId();
  move.from = paths[0];
  move.to = paths[1];
  move.is_folder = source.is_folder;
  move.size = source.size;
  move.modified = source.modified;
  const int error = journal->Put(move);
  if (error == 0) {
    noted = std::move(move);
  }
  return error;
}

bool UnsentFiles::EndMove(const std::optional<Journal::Move>& move,
                          std::vector<FilePtr> unwritten) {
  if (move && !unwritten.empty()) {
    const MutexLock guard(drive.lock);
    unwritten_moves.emplace_back(*move, std::move(unwritten));
    return false;
  }
  if (move) {
    journal->Remove(*move);
  }
  return true;
}

void UnsentFiles::WriteRecords() {
  decltype(unwritten_moves) moves;
  {
    const MutexLock guard(drive.lock);
    moves.swap(unwritten_moves);
  }
  for (auto& [move, unwritten] : moves) {
    std::erase_if(unwritten, [this](const FilePtr& file) { return PutRecordAnew(*file, "") == 0; });
    (void)EndMove(move, std::move(unwritten));
  }
}

// A move may have changed the versions, too: what is still ours is to be replaced under the new
// one.
std::vector<UnsentFiles::FilePtr> UnsentFiles::Moved(Ino top, const std::string& superseded_id) {
  std::vector<FilePtr> unwritten;
  std::vector<std::pair<FilePtr, std::string>> moved;
  {
    const MutexLock guard(drive.lock);
    moved = drive.open_files.UnsentAt(top);
  }
  for (const auto& [file, place] : moved) {
    Attributes now;
    bool is_at_remote = false;
    {
      const MutexLock guard(drive.lock);
      is_at_remote = file->at_remote;
    }
    if (is_at_remote && remote.GetInfo(place, now) == SUCCESS) {
      const MutexLock guard(drive.lock);
      const bool is_the_same = IsSame(now, file->remote.size, file->remote.modified);
      file->remote = is_the_same ? now : file->remote;
    }
    const int error = PutRecordAnew(*file, file->ino == top ? superseded_id : "");
    if (error != 0) {
      Log(LOGLEVEL_ERROR, "the record of %s cannot be changed: %d", place.c_str(), error);
      unwritten.push_back(file);
    }
  }
  return unwritten;
}

std::optional<bool> UnsentFiles::HasHappened(const Journal::Move& move, Attributes& moved) {
  Attributes there;
  const int from_error = ErrnoOf(remote.GetInfo(move.from, there));
  if (from_error == 0) {
    return false;
  }
  const int to_error = from_error == ENOENT ? ErrnoOf(remote.GetInfo(move.to, moved)) : from_error;
  if (to_error != 0) {
    return to_error == ENOENT ? std::optional(false) : std::nullopt;
  }
  return moved.is_folder == move.is_folder &&
         (moved.is_folder || IsSame(moved, move.size, move.modified));
}

bool UnsentFiles::Settle(const Journal::Move& move, std::vector<Journal::Unsent>& found) {
  Attributes moved;
  const auto has_happened = HasHappened(move, moved);
  bool is_settled = has_happened.has_value();
  for (Journal::Unsent& unsent : found) {
    Journal::Record record = unsent.record;
    if (has_happened != true || unsent.id == move.replaced_id ||
        !IsWithin(record.path, move.from)) {
      continue;
    }
    record.path = move.to + record.path.substr(move.from.size());
    if (!moved.is_folder && record.replaces && !record.replaces->empty()) {
      record.replaces = moved.version;
    }
    if (journal->Put(unsent.id, record, *unsent.content) == 0) {
      unsent.record = std::move(record);
    } else {
      is_settled = false;
    }
  }
  if (!is_settled) {
    return false;
  }
  std::erase_if(found, [&](const Journal::Unsent& unsent) {
    const bool is_replaced = has_happened == true && unsent.id == move.replaced_id;
    if (is_replaced) {
      journal->Remove(unsent.id, *unsent.content);
    }
    return is_replaced;
  });
  journal->Remove(move);
  return true;
}

}  // namespace tarn::fs
