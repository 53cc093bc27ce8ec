#include "platform/filesystem/fuse_operations.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <vector>

#include "platform/filesystem/fuse_request.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr unsigned kMaxBackground = 64;  // requests of the kernel's own read-ahead at a time
constexpr unsigned kBlockBytes = 4096;

void Init(void* loop, fuse_conn_info* connection) {
  connection->max_read = kMaxRequestBytes;
  connection->max_write = kMaxRequestBytes;
  connection->max_readahead = kMaxRequestBytes;
  connection->max_background = kMaxBackground;
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_FLOCK_LOCKS | FUSE_CAP_POSIX_LOCKS);
  static_cast<FuseLoop*>(loop)->SetReady();
}

void Lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
  Stat known;
  ServeWaiting(
      request, [&](FileSystem& files) { return files.Lookup(folder, name, known); },
      [&](FileSystem& files, int error) {
        if (error == 0) {
          ReplyEntry(request, files, known);
        } else if (error == ENOENT && known.valid_for > Clock::duration::zero()) {
          fuse_entry_param absent = {};  // inode number 0: there is none; the kernel may keep that
          absent.entry_timeout = Seconds(known.valid_for);
          (void)fuse_reply_entry(request, &absent);
          return 0;
        }
        return error;
      },
      [&](FileSystem& files) { files.Forget(known.ino, 1); });
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
  Stat known;
  ServeWaiting(
      request, [&](FileSystem& files) { return files.GetAttributes(ino, known); },
      [&](FileSystem&, int error) {
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

void Create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
            fuse_file_info* open) {
  Serve(request, [&](FileSystem& files) {
    Stat known;
    FileSystem::Opened opened;
    const int error = files.Create(folder, name, open->flags, known, opened, mode & 07777);
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

int ReplyOpen(fuse_req_t request, FileSystem& files, fuse_ino_t ino,
              const FileSystem::Opened& opened, fuse_file_info& open) {
  open.fh = opened.handle;
  open.keep_cache = opened.keep_cache ? 1 : 0;
  if (!opened.keep_cache) {
    Loop(request).ForgetAttributes(ino);  // or it would cut what is read to the size that it knows
  }
  if (fuse_reply_open(request, &open) != 0) {
    files.Release(opened.handle);
  }
  return 0;
}

void Open(fuse_req_t request, fuse_ino_t ino, fuse_file_info* open) {
  FileSystem::Opened opened;
  const auto work = [&](FileSystem& files) { return files.Open(ino, open->flags, opened); };
  const auto reply = [&](FileSystem& files, int error) {
    return error != 0 ? error : ReplyOpen(request, files, ino, opened, *open);
  };
  if ((open->flags & O_TRUNC) != 0) {  // the content would go without the program's knowledge
    Serve(request, [&](FileSystem& files) { return reply(files, work(files)); });
  } else {
    ServeWaiting(request, work, reply, [&](FileSystem& files) { files.Release(opened.handle); });
  }
}

void Read(fuse_req_t request, fuse_ino_t /*ino*/, size_t length, off_t offset,
          fuse_file_info* open) {
  std::vector<Bytes> parts;
  ServeWaiting(
      request,
      [&](FileSystem& files) {
        return files.Read(open->fh, static_cast<std::uint64_t>(offset), length, parts);
      },
      [&](FileSystem&, int error) {
        if (error == 0) {
          std::vector<iovec> places;
          for (const Bytes& part : parts) {  // only read from
            places.push_back({const_cast<char*>(part.data), part.length});
          }
          (void)fuse_reply_iov(request, places.data(), static_cast<int>(places.size()));
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
  ServeWaiting(  // what is on its way goes on, as in Sync
      request, [&](FileSystem& files) { return files.Flush(open->fh); },
      [&](FileSystem&, int error) {
        (void)fuse_reply_err(request, error);
        return 0;
      });
}

void Sync(fuse_req_t request, fuse_ino_t /*ino*/, int /*only_data*/, fuse_file_info* open) {
  ServeWaiting(
      request, [&](FileSystem& files) { return files.Sync(open->fh); },
      [&](FileSystem&, int error) {
        (void)fuse_reply_err(request, error);
        return 0;
      });
}

void Release(fuse_req_t request, fuse_ino_t /*ino*/, fuse_file_info* open) {
  Serve(request, [&](FileSystem& files) {
    files.Release(open->fh);
    (void)fuse_reply_err(request, 0);
    return 0;
  });
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
  operations.statfs = &GetSpace;
  AddFolderOperations(operations);
  AddStateOperations(operations);
  return operations;
}

}  // namespace

const fuse_lowlevel_ops& FuseOperations() {
  static const fuse_lowlevel_ops operations = MakeOperations();
  return operations;
}

}  // namespace tarn::fs
