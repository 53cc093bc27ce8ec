#include "tarnsvc/FSEvent.h"

#include <memory>

#include "common/conv_aerror.h"
#include "common/json.h"
#include "tarnsvc/ChildPipe.h"

namespace {

// The "op" of an event about a failed operation; null for one without a name.
const char* OperationName(FS_EVENT operation) {
  switch (operation) {
    case FS_EVENT_READDIR:
      return "readdir";
    case FS_EVENT_CREATE_FILE:
      return "create_file";
    case FS_EVENT_READ:
      return "read";
    case FS_EVENT_CREATE_DIRECTORY:
      return "create_directory";
    case FS_EVENT_DELETE:
      return "delete";
    case FS_EVENT_MOVE:
      return "move";
    case FS_EVENT_RENAME:
      return "rename";
  }
  return nullptr;
}

JsonObject UploadData(const char* status, const char* path, const char* origin_path) {
  JsonObject data;
  data.Insert("method", std::string("upload"));
  data.Insert("status", std::string(status));
  data.Insert("path", std::string(path));
  data.Insert("origin_path", std::string(origin_path));
  return data;
}

void InsertIfThere(JsonObject& data, const char* key, const char* text) {
  if (text != nullptr) {
    data.Insert(key, std::string(text));
  }
}

}  // namespace

FSEvent::FSEvent(void* child_pipe) : owner(child_pipe) {}

void FSEvent::Release() {
  const std::unique_ptr<FSEvent> ends_here(this);
}

void FSEvent::BeginUpload(const char* path, const char* origin_path, const char* /*extra*/) {
  send(UploadData("begin", path, origin_path));
}

void FSEvent::Uploading(const char* path, const char* origin_path, long long total, long long sent,
                        double speed) {
  JsonObject data = UploadData("uploading", path, origin_path);
  data.Insert("total", total);
  data.Insert("sent", sent);
  data.Insert("speed", speed);
  send(data);
}

void FSEvent::EndUpload(AERROR error, const char* path, const char* origin_path,
                        const char* protmsg) {
  send(UploadData("finished", path, origin_path));
  if (error != SUCCESS) {
    send_error("upload", error, path, origin_path, protmsg);
  }
}

void FSEvent::Error(FS_EVENT operation, AERROR error, const char* path, const char* origin_path,
                    const char* protmsg) {
  send_error(OperationName(operation), error, path, origin_path, protmsg);
}

bool FSEvent::UserAction(AERROR /*error*/, const char* /*path*/, const char* /*origin_path*/,
                         char* /*buffer*/, int /*size*/) {
  return true;
}

void FSEvent::Unmounted(const char* path) {
  const std::shared_ptr<CMounter>& mounter = static_cast<CChildPipe*>(owner)->get_mounter();
  if (mounter && mounter->unmounting) {
    return;
  }
  JsonObject data;
  data.Insert("method", std::string("disconnected_force"));
  data.Insert("path", std::string(path));
  send(data);
}

std::string FSEvent::error_to_string(AERROR value) {
  return tarn::AERRORMessage(value);
}

void FSEvent::send(const JsonObject& data) {
  Json message;
  message.Insert("cmd", std::string("fs_event"));
  message.Insert("data", data);
  static_cast<CChildPipe*>(owner)->send_fsevent(message.ToText());
}

void FSEvent::send_error(const char* operation, AERROR error, const char* path,
                         const char* origin_path, const char* protmsg) {
  JsonObject data;
  data.Insert("method", std::string("error"));
  data.Insert("status", 0);
  InsertIfThere(data, "op", operation);
  data.Insert("aerror", static_cast<int>(error));
  data.Insert("message", error_to_string(error));
  InsertIfThere(data, "path", path);
  InsertIfThere(data, "origin_path", origin_path);
  InsertIfThere(data, "protmsg", protmsg);
  send(data);
}
