#pragma once

#include <memory>
#include <string>

#include "common/sync.h"
#include "common/unique_fd.h"
#include "platform/filesystem/attributes.h"
#include "platform/filesystem/interruptions.h"

struct fuse_buf;
struct fuse_session;

namespace tarn::fs {

class FileSystem;

// One libfuse session and the threads that serve it.
//
// One thread at a time waits for the kernel, on the session and on a wake-up pipe; when a request
// has come it hands the waiting over to another thread and serves. So there are always as many
// threads as requests that are being served, up to a limit, and the loop can be ended from outside
// although the kernel still holds the connection.
//
// Owns:    the session and its descriptor; shares the file system that serves.
// Threads: any. Its own threads share ownership of it and end by themselves after Stop, or when the
//          kernel has ended the connection.
class FuseLoop : public std::enable_shared_from_this<FuseLoop> {
 public:
  // `signal_grace`: how long a request still waits for its answer after a signal has come.
  FuseLoop(std::shared_ptr<FileSystem> served, std::chrono::milliseconds signal_grace)
      : files(std::move(served)), interruptions(signal_grace) {}
  ~FuseLoop();
  FuseLoop(const FuseLoop&) = delete;
  FuseLoop& operator=(const FuseLoop&) = delete;

  // Mounts at `mount_point` under the name `label` and starts to serve: returns once the kernel and
  // the volume have greeted each other, false where they do not within 10 s.
  [[nodiscard]] bool Start(const std::string& mount_point, const std::string& label);

  void SetReady();  // the kernel has greeted
  void Stop();
  // Until the kernel has ended the connection, or Stop.
  void WaitEnded();
  // Until no thread serves any more, at most `patience`; false: some still do.
  [[nodiscard]] bool WaitIdle(std::chrono::milliseconds patience);
  // After the end: programs that still wait for an answer get an error.
  void Abort();

  void ForgetFolder(std::uint64_t ino);      // the kernel is to ask anew what the folder holds
  void ForgetAttributes(std::uint64_t ino);  // and size and times of a file
  [[nodiscard]] FileSystem& GetFiles() const { return *files; }
  [[nodiscard]] Interruptions& GetInterruptions() { return interruptions; }

 private:
  bool StartThread() TARN_REQUIRES(lock);
  void Run();
  bool Lead();
  bool Receive(fuse_buf& request);
  void Received(bool goes_on);

  const std::shared_ptr<FileSystem> files;
  Interruptions interruptions;
  fuse_session* session = nullptr;
  UniqueFd wake_reader;
  UniqueFd wake_writer;

  Mutex lock;
  CondVar changed;                         // ready, ended, or a thread less
  CondVar may_lead;                        // nobody leads any more
  bool led TARN_GUARDED_BY(lock) = false;  // a thread waits for the kernel
  bool ready TARN_GUARDED_BY(lock) = false;
  bool ended TARN_GUARDED_BY(lock) = false;
  int threads TARN_GUARDED_BY(lock) = 0;
  int followers TARN_GUARDED_BY(lock) = 0;  // wait to lead
};

}  // namespace tarn::fs
