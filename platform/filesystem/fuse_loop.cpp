#include "platform/filesystem/fuse_loop.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "common/posix.h"
#include "platform/filesystem/bindings.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/fuse_operations.h"

namespace tarn::fs {

namespace {

// As many programs can wait for a slow remote while others go on.
constexpr int kMaxThreads = 1000;
constexpr std::chrono::seconds kTimeToGreet{10};
constexpr int kMaxFollowers = 8;  // more than these end when they have nothing to do

// In an option list "," and "\" are special.
std::string Escape(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == ',' || c == '\\') {
      escaped += '\\';
    }
    escaped += c;
  }
  return escaped;
}

class Arguments {
 public:
  explicit Arguments(const std::string& options) {
    failed = fuse_opt_add_arg(&list, "tarn") != 0 || fuse_opt_add_arg(&list, "-o") != 0 ||
             fuse_opt_add_arg(&list, options.c_str()) != 0;
  }
  ~Arguments() { fuse_opt_free_args(&list); }
  Arguments(const Arguments&) = delete;
  Arguments& operator=(const Arguments&) = delete;

  fuse_args* Get() { return failed ? nullptr : &list; }

 private:
  fuse_args list = FUSE_ARGS_INIT(0, nullptr);
  bool failed = false;
};

bool MakePipe(UniqueFd& reader, UniqueFd& writer) {
  std::array<int, 2> ends = {};
#if defined(__linux__)
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    return false;
  }
#else
  if (::pipe(ends.data()) != 0) {
    return false;
  }
  (void)::fcntl(ends[0], F_SETFD, FD_CLOEXEC);
  (void)::fcntl(ends[1], F_SETFD, FD_CLOEXEC);
#endif
  reader.reset(ends[0]);
  writer.reset(ends[1]);
  return true;
}

}  // namespace

FuseLoop::~FuseLoop() {
  interruptions.Stop();
  if (session == nullptr) {
    return;
  }
  // libfuse frees what it knows of the mount only in its own unmounting, which must not happen
  // here: something else may be mounted there by now. It does nothing for a descriptor that is
  // broken.
  UniqueFd reader;
  UniqueFd writer;
  if (fuse_session_fd(session) >= 0 && MakePipe(reader, writer)) {
    reader.reset();
    (void)::dup2(writer.get(), fuse_session_fd(session));
    fuse_session_unmount(session);
  }
  fuse_session_destroy(session);
}

bool FuseLoop::Start(const std::string& mount_point, const std::string& label) {
  Arguments arguments(
      "nosuid,nodev,default_permissions,subtype=tarn,max_read=" + std::to_string(kMaxRequestBytes) +
      ",fsname=" + Escape(label.empty() ? "tarn" : label));
  if (arguments.Get() == nullptr || !MakePipe(wake_reader, wake_writer)) {
    return false;
  }
  session = fuse_session_new(arguments.Get(), &FuseOperations(), sizeof(fuse_lowlevel_ops), this);
  if (session == nullptr || fuse_session_mount(session, mount_point.c_str()) != 0) {
    return false;
  }
  const int fd = fuse_session_fd(session);
  (void)::fcntl(fd, F_SETFD, FD_CLOEXEC);
  (void)::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  const auto deadline = Clock::now() + kTimeToGreet;
  const MutexLock guard(lock);
  const bool serves = StartThread();
  while (serves && !ready && !ended && changed.wait_until(lock, deadline)) {
  }
  return ready;
}

void FuseLoop::SetReady() {
  const MutexLock guard(lock);
  ready = true;
  changed.notify_all();
}

bool FuseLoop::StartThread() {
  try {
    std::thread([self = shared_from_this()] { self->Run(); }).detach();
  } catch (const std::system_error&) {
    return false;  // those that run will do
  }
  ++threads;
  return true;
}

void FuseLoop::Stop() {
  {
    const MutexLock guard(lock);
    ended = true;
    changed.notify_all();
    may_lead.notify_all();
  }
  (void)WriteAll(wake_writer.get(), "", 1);
}

void FuseLoop::WaitEnded() {
  const MutexLock guard(lock);
  while (!ended) {
    changed.wait(lock);
  }
}

bool FuseLoop::WaitIdle(std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  const MutexLock guard(lock);
  while (threads > 0 && changed.wait_until(lock, deadline)) {
  }
  return threads == 0;
}

void FuseLoop::Abort() {
  const UniqueFd nowhere = tarn::OpenFile("/dev/null", O_RDWR);
  if (nowhere.valid() && session != nullptr && fuse_session_fd(session) >= 0) {
    // In place, so that a late answer goes nowhere instead of into another file.
    (void)::dup2(nowhere.get(), fuse_session_fd(session));
    (void)::fcntl(fuse_session_fd(session), F_SETFD, FD_CLOEXEC);
  }
}

void FuseLoop::ForgetFolder(std::uint64_t ino) {
  (void)fuse_lowlevel_notify_inval_inode(session, ino, 0, 0);  // it may not know it at all
}

void FuseLoop::ForgetAttributes(std::uint64_t ino) {
  constexpr off_t attributes_only = -1;
  (void)fuse_lowlevel_notify_inval_inode(session, ino, attributes_only, 0);  // as above
}

// True when this thread is to wait for the kernel, false when it is to end.
bool FuseLoop::Lead() {
  const MutexLock guard(lock);
  if (followers >= kMaxFollowers && led) {
    return false;
  }
  ++followers;
  while (led && !ended) {
    may_lead.wait(lock);
  }
  --followers;
  led = !ended;
  return !ended;
}

bool FuseLoop::Receive(fuse_buf& request) {
  for (;;) {
    std::array<pollfd, 2> waited = {pollfd{fuse_session_fd(session), POLLIN, 0},
                                    pollfd{wake_reader.get(), POLLIN, 0}};
    if (::poll(waited.data(), waited.size(), -1) < 0 && errno != EINTR) {
      return false;
    }
    if (waited[1].revents != 0) {
      return false;
    }
    const int received = fuse_session_receive_buf(session, &request);
    if (received > 0) {
      return true;
    }
    if (received != -EAGAIN && received != -EINTR) {
      return false;
    }
  }
}

void FuseLoop::Received(bool goes_on) {
  const MutexLock guard(lock);
  led = false;
  if (!goes_on) {
    ended = true;
    changed.notify_all();
    may_lead.notify_all();
  } else if (followers > 0) {
    may_lead.notify_one();
  } else if (threads < kMaxThreads) {
    (void)StartThread();
  }
}

void FuseLoop::Run() {
  fuse_buf request = {};
  while (Lead()) {
    const bool goes_on = Receive(request);
    Received(goes_on);
    if (!goes_on) {
      break;
    }
    fuse_session_process_buf(session, &request);
  }
  std::free(request.mem);  // NOLINT(cppcoreguidelines-no-malloc): libfuse's allocation
  const MutexLock guard(lock);
  --threads;
  changed.notify_all();
}

}  // namespace tarn::fs
