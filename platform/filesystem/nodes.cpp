#include "platform/filesystem/nodes.h"

#include <algorithm>
#include <ctime>

#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr size_t kMaxRemembered = 4096;

}  // namespace

Nodes::Nodes() {
  nodes.emplace(
      kRootIno,
      Node{.folder = 0, .name = "", .is_folder = true, .content = kRootIno, .lookups = 1});
}

Ino Nodes::Ensure(Ino folder, const std::string& name, bool is_folder) {
  if (const auto known = Find(folder, name); known) {
    if (nodes.at(*known).is_folder == is_folder) {
      return *known;
    }
    Unlink(*known);
  }
  const Ino ino = next_number++;
  nodes.emplace(ino, Node{.folder = folder, .name = name, .is_folder = is_folder, .content = ino});
  places.emplace(std::pair(folder, name), ino);
  ++nodes.at(folder).children;
  return ino;
}

std::optional<Ino> Nodes::Find(Ino folder, const std::string& name) const {
  const auto place = places.find(std::pair(folder, name));
  return place == places.end() ? std::nullopt : std::optional(place->second);
}

bool Nodes::IsFolder(Ino ino) const {
  const auto node = nodes.find(ino);
  return node != nodes.end() && node->second.is_folder;
}

std::optional<std::string> Nodes::PathOf(Ino ino) const {
  std::vector<const std::string*> names;
  while (ino != kRootIno) {
    const auto node = nodes.find(ino);
    if (node == nodes.end() || !node->second.linked) {
      return std::nullopt;
    }
    names.push_back(&node->second.name);
    ino = node->second.folder;
  }
  std::string path;
  std::for_each(names.rbegin(), names.rend(),
                [&](const std::string* name) { path += "/" + *name; });
  return path.empty() ? "/" : path;
}

std::optional<std::string> Nodes::PathOf(Ino folder, const std::string& name) const {
  const auto path = PathOf(folder);
  return path ? std::optional(JoinPath(*path, name)) : std::nullopt;
}

std::string Nodes::FreeConflictName(Ino folder, const std::string& name) const {
  const std::time_t now = std::time(nullptr);
  int number = 1;
  std::string free = ConflictName(name, now, number);
  while (Find(folder, free)) {
    free = ConflictName(name, now, ++number);
  }
  return free;
}

void Nodes::Forget(Ino ino, std::uint64_t lookups) {
  if (const auto node = nodes.find(ino); node != nodes.end() && ino != kRootIno) {
    node->second.lookups -= std::min(node->second.lookups, lookups);
    DropIfUnused(ino);
  }
}

void Nodes::Unpin(Ino ino) {
  --nodes.at(ino).pins;
  DropIfUnused(ino);
}

void Nodes::Remember(Ino ino) {
  const auto known = std::find(remembered.begin(), remembered.end(), ino);
  if (known != remembered.end()) {
    remembered.splice(remembered.begin(), remembered, known);
    return;
  }
  Pin(ino);
  remembered.push_front(ino);
  if (remembered.size() > kMaxRemembered) {
    const Ino oldest = remembered.back();
    remembered.pop_back();
    Unpin(oldest);
  }
}

void Nodes::Unlink(Ino ino) {
  Node& node = nodes.at(ino);
  if (node.linked) {
    node.linked = false;
    places.erase(std::pair(node.folder, node.name));
    DropIfUnused(ino);
  }
}

void Nodes::Move(Ino ino, Ino folder, const std::string& name) {
  if (const auto target = Find(folder, name); target && *target != ino) {
    Unlink(*target);
  }
  Node& node = nodes.at(ino);
  const Ino old_folder = node.folder;
  places.erase(std::pair(node.folder, node.name));
  ++nodes.at(folder).children;
  node.folder = folder;
  node.name = name;
  places.insert_or_assign(std::pair(folder, name), ino);
  --nodes.at(old_folder).children;
  DropIfUnused(old_folder);
}

void Nodes::DropIfUnused(Ino ino) {
  while (ino != kRootIno) {
    const auto found = nodes.find(ino);
    const Node& node = found->second;
    if (node.lookups != 0 || node.pins != 0 || node.children != 0) {
      return;
    }
    if (node.linked) {
      places.erase(std::pair(node.folder, node.name));
    }
    const Ino folder = node.folder;
    nodes.erase(found);
    --nodes.at(folder).children;
    ino = folder;
  }
}

}  // namespace tarn::fs
