#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/filesystem/nodes.h"
#include "platform/filesystem/open_file.h"

namespace tarn::fs {

// The files of a drive that are open, or that have content which the remote lacks.
//
// Owns:    a pin on the node of each of them; refers to the nodes.
// Threads: none of its own; the lock that guards the nodes guards every call, and the files'
// fields.
class OpenFiles {
 public:
  using FilePtr = std::shared_ptr<OpenFile>;
  using Map = std::unordered_map<Ino, FilePtr>;

  explicit OpenFiles(Nodes& known) : nodes(known) {}

  [[nodiscard]] FilePtr Find(Ino ino) const;  // null: there is none
  [[nodiscard]] FilePtr Find(Ino folder, const std::string& name) const;
  FilePtr Ensure(Ino ino);
  // Lets go of what nobody uses any more: the file, or its content at this side.
  void DropIfUnused(const FilePtr& file);

  [[nodiscard]] const Map& All() const { return files; }
  // What waits to be sent of a node and those below it, and where it goes.
  [[nodiscard]] std::vector<std::pair<FilePtr, std::string>> UnsentAt(Ino top) const;
  // Whether the name is that of a folder with files below it that wait to be sent. It keeps its
  // node, whatever the remote has there by now.
  [[nodiscard]] bool HoldsUnsent(Ino folder, const std::string& name) const;

  // Nothing is open any more. What is returned is to end without the lock.
  [[nodiscard]] Map Close() { return std::exchange(files, {}); }

 private:
  Nodes& nodes;
  Map files;
};

}  // namespace tarn::fs
