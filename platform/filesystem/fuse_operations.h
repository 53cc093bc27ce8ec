#pragma once

// The version of libfuse's interface that all files here use.
#define FUSE_USE_VERSION 314
#include <fuse_lowlevel.h>

namespace tarn::fs {

inline constexpr unsigned kMaxRequestBytes = 1024 * 1024;  // of one read or write of the kernel

// The kernel's requests as calls of the FileSystem that is the session's user data.
[[nodiscard]] const fuse_lowlevel_ops& FuseOperations();

}  // namespace tarn::fs
