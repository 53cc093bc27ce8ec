#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/filesystem/attributes.h"
#include "platform/filesystem/nodes.h"
#include "platform/filesystem/reader.h"
#include "platform/filesystem/work_file.h"

namespace tarn::fs {

// One file that is open, or that has content which the remote lacks. All its handles see the same
// content: that of `work` once there is one, else the remote's.
//
// The lock of the drive's state guards the fields.
struct OpenFile {
  Ino ino = 0;
  int handles = 0;
  int writers = 0;  // of the handles
  std::shared_ptr<WorkFile> work;
  bool preparing = false;              // somebody is making `work`, and will tell
  bool is_going = false;               // the remote is about to lose it, so `work` stays
  std::optional<mode_t> created_with;  // the permissions asked for, of a file that is new
  bool at_remote = false;              // the remote has something under this file's name
  Attributes remote;                   // what the remote has, as of the last open or upload
  bool is_fresh = false;               // nobody was given anything of `remote` before it was opened
  std::shared_ptr<Reader> reader;      // of `remote`; made when it is needed
  std::uint64_t serial = 0;            // counts the changes made elsewhere that an open has seen

  // In the journal: what was closed, or asked to be stored, and is not at the remote yet. Changed
  // only with UnsentFiles::publishing held, too.
  WorkFile::Snapshot unsent;
  std::string id;        // in the journal; empty: never was there
  bool is_kept = false;  // the journal has taken what was to be saved last
  // What was on its way and may have come to the remote, though nobody said so: what is found there
  // may be one of these. Changed as `unsent` is.
  std::vector<WorkFile::Snapshot> attempts;
  // Grows while what is to be sent moves, or what is fetched for that.
  const std::shared_ptr<std::atomic<std::uint64_t>> progress =
      std::make_shared<std::atomic<std::uint64_t>>(0);
  // The remote's file has changed before all of it that is needed was fetched.
  bool is_torn = false;

  // The version that an upload may replace; empty: nothing may be there; unset: whatever is there.
  [[nodiscard]] std::optional<std::string> Replaces() const {
    if (!at_remote) {
      return "";
    }
    return remote.version.empty() ? std::nullopt : std::optional(remote.version);
  }

  void DropReader() {
    if (reader) {
      reader->Stop();
      reader.reset();
    }
  }
};

// One open(2).
struct Handle {
  std::shared_ptr<OpenFile> file;
  bool may_read = false;
  bool may_write = false;
  bool append = false;
  std::uint64_t serial = 0;  // the file's when it was opened
};

}  // namespace tarn::fs
