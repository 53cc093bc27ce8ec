#pragma once

#include "platform/filesystem/reachability.h"
#include "platform/filesystem/suspension.h"

namespace tarn::fs {

// How long a drive waits for its remote. docs/volume.md states these times.
struct Limits {
  using Time = std::chrono::milliseconds;

  Time metadata{30'000};  // everything but the two below
  // While the remote answers other questions: a MiB may take long because lines are slow, or
  // because a speed was set, and modules end what does not move.
  Time read{300'000};
  Time upload_stall{60'000};  // nothing of the content moves; an upload has no other limit
  Time doubt{10'000};         // a call that waits so long without a sign puts the remote in doubt
  Time probe{20'000};         // the question whether it is there
  Time cancel{2'000};         // for the module to take note that calls are to end
  Time close{15'000};         // for all its calls to end then, before the drive lets go of it
  Time signal_grace{1000};    // for a call that a signal may end: many programs handle signals
  Reachability::Pauses pauses{};
  Suspension::Source asleep = &TimeAsleep;
};

}  // namespace tarn::fs
