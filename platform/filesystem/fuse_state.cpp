// The kernel's requests for extended attributes: what is to be seen of a drive.
#include <string_view>

#include "platform/filesystem/fuse_request.h"

namespace tarn::fs {

namespace {

// A size of 0 asks how large the answer is.
int ReplyText(fuse_req_t request, const std::string& text, size_t size) {
  if (size == 0) {
    (void)fuse_reply_xattr(request, text.size());
  } else if (text.size() > size) {
    return ERANGE;
  } else {
    (void)fuse_reply_buf(request, text.data(), text.size());
  }
  return 0;
}

void GetExtended(fuse_req_t request, fuse_ino_t ino, const char* name, size_t size) {
  Serve(request, [&](FileSystem& files) {
    std::string value;
    return files.GetExtended(ino, name, value) ? ReplyText(request, value, size) : ENODATA;
  });
}

void ListExtended(fuse_req_t request, fuse_ino_t ino, size_t size) {
  Serve(request, [&](FileSystem& files) {
    std::string names;
    for (const std::string_view name : files.ListExtended(ino)) {
      names.append(name).push_back('\0');
    }
    return ReplyText(request, names, size);
  });
}

// Programs that copy files with their attributes take this for a file system without any, and are
// silent about it.
void SetExtended(fuse_req_t request, fuse_ino_t /*ino*/, const char* /*name*/,
                 const char* /*value*/, size_t /*size*/, int /*flags*/) {
  (void)fuse_reply_err(request, ENOTSUP);
}

void RemoveExtended(fuse_req_t request, fuse_ino_t /*ino*/, const char* /*name*/) {
  (void)fuse_reply_err(request, ENOTSUP);
}

}  // namespace

void AddStateOperations(fuse_lowlevel_ops& operations) {
  operations.getxattr = &GetExtended;
  operations.listxattr = &ListExtended;
  operations.setxattr = &SetExtended;
  operations.removexattr = &RemoveExtended;
}

}  // namespace tarn::fs
