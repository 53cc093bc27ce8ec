#include "platform/filesystem/interruptions.h"

#include <cerrno>
#include <utility>

#include "platform/filesystem/fuse_operations.h"

namespace tarn::fs {

namespace {

constexpr int kMaxGivenUp = 64;  // half of the calls that one protocol takes at a time

}  // namespace

Interruptions::Waiting::Waiting(Interruptions& interruptions, fuse_req* served)
    : owner(interruptions), request(served) {
  fuse_req_interrupt_func(request, &Waiting::OnSignal, this);
}

void Interruptions::Waiting::OnSignal(fuse_req* /*request*/, void* waiting) {
  auto& self = *static_cast<Waiting*>(waiting);
  self.owner.Note(self);
}

bool Interruptions::Waiting::End() {
  {
    const MutexLock guard(owner.lock);
    if (is_due && state == State::kWaiting) {
      owner.signalled.remove(this);
    }
    while (state == State::kGivenUp) {
      owner.changed.wait(owner.lock);
    }
    if (state == State::kAnswered) {
      --owner.given_up;
      owner.changed.notify_all();
    }
    if (std::exchange(state, State::kEnded) != State::kWaiting) {
      return false;
    }
  }
  fuse_req_interrupt_func(request, nullptr, nullptr);  // waits for an OnSignal that runs
  return true;
}

// Called by libfuse, which keeps the request, and so the one who serves it in End, until it has
// returned.
void Interruptions::Note(Waiting& waiting) {
  const MutexLock guard(lock);
  if (stopped || waiting.is_due || waiting.state != Waiting::State::kWaiting) {
    return;
  }
  if (!answering.Ensure([this] { Run(); })) {
    return;  // the program waits for its answer, then
  }
  waiting.is_due = true;
  waiting.due = Clock::now() + grace;
  signalled.push_back(&waiting);
  changed.notify_all();
}

void Interruptions::Run() {
  MutexLock hold(lock);
  while (!stopped) {
    if (signalled.empty() || given_up >= kMaxGivenUp) {
      changed.wait(lock);
      continue;
    }
    Waiting& first = *signalled.front();
    if (const auto due = first.due; due > Clock::now()) {
      (void)changed.wait_until(lock, due);
      continue;
    }
    signalled.pop_front();
    first.state = Waiting::State::kGivenUp;
    ++given_up;
    fuse_req* const request = first.request;
    hold.unlock();
    fuse_req_interrupt_func(request, nullptr, nullptr);
    (void)fuse_reply_err(request, EINTR);  // a program that is gone needs no answer
    hold.lock();
    first.state = Waiting::State::kAnswered;
    changed.notify_all();
  }
}

void Interruptions::Stop() {
  LateThread::Ending ended;  // after the lock
  const MutexLock guard(lock);
  stopped = true;
  changed.notify_all();
  ended = answering.Take();
}

}  // namespace tarn::fs
