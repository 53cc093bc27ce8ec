#include "tarnctl/mount_message.h"

#include <algorithm>
#include <filesystem>
#include <jansson.h>

#include "common/posix.h"

namespace tarn {

namespace {

constexpr const char* kFolderType = "local";
constexpr size_t kLargestSettingBytes = 65536;

// A folder of this machine may be given as a relative path.
std::string UrlFor(const MountRequest& request) {
  const bool is_folder =
      request.type == kFolderType && request.url.find("://") == std::string::npos;
  return is_folder ? AbsolutePath(request.url) : request.url;
}

std::string LabelFor(const MountRequest& request) {
  if (!request.label.empty()) {
    return request.label;
  }
  return std::filesystem::path(AbsolutePath(request.mount_point)).filename().string();
}

bool InsertJson(JsonObject& data, const std::string& key, const std::string& text) {
  const std::shared_ptr<json_t> value(
      json_loadb(text.data(), text.size(), JSON_DECODE_ANY, nullptr), json_decref);
  return value != nullptr && data.Insert(key.c_str(), JsonObject(value));
}

// For secrets, which other users could read on a command line.
bool InsertFile(JsonObject& data, const std::string& key, const std::string& path) {
  std::string text;
  if (!ReadFile(path, kLargestSettingBytes, text)) {
    return false;
  }
  while (text.ends_with('\n') || text.ends_with('\r')) {
    text.pop_back();
  }
  return data.Insert(key.c_str(), text);
}

// KEY=TEXT, KEY:=JSON or KEY:@FILE, whichever sign comes first.
bool InsertSetting(JsonObject& data, const std::string& setting) {
  const size_t key_length = std::min(setting.find('='), setting.find(":@"));
  if (key_length == std::string::npos || key_length == 0) {
    return false;
  }
  if (setting[key_length] == ':') {
    return InsertFile(data, setting.substr(0, key_length), setting.substr(key_length + 2));
  }
  const std::string value = setting.substr(key_length + 1);
  return setting[key_length - 1] == ':' ? InsertJson(data, setting.substr(0, key_length - 1), value)
                                        : data.Insert(setting.substr(0, key_length).c_str(), value);
}

}  // namespace

std::string AbsolutePath(const std::string& path) {
  std::error_code failed;
  const std::filesystem::path absolute = std::filesystem::absolute(path, failed);
  std::string text = failed ? path : absolute.lexically_normal().string();
  while (text.size() > 1 && text.ends_with('/')) {
    text.pop_back();
  }
  return text;
}

std::optional<Json> MountMessage(const MountRequest& request, std::string& problem) {
  JsonObject data;
  const bool is_text = data.Insert("type", request.type) && data.Insert("url", UrlFor(request)) &&
                       data.Insert("label", LabelFor(request)) &&
                       data.Insert("drive", AbsolutePath(request.mount_point)) &&
                       data.Insert("option", 0);
  if (!is_text) {
    problem = "type, URL, mount point and label must be UTF-8 text";
    return std::nullopt;
  }
  for (const std::string& setting : request.data) {
    if (!InsertSetting(data, setting)) {
      problem = "--data needs KEY=TEXT, KEY:=JSON or KEY:@FILE (that can be read), not \"" +
                setting + "\"";
      return std::nullopt;
    }
  }
  Json message = Message("connect");
  message.Insert("data", data);
  return message;
}

}  // namespace tarn
