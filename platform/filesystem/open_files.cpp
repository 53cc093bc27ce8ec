#include "platform/filesystem/open_files.h"

#include "platform/filesystem/names.h"

namespace tarn::fs {

OpenFiles::FilePtr OpenFiles::Find(Ino ino) const {
  const auto file = files.find(ino);
  return file == files.end() ? nullptr : file->second;
}

OpenFiles::FilePtr OpenFiles::Find(Ino folder, const std::string& name) const {
  const auto ino = nodes.Find(folder, name);
  return ino ? Find(*ino) : nullptr;
}

OpenFiles::FilePtr OpenFiles::Ensure(Ino ino) {
  auto& file = files[ino];
  if (!file) {
    file = std::make_shared<OpenFile>();
    file->ino = ino;
    nodes.Pin(ino);
  }
  return file;
}

void OpenFiles::DropIfUnused(const FilePtr& file) {
  if (Find(file->ino) != file) {
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
  if (file->writers == 0 && linked && !file->is_going) {
    file->work.reset();
  }
  if (file->handles == 0 && files.erase(file->ino) != 0) {
    if (file->reader) {
      nodes.Remember(file->ino);
    }
    file->DropReader();
    nodes.Unpin(file->ino);
  }
}

std::vector<std::pair<OpenFiles::FilePtr, std::string>> OpenFiles::UnsentAt(Ino top) const {
  std::vector<std::pair<FilePtr, std::string>> found;
  const auto add = [&](const FilePtr& file) {
    if (const auto place = nodes.PathOf(file->ino); place && file->work && file->work->IsDirty()) {
      found.emplace_back(file, *place);
    }
  };
  if (!nodes.Exists(top)) {
    return found;
  }
  if (!nodes.IsFolder(top)) {
    if (const auto file = Find(top); file) {
      add(file);
    }
    return found;
  }
  const auto path = nodes.PathOf(top).value_or("");
  for (const auto& [ino, file] : files) {
    if (const auto place = nodes.PathOf(ino); place && IsWithin(*place, path)) {
      add(file);
    }
  }
  return found;
}

bool OpenFiles::HoldsUnsent(Ino folder, const std::string& name) const {
  const auto ino = nodes.Find(folder, name);
  return ino && nodes.IsFolder(*ino) && !UnsentAt(*ino).empty();
}

}  // namespace tarn::fs
