#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/filesystem/drive_state.h"
#include "platform/filesystem/remote.h"

namespace tarn::fs {

// Finds out what the remote has: takes what is known where that may be believed, else asks, and
// notes the answer.
//
// Owned by the FileSystem; refers to its state and remote.
// Threads: any.
// Locks:   takes the state's; none is held while the remote works.
// Errors:  0 or an errno value, but for listings, whose errors are told to people too.
class Finder {
 public:
  Finder(DriveState& shared, Remote& asked, Clock::duration time_answers_hold)
      : drive(shared), remote(asked), believed_for(time_answers_hold) {}

  // `ask_anew`: even where something is known, as long as the remote can be reached.
  [[nodiscard]] int Find(const std::string& path, bool ask_anew, Listings::Answer& answer)
      TARN_EXCLUDES(drive.lock);
  // The second name that is asked for in a folder brings the listing, which answers for all others.
  [[nodiscard]] int FindInFolder(const std::string& path, Listings::Answer& answer)
      TARN_EXCLUDES(drive.lock);
  // Asked for once when several want it at the same time; they share a failure, too.
  [[nodiscard]] AERROR GetListing(const std::string& path, FolderContent& content)
      TARN_EXCLUDES(drive.lock);
  void ListAnew(Ino folder) TARN_EXCLUDES(drive.lock);

  // What the remote has under this path, if it is what it had when the file was opened.
  [[nodiscard]] std::optional<Attributes> FindAsOpened(const OpenFile& file,
                                                       const std::string& path)
      TARN_EXCLUDES(drive.lock);
  // After a change of the file's time or name from here, which may mean another version of the
  // same content: who has it open reads on. `modified`: the time that the same content has. False:
  // nothing to take was found.
  [[nodiscard]] bool TakeNewVersion(OpenFile& file, const std::string& path,
                                    const std::optional<FS_TIME>& modified = std::nullopt)
      TARN_EXCLUDES(drive.lock);

 private:
  // What was known before the remote was gone is a listing, too.
  [[nodiscard]] AERROR WithoutAnswer(AERROR error, const std::string& path, FolderContent& content)
      TARN_REQUIRES(drive.lock);

  DriveState& drive;
  Remote& remote;
  const Clock::duration believed_for;
  CondVar listed;
  // What becomes of the questions that are being asked, by path.
  std::map<std::string, std::shared_ptr<std::optional<AERROR>>> listing_now
      TARN_GUARDED_BY(drive.lock);
};

}  // namespace tarn::fs
