#pragma once

#include <memory>

#include "platform/filesystem/background.h"
#include "platform/filesystem/drive_state.h"
#include "platform/filesystem/events.h"
#include "platform/filesystem/finder.h"
#include "platform/filesystem/reader.h"
#include "platform/filesystem/remote.h"

namespace tarn::fs {

// Leads from the open of a file to what the remote has of it: finds out how the file is now, with
// its beginning on the way at the same time, and makes the readers of its content.
//
// Owned by what `owner` gives a share of, which every reader has too; refers to its state, remote,
// events and finder.
// Threads: any.
// Locks:   takes the state's; none is held while the remote works.
// Errors:  0 or an errno value.
class Readers {
 public:
  // What was begun to read for an open, of the file as it was expected to be.
  struct Beginning {
    std::shared_ptr<Reader> reader;  // null: nothing
    Attributes expected;
    bool is_confirmed = false;  // it is there, and the file is as expected
  };

  Readers(DriveState& shared, Remote& asked, Events& told, Finder& finding, Owner part_of)
      : drive(shared), remote(asked), events(told), finder(finding), owner(std::move(part_of)) {}

  // How the file is, for an open of this moment; `only_reads`: worth it to begin.
  [[nodiscard]] int Find(Ino ino, bool only_reads, Attributes& attributes, Beginning& begun)
      TARN_EXCLUDES(drive.lock);
  // Gives the file what was begun for its open if it is of what was found, and of `content` as the
  // nodes name it. With the state's lock.
  static void TakeOver(const Beginning& begun, const std::string& content, OpenFile& file);
  // The reader of what the remote has of the file.
  [[nodiscard]] std::shared_ptr<Reader> Get(OpenFile& file) TARN_EXCLUDES(drive.lock);

 private:
  struct RemoteContent;

  [[nodiscard]] bool TrustsForOpen(Ino ino) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] Beginning Begin(Ino ino) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] std::shared_ptr<Reader> Make(Ino ino, const Attributes& attributes, bool is_fresh)
      TARN_REQUIRES(drive.lock);

  DriveState& drive;
  Remote& remote;
  Events& events;
  Finder& finder;
  const Owner owner;
};

}  // namespace tarn::fs
