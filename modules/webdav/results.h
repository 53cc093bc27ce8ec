#pragma once

#include <string>

#include "interfaces/aerror.h"
#include "modules/webdav/client.h"
#include "modules/webdav/location.h"

namespace tarn::webdav {

// What an answer means for an operation that only looks at what is there.
[[nodiscard]] AERROR ResultOfReading(const Answer& answer);

// Whether what was asked for has been done. A server that says something else, that it will do it
// later for instance or that parts could not be done, may not do it.
[[nodiscard]] bool IsDone(const Answer& answer);

// What it means for one that changes something. Logs what the server says against it.
[[nodiscard]] AERROR ResultOfChanging(const Answer& answer);

// Why the server's folder cannot be had, in a sentence for people.
[[nodiscard]] std::string DescribeForPeople(const Answer& answer, const Location& location);

}  // namespace tarn::webdav
