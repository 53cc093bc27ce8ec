#pragma once

#include "interfaces/aerror.h"

namespace tarn::local {

// The AERROR for an errno that a call on a file or folder left.
[[nodiscard]] AERROR ErrorOf(int error_number);

}  // namespace tarn::local
