#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "interfaces/fs_types.h"

namespace tarn::fs {

using Clock = std::chrono::steady_clock;

// What a remote says about a file or folder.
struct Attributes {
  bool is_folder = false;
  unsigned long long size = 0;  // bytes
  FS_TIME modified = {};
  std::string version;  // empty for a folder
  int protocol = 0;     // index of the drive's protocol that holds it (the first of several)
};

struct Entry {
  std::string name;
  Attributes attributes;
};

}  // namespace tarn::fs
