// What an upload meets at the remote, and what becomes of the file then.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/names.h"
#include "platform/filesystem/sender.h"

namespace tarn::fs {

namespace {

constexpr size_t kCompareBytes = size_t{1} << 20;

}  // namespace

bool Sender::HasCome(const FilePtr& file, const std::string& path) {
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

bool Sender::Remedy(const FilePtr& file, const std::string& path, const Outgoing& outgoing,
                    AERROR& error, Attributes& stored) {
  switch (error) {
    case PATH_NOT_FOUND:
      return MakeFoldersAbove(path);
    case SHARING_VIOLATION:
    case ALREADY_EXISTS:
    case FILE_EXISTS:
      return SettleConflict(file, path, outgoing, error, stored);
    default:
      return false;
  }
}

// The remote has something else there than what was to be replaced, or somebody has locked it.
bool Sender::SettleConflict(const FilePtr& file, const std::string& path, const Outgoing& outgoing,
                            AERROR& error, Attributes& stored) {
  Attributes there;
  const AERROR asked = remote.GetInfo(path, there);
  const bool is_absent = ErrnoOf(asked) == ENOENT;
  if (is_absent && outgoing.replaces && !outgoing.replaces->empty()) {
    const MutexLock guard(drive.lock);
    file->at_remote = false;  // removed by somebody else; ours is kept as a new one
    return true;
  }
  const bool is_locked =
      !there.is_folder && (is_absent || !outgoing.replaces || there.version == *outgoing.replaces);
  if (asked != SUCCESS || is_locked) {
    return false;
  }
  // An upload whose answer was lost, or that this process did not live to see, has come there.
  const auto is_ours = IsAtRemote(*file, path, there, outgoing.snapshot);
  const auto is_attempt = is_ours == false ? IsAnAttempt(*file, path, there) : is_ours;
  if (!is_attempt) {
    return false;  // not to be found out now
  }
  if (is_ours == true) {
    stored = there;
    error = SUCCESS;
    return false;
  }
  if (is_attempt == false) {
    MoveAside(*file, path);
    return true;
  }
  {
    const MutexLock guard(drive.lock);
    file->at_remote = true;
    file->remote = there;
  }
  unsent_files.KeepAnew(*file);
  return true;
}

std::optional<bool> Sender::IsAnAttempt(const OpenFile& file, const std::string& path,
                                        const Attributes& there) {
  std::vector<WorkFile::Snapshot> attempts;
  {
    const MutexLock guard(drive.lock);
    attempts = file.attempts;
  }
  for (const WorkFile::Snapshot& attempt : attempts) {
    if (const auto is_this = IsAtRemote(file, path, there, attempt); is_this != false) {
      return is_this;
    }
  }
  return false;
}

std::optional<bool> Sender::IsAtRemote(const OpenFile& file, const std::string& path,
                                       const Attributes& attributes,
                                       const WorkFile::Snapshot& snapshot) {
  if (attributes.is_folder || attributes.size != snapshot.state.size) {
    return false;
  }
  bool is_same = true;
  std::vector<char> ours(std::min<std::uint64_t>(kCompareBytes, attributes.size));
  for (std::uint64_t offset = 0; is_same && offset < attributes.size; offset += ours.size()) {
    const size_t length = std::min<std::uint64_t>(ours.size(), attributes.size - offset);
    const auto theirs = Buffer::Make(length);
    size_t of_ours = 0;
    size_t of_theirs = 0;
    if (snapshot.content->Read(offset, ours.data(), length, of_ours) != 0 || of_ours != length ||
        !theirs || remote.Read(attributes.protocol, path, offset, theirs, of_theirs) != SUCCESS ||
        of_theirs != length) {
      return std::nullopt;
    }
    is_same = std::memcmp(ours.data(), theirs->data(), length) == 0;
    ++*file.progress;
  }
  Attributes now;
  const bool is_as_asked =
      remote.GetInfo(path, now) == SUCCESS && now.version == attributes.version;
  return is_as_asked ? std::optional(is_same) : std::nullopt;
}

void Sender::MoveAside(OpenFile& file, const std::string& path) {
  std::string new_path;
  {
    const MutexLock guard(drive.lock);
    const Ino folder = drive.nodes.FolderOf(file.ino);
    const std::string name = drive.nodes.FreeConflictName(folder, std::string(NameOf(path)));
    new_path = JoinPath(FolderOf(path), name);
    drive.nodes.Move(file.ino, folder, name);
    file.at_remote = false;
    drive.listings.Forget(path);
    drive.listings.Forget(new_path);
  }
  unsent_files.KeepAnew(file);
  events.Failed(FS_EVENT_CREATE_FILE, SHARING_VIOLATION, new_path, path);
}

// For files that waited while their folder went.
bool Sender::MakeFoldersAbove(const std::string& path) {
  bool has_made = false;
  if (remote.Count() > 1) {
    return false;  // which of them lost it is not known
  }
  for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
    const AERROR error = remote.CreateFolder(path.substr(0, end));
    has_made = has_made || error == SUCCESS;
    if (error != SUCCESS && error != ALREADY_EXISTS && error != FILE_EXISTS) {
      return false;
    }
    const MutexLock guard(drive.lock);
    drive.listings.Forget(path.substr(0, end));
  }
  return has_made;
}

}  // namespace tarn::fs
