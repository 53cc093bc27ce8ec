#pragma once

#include <string>

#include "interfaces/ifsevent.h"

class JsonObject;

// The drive process's event sink: turns each call of the file-system library into "fs_event"
// messages for the service. Holds nothing back and merges nothing; whether a message leaves the
// process is the child pipe's decision.
//
// Owned by: shared handles of the mounter and of the mounted drive, which end it with Release().
// Threads:  any; no state of its own. `owner` is the CChildPipe and outlives the drive.
class FSEvent : public IFSEvent {
 public:
  explicit FSEvent(void* child_pipe);

  void Release() override;
  void BeginUpload(const char* path, const char* origin_path, const char* extra) override;
  void Uploading(const char* path, const char* origin_path, long long total, long long sent,
                 double speed) override;
  void EndUpload(AERROR error, const char* path, const char* origin_path,
                 const char* protmsg) override;
  void Error(FS_EVENT operation, AERROR error, const char* path, const char* origin_path,
             const char* protmsg) override;
  bool UserAction(AERROR error, const char* path, const char* origin_path, char* buffer,
                  int size) override;
  void Unmounted(const char* path) override;

  virtual ~FSEvent() = default;

  // The message of an error code for people; "error" for a code without one.
  static std::string error_to_string(AERROR value);

 private:
  void send(const JsonObject& data);
  void send_error(const char* operation, AERROR error, const char* path, const char* origin_path,
                  const char* protmsg);

  void* const owner;
};
