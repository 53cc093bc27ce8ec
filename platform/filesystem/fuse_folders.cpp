// The kernel's requests for folders.
#include <sys/stat.h>
#include <vector>

#include "platform/filesystem/fuse_request.h"

namespace tarn::fs {

namespace {

constexpr fuse_ino_t kUnknownIno = 0xffffffff;

void OpenFolder(fuse_req_t request, fuse_ino_t ino, fuse_file_info* open) {
  Serve(request, [&](FileSystem& files) {
    open->fh = files.OpenFolder(ino);
    if (fuse_reply_open(request, open) != 0) {
      files.CloseFolder(open->fh);
    }
    return 0;
  });
}

// The entries from `offset` on, as many as fit into `buffer`: 0 is ".", 1 is "..", the others
// follow.
class FolderPage {
 public:
  FolderPage(fuse_req_t asked, FileSystem& held, Ino read, size_t length)
      : request(asked), files(held), folder(read), buffer(length) {}

  void Fill(const FolderContent& content, size_t offset, bool with_attributes) {
    const size_t count = content.entries.size() + 2;
    for (size_t i = offset; i < count; ++i) {
      const bool added = i < 2             ? AddDots(i, with_attributes)
                         : with_attributes ? AddWithAttributes(content, i)
                                           : AddPlain(content, i);
      if (!added) {
        return;
      }
    }
  }

  void Reply() {
    if (fuse_reply_buf(request, buffer.data(), used) != 0) {
      for (const Ino ino : looked_up) {
        files.Forget(ino, 1);
      }
    }
  }

 private:
  bool AddDots(size_t i, bool with_attributes) {
    fuse_entry_param entry = {};  // inode number 0: the kernel takes no lookup from it
    entry.attr.st_mode = S_IFDIR;
    entry.attr.st_ino = i == 0 ? folder : kUnknownIno;
    const char* const name = i == 0 ? "." : "..";
    return Add([&](char* place, size_t room) {
      return with_attributes ? fuse_add_direntry_plus(request, place, room, name, &entry, Next(i))
                             : fuse_add_direntry(request, place, room, name, &entry.attr, Next(i));
    });
  }

  bool AddPlain(const FolderContent& content, size_t i) {
    const Entry& entry = content.entries[i - 2];
    struct stat attributes = {};
    attributes.st_mode = entry.attributes.is_folder ? S_IFDIR : S_IFREG;
    const Ino ino = files.InoOf(folder, entry.name);
    attributes.st_ino = ino != 0 ? ino : kUnknownIno;
    return Add([&](char* place, size_t room) {
      return fuse_add_direntry(request, place, room, entry.name.c_str(), &attributes, Next(i));
    });
  }

  bool AddWithAttributes(const FolderContent& content, size_t i) {
    const Entry& entry = content.entries[i - 2];
    Stat known;
    fuse_entry_param told = {};
    const bool counted = files.LookUpEntry(folder, entry, content.asked, known);
    if (counted) {
      told = ToEntry(known);
    } else {
      told.attr.st_mode = entry.attributes.is_folder ? S_IFDIR : S_IFREG;
      told.attr.st_ino = kUnknownIno;
    }
    const bool added = Add([&](char* place, size_t room) {
      return fuse_add_direntry_plus(request, place, room, entry.name.c_str(), &told, Next(i));
    });
    if (counted && added) {
      looked_up.push_back(known.ino);
    } else if (counted) {
      files.Forget(known.ino, 1);
    }
    return added;
  }

  template <typename AddOne>
  bool Add(AddOne add) {
    const size_t room = buffer.size() - used;
    const size_t needed = add(buffer.data() + used, room);
    if (needed > room) {
      return false;
    }
    used += needed;
    return true;
  }

  static off_t Next(size_t i) { return static_cast<off_t>(i) + 1; }

  const fuse_req_t request;
  FileSystem& files;
  const Ino folder;
  std::vector<char> buffer;
  size_t used = 0;
  std::vector<Ino> looked_up;
};

void ReadFolderPage(fuse_req_t request, fuse_ino_t ino, size_t length, off_t offset,
                    const fuse_file_info* open, bool with_attributes) {
  std::shared_ptr<const FolderContent> content;
  ServeWaiting(
      request,
      [&](FileSystem& files) { return files.GetOpenFolder(open->fh, offset == 0, content); },
      [&](FileSystem& files, int error) {
        if (error == 0) {
          FolderPage page(request, files, ino, length);
          page.Fill(*content, static_cast<size_t>(offset), with_attributes);
          page.Reply();
        }
        return error;
      });
}

void ReadFolder(fuse_req_t request, fuse_ino_t ino, size_t length, off_t offset,
                fuse_file_info* open) {
  ReadFolderPage(request, ino, length, offset, open, false);
}

void ReadFolderPlus(fuse_req_t request, fuse_ino_t ino, size_t length, off_t offset,
                    fuse_file_info* open) {
  ReadFolderPage(request, ino, length, offset, open, true);
}

void ReleaseFolder(fuse_req_t request, fuse_ino_t /*ino*/, fuse_file_info* open) {
  Files(request).CloseFolder(open->fh);
  (void)fuse_reply_err(request, 0);
}

}  // namespace

void AddFolderOperations(fuse_lowlevel_ops& operations) {
  operations.opendir = &OpenFolder;
  operations.readdir = &ReadFolder;
  operations.readdirplus = &ReadFolderPlus;
  operations.releasedir = &ReleaseFolder;
}

}  // namespace tarn::fs
