#include "platform/filesystem/fuse_operations.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/filesystem/file_system.h"
#include "platform/filesystem/fuse_loop.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr fuse_ino_t kUnknownIno = 0xffffffff;
constexpr unsigned kMaxBackground = 64;  // requests of the kernel's own read-ahead at a time
constexpr unsigned kBlockBytes = 4096;

FileSystem& Files(fuse_req_t request) {
  return static_cast<FuseLoop*>(fuse_req_userdata(request))->GetFiles();
}

// Runs one request; what cannot be had for want of memory fails like any other request.
template <typename Work>
void Serve(fuse_req_t request, Work work) {
  int error = 0;
  try {
    error = work(Files(request));
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  if (error != 0) {
    (void)fuse_reply_err(request, error);  // a program that is gone needs no answer
  }
}

double Seconds(Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

timespec ToTimespec(const FS_TIME& time) {
  timespec result = {};
  result.tv_sec = static_cast<time_t>(time.seconds);
  result.tv_nsec = time.nanoseconds;
  return result;
}

struct stat ToStat(const Stat& known) {
  struct stat result = {};
  result.st_ino = known.ino;
  result.st_mode = known.Permissions() | (known.is_folder ? S_IFDIR : S_IFREG);
  result.st_nlink = known.linked ? (known.is_folder ? 2 : 1) : 0;
  result.st_uid = ::geteuid();
  result.st_gid = ::getegid();
  result.st_size = static_cast<off_t>(known.size);
  result.st_blksize = kMaxRequestBytes;
  result.st_blocks = static_cast<blkcnt_t>((known.size + 511) / 512);
  result.st_atim = result.st_mtim = result.st_ctim = ToTimespec(known.modified);
  return result;
}

fuse_entry_param ToEntry(const Stat& known) {
  fuse_entry_param entry = {};
  entry.ino = known.ino;
  entry.attr = ToStat(known);
  entry.attr_timeout = entry.entry_timeout = Seconds(known.valid_for);
  return entry;
}

// A lookup that the kernel did not get to know is taken back.
void ReplyEntry(fuse_req_t request, FileSystem& files, const Stat& known) {
  const fuse_entry_param entry = ToEntry(known);
  if (fuse_reply_entry(request, &entry) != 0) {
    files.Forget(known.ino, 1);
  }
}

void ReplyAttributes(fuse_req_t request, const Stat& known) {
  const struct stat attributes = ToStat(known);
  (void)fuse_reply_attr(request, &attributes, Seconds(known.valid_for));
}

void Init(void* loop, fuse_conn_info* connection) {
  connection->max_read = kMaxRequestBytes;
  connection->max_write = kMaxRequestBytes;
  connection->max_readahead = kMaxRequestBytes;
  connection->max_background = kMaxBackground;
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_FLOCK_LOCKS | FUSE_CAP_POSIX_LOCKS);
  static_cast<FuseLoop*>(loop)->SetReady();
}

void Lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
  Serve(request, [&](FileSystem& files) {
    Stat known;
    const int error = files.Lookup(folder, name, known);
    if (error == 0) {
      ReplyEntry(request, files, known);
    } else if (error == ENOENT && known.valid_for > Clock::duration::zero()) {
      fuse_entry_param absent = {};  // inode number 0: there is none, and the kernel may keep that
      absent.entry_timeout = Seconds(known.valid_for);
      (void)fuse_reply_entry(request, &absent);
      return 0;
    }
    return error;
  });
}

void Forget(fuse_req_t request, fuse_ino_t ino, std::uint64_t lookups) {
  Files(request).Forget(ino, lookups);
  fuse_reply_none(request);
}

void ForgetSeveral(fuse_req_t request, size_t count, fuse_forget_data* forgets) {
  for (size_t i = 0; i < count; ++i) {
    Files(request).Forget(forgets[i].ino, forgets[i].nlookup);
  }
  fuse_reply_none(request);
}

void GetAttributes(fuse_req_t request, fuse_ino_t ino, fuse_file_info* /*open*/) {
  Serve(request, [&](FileSystem& files) {
    Stat known;
    const int error = files.GetAttributes(ino, known);
    if (error == 0) {
      ReplyAttributes(request, known);
    }
    return error;
  });
}

