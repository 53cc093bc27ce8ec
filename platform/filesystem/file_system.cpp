// The state that names, attributes and content share.
#include "platform/filesystem/file_system.h"

#include <cerrno>
#include <utility>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr int kMaxAttempts = 10;

}  // namespace

FileSystem::FileSystem(Clock::duration attribute_time_out, const Limits& limits)
    : remote(limits, [this](bool is_reachable) { ReachabilityChanged(is_reachable); }),
      mounted_at(Now()),
      time_out(attribute_time_out),
      suspension(limits.asleep),
      space(remote, [this] { return weak_from_this().lock(); }),
      listings(attribute_time_out),
      small(nodes, listings) {}

FileSystem::~FileSystem() {
  remote.Stop();  // or its threads would go on to tell of what they find
  if (uploads) {
    uploads->Stop();
  }
}

bool FileSystem::GetPaths(const std::vector<Place>& places, std::vector<std::string>& paths) const {
  paths.clear();
  for (const Place& place : places) {
    auto path = place.name.empty() ? nodes.PathOf(place.ino) : nodes.PathOf(place.ino, place.name);
    if (!path) {
      return false;
    }
    paths.push_back(std::move(*path));
  }
  return true;
}

std::optional<PathLocks::Hold> FileSystem::HoldPlaces(const std::vector<Place>& places,
                                                      std::vector<std::string>& paths) {
  {
    const MutexLock guard(lock);
    if (!GetPaths(places, paths)) {
      return std::nullopt;
    }
  }
  for (;;) {
    PathLocks::Hold hold = changes.Take(paths);
    std::vector<std::string> paths_now;
    const MutexLock guard(lock);
    if (!GetPaths(places, paths_now)) {
      return std::nullopt;
    }
    if (paths_now == paths) {
      return hold;
    }
    paths = std::move(paths_now);  // renamed while this waited
  }
}

void FileSystem::NoticeResume() {
  if (suspension.HasResumed()) {
    const MutexLock guard(lock);
    listings.Expire();
  }
}

void FileSystem::ReachabilityChanged(bool is_reachable) {
  {
    const MutexLock guard(lock);
    listings.BelieveOld(!is_reachable);
  }
  events.ReachabilityChanged(is_reachable);
  if (is_reachable) {
    GetUploads()->Hasten();
  }
}

int FileSystem::Find(const std::string& path, bool ask_anew, Listings::Answer& answer) {
  for (int attempt = 1;; ++attempt) {
    const auto asked = Clock::now();
    Listings::Ticket ticket = 0;
    {
      const MutexLock guard(lock);
      answer = listings.Find(path, asked);
      const bool may_ask = ask_anew && remote.IsReachable();
      if (!may_ask && answer.known != Listings::Known::kNothing) {
        return 0;
      }
      ticket = listings.Begin();
    }
    answer = {Listings::Known::kPresent, {}, asked, time_out};
    const AERROR error = remote.GetInfo(path, answer.attributes);
    if (ErrnoOf(error) == ENOENT) {
      answer.known = Listings::Known::kAbsent;
    } else if (error != SUCCESS) {
      const MutexLock guard(lock);
      const bool is_lost = error == DEVICE_NOT_READY && !remote.IsReachable();
      answer = is_lost ? listings.Find(path, asked) : Listings::Answer{};
      return answer.known != Listings::Known::kNothing ? 0 : ErrnoOf(error);
    }
    const MutexLock guard(lock);
    const bool is_present = answer.known == Listings::Known::kPresent;
    if (listings.Add(ticket, path, is_present ? &answer.attributes : nullptr, asked) ||
        attempt == kMaxAttempts) {
      return 0;
    }  // else it was changed from here meanwhile, and the answer may be from before that
  }
}

std::shared_ptr<OpenFile> FileSystem::FindOpenFile(Ino ino) const {
  const auto file = open_files.find(ino);
  return file == open_files.end() ? nullptr : file->second;
}

std::shared_ptr<OpenFile> FileSystem::FindOpenFile(Ino folder, const std::string& name) const {
  const auto ino = nodes.Find(folder, name);
  return ino ? FindOpenFile(*ino) : nullptr;
}

std::shared_ptr<OpenFile> FileSystem::EnsureOpenFile(Ino ino) {
  auto& file = open_files[ino];
  if (!file) {
    file = std::make_shared<OpenFile>();
    file->ino = ino;
    nodes.Pin(ino);
  }
  return file;
}

void FileSystem::DropOpenFileIfUnused(const std::shared_ptr<OpenFile>& file) {
  if (FindOpenFile(file->ino) != file) {
    return;  // dropped already, and perhaps opened anew
  }
  const bool linked = nodes.PathOf(file->ino).has_value();
  const bool is_unsent = linked && file->work && file->work->IsDirty();
  if (is_unsent && file->handles == 0) {
    file->work->LetGo();
  }
  if (file->preparing || is_unsent) {
    return;
  }
  if (file->writers == 0 && linked) {
    file->work.reset();
  }
  if (file->handles == 0 && open_files.erase(file->ino) != 0) {
    if (file->reader) {
      nodes.Remember(file->ino);
    }
    DropReader(*file);
    nodes.Unpin(file->ino);
  }
}

Stat FileSystem::LocalStat(const OpenFile& file) const {
  const WorkFile::State state = file.work->GetState();
  return {.ino = file.ino,
          .is_folder = false,
          .size = state.size,
          .modified = state.modified,
          .linked = nodes.PathOf(file.ino).has_value(),
          .valid_for = time_out};
}

Stat FileSystem::RemoteStat(Ino ino, const Attributes& attributes,
                            Clock::duration valid_for) const {
  return {.ino = ino,
          .is_folder = attributes.is_folder,
          .size = attributes.size,
          .modified = attributes.modified,
          .linked = true,
          .valid_for = valid_for};
}

}  // namespace tarn::fs
