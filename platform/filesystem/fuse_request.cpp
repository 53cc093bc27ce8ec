#include "platform/filesystem/fuse_request.h"

#include <sys/stat.h>
#include <unistd.h>

namespace tarn::fs {

double Seconds(Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

static timespec ToTimespec(const FS_TIME& time) {
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

}  // namespace tarn::fs
