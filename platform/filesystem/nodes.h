#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/filesystem/attributes.h"

namespace tarn::fs {

using Ino = std::uint64_t;
inline constexpr Ino kRootIno = 1;

// A name in a folder; without a name the node itself.
struct Place {
  Ino ino = 0;
  std::string name;
};

// What the kernel holds of a file.
struct KernelState {
  std::string version;               // of the pages that it may have
  Clock::time_point looked_up = {};  // when the remote told of it for a lookup
  bool fetched_ahead = false;        // its content is in the cache and was not opened since
};

// Which inode number stands for which place in the drive, and what the kernel holds of it. A number
// is given out on the first lookup, never twice, and stays with the file when it or a folder above
// it is renamed. A node is kept while the kernel counts lookups on it, while something of ours pins
// it, and while another node lies below it.
//
// Owns:    the nodes.
// Threads: none of its own; the owner's lock guards every call.
class Nodes {
 public:
  Nodes();

  // The node `name` in `folder`, made if there is none of this kind; one of the other kind is
  // unlinked first.
  Ino Ensure(Ino folder, const std::string& name, bool is_folder);
  [[nodiscard]] std::optional<Ino> Find(Ino folder, const std::string& name) const;
  [[nodiscard]] bool Exists(Ino ino) const { return nodes.count(ino) != 0; }
  [[nodiscard]] bool IsFolder(Ino ino) const;

  // The place of a node; empty when it, or a folder above it, was removed.
  [[nodiscard]] std::optional<std::string> PathOf(Ino ino) const;
  [[nodiscard]] std::optional<std::string> PathOf(Ino folder, const std::string& name) const;

  // The first name for a file beside `name`, made by somebody else, that no node has.
  [[nodiscard]] std::string FreeConflictName(Ino folder, const std::string& name) const;

  // Of a node that exists.
  [[nodiscard]] Ino FolderOf(Ino ino) const { return nodes.at(ino).folder; }
  [[nodiscard]] KernelState& KernelOf(Ino ino) { return nodes.at(ino).kernel; }
  [[nodiscard]] const KernelState& KernelOf(Ino ino) const { return nodes.at(ino).kernel; }
  // Names what the remote has of a file, for the cache, until this side has stored another content:
  // versions may not tell the two apart where they are made of a size and a time in seconds.
  [[nodiscard]] std::string ContentOf(Ino ino) const {
    return std::to_string(nodes.at(ino).content);
  }
  [[nodiscard]] std::string ContentOf(Ino folder, const std::string& name) const {
    const auto ino = Find(folder, name);
    return ino ? ContentOf(*ino) : "";
  }
  void HasNewContent(Ino ino) { nodes.at(ino).content = next_number++; }

  void AddLookup(Ino ino) { ++nodes.at(ino).lookups; }
  void Forget(Ino ino, std::uint64_t lookups);
  void Pin(Ino ino) { ++nodes.at(ino).pins; }
  void Unpin(Ino ino);
  // Pins a file that was read, so that its blocks in the cache are found, until many others were.
  void Remember(Ino ino);

  // The name is gone; the node stays for those that still use it.
  void Unlink(Ino ino);
  // Moves a node; another node at the new place is unlinked.
  void Move(Ino ino, Ino folder, const std::string& name);

 private:
  struct Node {
    Ino folder;
    std::string name;
    bool is_folder;
    std::uint64_t content;  // no other node ever has the same
    bool linked = true;
    std::uint64_t lookups = 0;
    std::uint64_t pins = 0;      // uses of ours
    std::uint64_t children = 0;  // nodes whose folder this is, linked or not
    KernelState kernel = {};
  };

  void DropIfUnused(Ino ino);

  std::unordered_map<Ino, Node> nodes;
  std::map<std::pair<Ino, std::string>, Ino> places;  // of the linked ones
  std::list<Ino> remembered;                          // the last read first
  std::uint64_t next_number = kRootIno + 1;           // of a node, or of a content
};

}  // namespace tarn::fs
