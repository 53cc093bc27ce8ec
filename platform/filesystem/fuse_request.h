#pragma once

#include <cerrno>
#include <new>
#include <optional>

#include "platform/filesystem/file_system.h"
#include "platform/filesystem/fuse_loop.h"
#include "platform/filesystem/fuse_operations.h"

// What the operations share: how a request is served and what answers are made of.
namespace tarn::fs {

inline FuseLoop& Loop(fuse_req_t request) {
  return *static_cast<FuseLoop*>(fuse_req_userdata(request));
}

inline FileSystem& Files(fuse_req_t request) {
  return Loop(request).GetFiles();
}

// `work` with the file system; what cannot be had for want of memory fails like anything else.
template <typename Work>
int Try(FileSystem& files, Work work) {
  try {
    files.NoticeResume();
    return work(files);
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

// Runs one request. `work` answers it and returns 0, or returns an error to answer with.
template <typename Work>
void Serve(fuse_req_t request, Work work) {
  if (const int error = Try(Files(request), work); error != 0) {
    (void)fuse_reply_err(request, error);  // a program that is gone needs no answer
  }
}

// The same for a request that a signal may end while `work` waits for the remote. Such a `work`
// changes nothing there that the program must learn of, and does not answer: `reply` does, with the
// error that `work` returned, and returns as in Serve. `take_back` undoes what a successful `work`
// has counted, when nobody wants the answer any more.
template <typename Work, typename Reply, typename TakeBack>
void ServeWaiting(fuse_req_t request, Work work, Reply reply, TakeBack take_back) {
  FileSystem& files = Files(request);
  Interruptions::Waiting waiting(Loop(request).GetInterruptions(), request);
  const int error = Try(files, work);
  if (waiting.End()) {
    Serve(request, [&](FileSystem& of) { return reply(of, error); });
  } else if (error == 0) {
    take_back(files);
  }
}

template <typename Work, typename Reply>
void ServeWaiting(fuse_req_t request, Work work, Reply reply) {
  ServeWaiting(request, work, reply, [](FileSystem&) {});
}

[[nodiscard]] double Seconds(Clock::duration duration);
[[nodiscard]] struct stat ToStat(const Stat& known);
[[nodiscard]] fuse_entry_param ToEntry(const Stat& known);
// A lookup that the kernel did not get to know is taken back.
void ReplyEntry(fuse_req_t request, FileSystem& files, const Stat& known);
void ReplyAttributes(fuse_req_t request, const Stat& known);

// The operations on folders, and those on extended attributes.
void AddFolderOperations(fuse_lowlevel_ops& operations);
void AddStateOperations(fuse_lowlevel_ops& operations);

}  // namespace tarn::fs
