#include "modules/webdav/changes.h"

#include <utility>
#include <vector>

#include "modules/webdav/lookup.h"
#include "modules/webdav/results.h"

namespace tarn::webdav {

namespace {

// A server may copy a whole tree to move it.
constexpr long kChangeStallLimitSeconds = 60;
constexpr long kChangeDeadlineSeconds = 120;

Answer Change(Remote& remote, const char* method, std::string url,
              std::vector<std::pair<std::string, std::string>> headers) {
  Request request{.method = method,
                  .url = std::move(url),
                  .headers = std::move(headers),
                  .stall_limit_s = kChangeStallLimitSeconds,
                  .deadline_s = kChangeDeadlineSeconds};
  return remote.Send(request);
}

struct Rename {
  const std::string& from;
  const std::string& to;
  bool is_folder;  // written with a "/" at the end, which some servers insist on
  bool overwrites;
};

Answer SendMove(Remote& remote, const Rename& rename) {
  const Location& location = remote.GetLocation();
  const auto url = [&](const std::string& path) {
    return rename.is_folder ? location.FolderUrl(path) : location.FileUrl(path);
  };
  return Change(remote, "MOVE", url(rename.from),
                {{"Destination", url(rename.to)}, {"Overwrite", rename.overwrites ? "T" : "F"}});
}

bool MayBeAFoldersName(const Answer& answer) {
  return answer.status == 400 || answer.status == 409 || answer.status == 403 ||
         answer.status == 404;
}

// Makes room for a folder or makes sure that a file is what will be replaced: servers overwrite
// whole trees when they are told to overwrite.
AERROR PrepareReplacement(Remote& remote, const std::string& from, const std::string& to,
                          bool& is_folder) {
  FS_INFO source{};
  FS_INFO target{};
  AERROR error = GetInfo(remote, from, source);
  if (error == SUCCESS) {
    error = GetInfo(remote, to, target);
  }
  if (error != SUCCESS) {
    return error;
  }
  if (source.is_folder != target.is_folder) {
    return ALREADY_EXISTS;
  }
  is_folder = source.is_folder != 0;
  return is_folder ? DeleteFolder(remote, to) : SUCCESS;
}

// Servers tell of an unfit place in many ways.
AERROR ReasonOfFailedMove(Remote& remote, const std::string& to, AERROR error) {
  FS_INFO info{};
  if (error != PATH_NOT_FOUND && error != FILE_WRITE_FAILED) {
    return error;
  }
  if (GetInfo(remote, ParentOf(to), info) == FILE_NOT_FOUND) {
    return PATH_NOT_FOUND;
  }
  return GetInfo(remote, to, info) == SUCCESS ? ALREADY_EXISTS : error;
}

AERROR Replace(Remote& remote, const std::string& from, const std::string& to) {
  bool is_folder = false;
  const AERROR error = PrepareReplacement(remote, from, to, is_folder);
  if (error != SUCCESS) {
    return error;
  }
  return ResultOfChanging(SendMove(remote, {from, to, is_folder, !is_folder}));
}

}  // namespace

AERROR CreateFolder(Remote& remote, const std::string& path) {
  const Answer answer = Change(remote, "MKCOL", remote.GetLocation().FolderUrl(path), {});
  FS_INFO info{};
  if (answer.status == 405 && GetInfo(remote, path, info) == SUCCESS) {
    return ALREADY_EXISTS;
  }
  return ResultOfChanging(answer);
}

// The depth makes servers refuse where a folder has taken the file's place meanwhile.
AERROR DeleteFile(Remote& remote, const std::string& path) {
  const Answer answer =
      Change(remote, "DELETE", remote.GetLocation().FileUrl(path), {{"Depth", "0"}});
  return answer.status == 404 ? FILE_NOT_FOUND : ResultOfChanging(answer);
}

// Servers delete folders with all that is in them.
AERROR DeleteFolder(Remote& remote, const std::string& path) {
  const AERROR error = CheckEmpty(remote, path);
  if (error != SUCCESS) {
    return error;
  }
  return ResultOfChanging(Change(remote, "DELETE", remote.GetLocation().FolderUrl(path), {}));
}

AERROR Move(Remote& remote, const std::string& from, const std::string& to, bool may_move_folders) {
  if (from == to) {
    return SUCCESS;
  }
  FS_INFO source{};
  if (!may_move_folders) {
    const AERROR error = GetInfo(remote, from, source);
    if (error != SUCCESS || source.is_folder != 0) {
      return error != SUCCESS ? error : NOT_SUPPORTED;
    }
  }
  Answer answer = SendMove(remote, {from, to, false, false});
  if (may_move_folders && MayBeAFoldersName(answer)) {
    const AERROR error = GetInfo(remote, from, source);
    if (error != SUCCESS) {
      return error;
    }
    if (source.is_folder != 0) {
      answer = SendMove(remote, {from, to, true, false});
    }
  }
  if (answer.status == 412) {
    return Replace(remote, from, to);
  }
  const AERROR error = ResultOfChanging(answer);
  return error == SUCCESS ? SUCCESS : ReasonOfFailedMove(remote, to, error);
}

}  // namespace tarn::webdav