AttributeChange ToChange(const struct stat& attributes, int to_set) {
  AttributeChange change;
  if ((to_set & FUSE_SET_ATTR_MODE) != 0) {
    change.permissions = attributes.st_mode;
  }
  if ((to_set & FUSE_SET_ATTR_UID) != 0) {
    change.user = attributes.st_uid;
  }
  if ((to_set & FUSE_SET_ATTR_GID) != 0) {
    change.group = attributes.st_gid;
  }
  if ((to_set & FUSE_SET_ATTR_SIZE) != 0) {
    change.size = static_cast<std::uint64_t>(attributes.st_size);
  }
  if ((to_set & FUSE_SET_ATTR_MTIME_NOW) != 0) {
    change.modified = Now();
  } else if ((to_set & FUSE_SET_ATTR_MTIME) != 0) {
    change.modified = {attributes.st_mtim.tv_sec, static_cast<int>(attributes.st_mtim.tv_nsec)};
  }
  return change;
}

void SetAttributes(fuse_req_t request, fuse_ino_t ino, struct stat* attributes, int to_set,
                   fuse_file_info* /*open*/) {
  Serve(request, [&](FileSystem& files) {
    Stat known;
    const int error = files.SetAttributes(ino, ToChange(*attributes, to_set), known);
    if (error == 0) {
      ReplyAttributes(request, known);
    }
    return error;
  });
}

void MakeFolder(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t /*mode*/) {
  Serve(request, [&](FileSystem& files) {
    Stat known;
    const int error = files.MakeFolder(folder, name, known);
    if (error == 0) {
      ReplyEntry(request, files, known);
    }
    return error;
  });
}

// mknod(2) of a plain file; everything else that has no content cannot be kept.
void MakeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
              dev_t /*device*/) {
  Serve(request, [&](FileSystem& files) {
    if (!S_ISREG(mode)) {
      return EPERM;
    }
    Stat known;
    FileSystem::Opened opened;
    int error = files.Create(folder, name, O_WRONLY, known, opened);
    if (error == 0) {
      error = files.Flush(opened.handle);
      files.Release(opened.handle);
      if (error == 0) {
        ReplyEntry(request, files, known);
      } else {
        files.Forget(known.ino, 1);
      }
    }
    return error;
  });
}

void RemoveFile(fuse_req_t request, fuse_ino_t folder, const char* name) {
  Serve(request, [&](FileSystem& files) {
    const int error = files.RemoveFile(folder, name);
    if (error == 0) {
      (void)fuse_reply_err(request, 0);
    }
    return error;
  });
}

void RemoveFolder(fuse_req_t request, fuse_ino_t folder, const char* name) {
  Serve(request, [&](FileSystem& files) {
    const int error = files.RemoveFolder(folder, name);
    if (error == 0) {
      (void)fuse_reply_err(request, 0);
    }
    return error;
  });
}

void Rename(fuse_req_t request, fuse_ino_t folder, const char* name, fuse_ino_t new_folder,
            const char* new_name, unsigned flags) {
  constexpr unsigned no_replace = 1;  // RENAME_NOREPLACE; no other flag can be served
  Serve(request, [&](FileSystem& files) {
    if ((flags & ~no_replace) != 0) {
      return EINVAL;
    }
    const int error = files.Rename(folder, name, new_folder, new_name, (flags & no_replace) == 0);
    if (error == 0) {
      (void)fuse_reply_err(request, 0);
    }
    return error;
  });
}

void Link(fuse_req_t request, fuse_ino_t /*ino*/, fuse_ino_t /*folder*/, const char* /*name*/) {
  (void)fuse_reply_err(request, EPERM);
}

void SymbolicLink(fuse_req_t request, const char* /*text*/, fuse_ino_t /*folder*/,
                  const char* /*name*/) {
  (void)fuse_reply_err(request, EPERM);
}

void Create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t /*mode*/,
            fuse_file_info* open) {
  Serve(request, [&](FileSystem& files) {
    Stat known;
    FileSystem::Opened opened;
    const int error = files.Create(folder, name, open->flags, known, opened);
    if (error == 0) {
      open->fh = opened.handle;
      const fuse_entry_param entry = ToEntry(known);
      if (fuse_reply_create(request, &entry, open) != 0) {
        files.Release(opened.handle);
        files.Forget(known.ino, 1);
      }
    }
    return error;
  });
}

void Open(fuse_req_t request, fuse_ino_t ino, fuse_file_info* open) {
  Serve(request, [&](FileSystem& files) {
    FileSystem::Opened opened;
    const int error = files.Open(ino, open->flags, opened);
    if (error == 0) {
      open->fh = opened.handle;
      open->keep_cache = opened.keep_cache ? 1 : 0;
      if (!opened.keep_cache) {
        // Or it would cut what is read to the size that it knows.
        static_cast<FuseLoop*>(fuse_req_userdata(request))->ForgetAttributes(ino);
      }
      if (fuse_reply_open(request, open) != 0) {
        files.Release(opened.handle);
      }
    }
    return error;
  });
}

