#pragma once

#include <cstdint>

// The kind of file operation that IFSEvent::Error reports.
enum FS_EVENT : std::uint64_t {
  FS_EVENT_READDIR = 1,
  FS_EVENT_CREATE_FILE = 2,
  FS_EVENT_READ = 3,
  FS_EVENT_CREATE_DIRECTORY = 4,
  FS_EVENT_DELETE = 5,
  FS_EVENT_MOVE = 6,
  FS_EVENT_RENAME = 7,
};
