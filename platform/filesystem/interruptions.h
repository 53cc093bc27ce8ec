#pragma once

#include <list>

#include "common/sync.h"
#include "platform/filesystem/attributes.h"
#include "platform/filesystem/late_thread.h"

struct fuse_req;

namespace tarn::fs {

// Lets programs go that a signal has come for while they wait for the remote.
//
// When the kernel tells of a signal, the request gets a moment longer, since many programs handle
// signals all the time and would take EINTR for a failure. If it still has no answer then, EINTR is
// the answer. The thread that serves the request goes on until its calls have come back, within
// their limits, and what it finds goes nowhere.
//
// Owns:    a thread, made for the first signal. Waiting requests belong to the threads that serve.
// Threads: any. The session must live until Stop has returned.
class Interruptions {
 public:
  // One request that may be given up, from its begin to End, on the thread that serves it.
  class Waiting {
   public:
    Waiting(Interruptions& interruptions, fuse_req* served);
    ~Waiting() { (void)End(); }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

    // True: the request is still to be answered. False: it was, and does not exist any more.
    [[nodiscard]] bool End();

   private:
    friend class Interruptions;
    enum class State { kWaiting, kGivenUp, kAnswered, kEnded };

    static void OnSignal(fuse_req* request, void* waiting);

    Interruptions& owner;
    fuse_req* const request;
    State state = State::kWaiting;  // guarded by the owner's lock, as are those below
    bool is_due = false;            // a signal has come, and it is in the list
    Clock::time_point due = {};
  };

  explicit Interruptions(std::chrono::milliseconds moment) : grace(moment) {}
  ~Interruptions() { Stop(); }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

  void Stop();

 private:
  void Note(Waiting& waiting);
  void Run();

  const std::chrono::milliseconds grace;
  Mutex lock;
  CondVar changed;
  std::list<Waiting*> signalled TARN_GUARDED_BY(lock);  // the first that is due at the front
  int given_up TARN_GUARDED_BY(lock) = 0;               // and still served
  bool stopped TARN_GUARDED_BY(lock) = false;
  LateThread answering TARN_GUARDED_BY(lock);
};

}  // namespace tarn::fs
