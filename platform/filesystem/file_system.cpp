#include "platform/filesystem/file_system.h"

#include <utility>

namespace tarn::fs {

namespace {

constexpr std::chrono::seconds kBetweenLooks{2};  // at what other processes still have

}  // namespace

FileSystem::FileSystem(Clock::duration attribute_time_out, const Limits& limits)
    : drive(attribute_time_out),
      remote(limits, [this](bool is_reachable) { ReachabilityChanged(is_reachable); }),
      mounted_at(Now()),
      time_out(attribute_time_out),
      suspension(limits.asleep),
      finder(drive, remote, time_out),
      readers(drive, remote, events, finder, ShareOfThis()),
      ahead(drive, remote, finder, ShareOfThis()),
      unsent_files(drive, remote),
      sender(drive, remote, events, finder, unsent_files, ShareOfThis()),
      space(remote, ShareOfThis()),
      later([this] { return PutRight(); }, kBetweenLooks) {}

Owner FileSystem::ShareOfThis() {
  return [this] { return weak_from_this().lock(); };
}

FileSystem::~FileSystem() {
  later.Stop();
  remote.Stop();  // or its threads would go on to tell of what they find
}

void FileSystem::AddProtocol(std::shared_ptr<IProtocol_V2> protocol) {
  const int index = remote.Add(std::move(protocol));
  {
    const MutexLock guard(drive.lock);
    drive.listings.ForgetTree("/");
  }
  unsent_files.Identify(index);
  TakeOver(index);
  if (unsent_files.HasMoreToDo()) {
    later.Start();
  }
  space.Ask();
}

void FileSystem::TakeOver(int protocol) {
  for (const Ino ino : unsent_files.TakeOver(protocol)) {
    sender.Add(ino);
  }
}

bool FileSystem::PutRight() {
  unsent_files.WriteRecords();
  for (int i = 0; i < remote.Count(); ++i) {
    TakeOver(i);
  }
  return unsent_files.HasMoreToDo();
}

void FileSystem::CloseAll() {
  later.Stop();
  sender.Stop();
  OpenFiles::Map closed;  // ends after the lock
  const MutexLock guard(drive.lock);
  closed = drive.open_files.Close();
  handles.Clear();
  open_folders.Clear();
  for (const auto& [ino, file] : closed) {
    file->DropReader();
  }
}

void FileSystem::NoticeResume() {
  if (suspension.HasResumed()) {
    const MutexLock guard(drive.lock);
    drive.listings.Expire();
  }
}

void FileSystem::ReachabilityChanged(bool is_reachable) {
  {
    const MutexLock guard(drive.lock);
    drive.listings.BelieveOld(!is_reachable);
  }
  events.ReachabilityChanged(is_reachable);
  if (is_reachable) {
    sender.Hasten();
  }
}

Stat FileSystem::LocalStat(const OpenFile& file) const {
  const WorkFile::State state = file.work->GetState();
  return {.ino = file.ino,
          .is_folder = false,
          .size = state.size,
          .modified = state.modified,
          .linked = drive.nodes.PathOf(file.ino).has_value(),
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
