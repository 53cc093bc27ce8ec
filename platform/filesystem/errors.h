#pragma once

#include "interfaces/aerror.h"

namespace tarn::fs {

// The errno value that a program sees for a library or protocol error; 0 for SUCCESS. Values that
// no name stands for are EIO.
[[nodiscard]] int ErrnoOf(AERROR error);

// Whether a failed operation is worth telling a person: not the answers that programs ask for and
// expect (is it there, is it empty), and nothing that merely is not offered.
[[nodiscard]] bool MattersToPeople(AERROR error);

// Whether the remote did not answer, so that the same may well be done later; all others are its
// answers.
[[nodiscard]] bool IsUnreachable(AERROR error);
[[nodiscard]] bool IsCancelled(AERROR error);  // by a call of Cancel

}  // namespace tarn::fs