void Read(fuse_req_t request, fuse_ino_t /*ino*/, size_t length, off_t offset,
          fuse_file_info* open) {
  Serve(request, [&](FileSystem& files) {
    const std::unique_ptr<char[]> buffer(new char[length]);
    size_t received = 0;
    const int error =
        files.Read(open->fh, static_cast<std::uint64_t>(offset), buffer.get(), length, received);
    if (error == 0) {
      (void)fuse_reply_buf(request, buffer.get(), received);
    }
    return error;
  });
}

void Write(fuse_req_t request, fuse_ino_t /*ino*/, const char* data, size_t length, off_t offset,
           fuse_file_info* open) {
  Serve(request, [&](FileSystem& files) {
    size_t written = 0;
    const int error = files.Write(open->fh, static_cast<std::uint64_t>(offset), data, length,
                                  open->writepage != 0, written);
    if (error == 0) {
      (void)fuse_reply_write(request, written);
    }
    return error;
  });
}

void Flush(fuse_req_t request, fuse_ino_t /*ino*/, fuse_file_info* open) {
  Serve(request, [&](FileSystem& files) {
    const int error = files.Flush(open->fh);
    if (error == 0) {
      (void)fuse_reply_err(request, 0);
    }
    return error;
  });
}

void Sync(fuse_req_t request, fuse_ino_t /*ino*/, int /*only_data*/, fuse_file_info* open) {
  Serve(request, [&](FileSystem& files) {
    const int error = files.Sync(open->fh);
    if (error == 0) {
      (void)fuse_reply_err(request, 0);
    }
    return error;
  });
}

void Release(fuse_req_t request, fuse_ino_t /*ino*/, fuse_file_info* open) {
  Serve(request, [&](FileSystem& files) {
    files.Release(open->fh);
    (void)fuse_reply_err(request, 0);
    return 0;
  });
}

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

  void Fill(const FileSystem::FolderContent& content, size_t offset, bool with_attributes) {
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

  bool AddPlain(const FileSystem::FolderContent& content, size_t i) {
    const Entry& entry = content.entries[i - 2];
    struct stat attributes = {};
    attributes.st_mode = entry.attributes.is_folder ? S_IFDIR : S_IFREG;
    const Ino ino = files.InoOf(folder, entry.name);
    attributes.st_ino = ino != 0 ? ino : kUnknownIno;
    return Add([&](char* place, size_t room) {
      return fuse_add_direntry(request, place, room, entry.name.c_str(), &attributes, Next(i));
    });
  }

  bool AddWithAttributes(const FileSystem::FolderContent& content, size_t i) {
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
  Serve(request, [&](FileSystem& files) {
    std::shared_ptr<const FileSystem::FolderContent> content;
    const int error = files.GetOpenFolder(open->fh, offset == 0, content);
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

void GetSpace(fuse_req_t request, fuse_ino_t /*ino*/) {
  Serve(request, [&](FileSystem& files) {
    const Space space = files.GetSpace();
    struct statvfs answer = {};
    answer.f_bsize = answer.f_frsize = kBlockBytes;
    answer.f_blocks = space.total / kBlockBytes;
    answer.f_bfree = answer.f_bavail = space.free / kBlockBytes;
    answer.f_namemax = kMaxNameBytes;
    (void)fuse_reply_statfs(request, &answer);
    return 0;
  });
}

fuse_lowlevel_ops MakeOperations() {
  fuse_lowlevel_ops operations = {};
  operations.init = &Init;
  operations.lookup = &Lookup;
  operations.forget = &Forget;
  operations.forget_multi = &ForgetSeveral;
  operations.getattr = &GetAttributes;
  operations.setattr = &SetAttributes;
  operations.mkdir = &MakeFolder;
  operations.mknod = &MakeNode;
  operations.unlink = &RemoveFile;
  operations.rmdir = &RemoveFolder;
  operations.rename = &Rename;
  operations.link = &Link;
  operations.symlink = &SymbolicLink;
  operations.create = &Create;
  operations.open = &Open;
  operations.read = &Read;
  operations.write = &Write;
  operations.flush = &Flush;
  operations.fsync = &Sync;
  operations.release = &Release;
  operations.opendir = &OpenFolder;
  operations.readdir = &ReadFolder;
  operations.readdirplus = &ReadFolderPlus;
  operations.releasedir = &ReleaseFolder;
  operations.statfs = &GetSpace;
  return operations;
}

}  // namespace

const fuse_lowlevel_ops& FuseOperations() {
  static const fuse_lowlevel_ops operations = MakeOperations();
  return operations;
}

}  // namespace tarn::fs
