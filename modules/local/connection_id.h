#pragma once

#include <string>
#include <string_view>

namespace tarn::local {

// The folder that a connection id names: an absolute path as it stands, or a file:// URL of this
// machine, percent-decoded. The empty text when it names none.
[[nodiscard]] std::string FolderOfConnectionId(std::string_view connection_id);

}  // namespace tarn::local
