#include "tarnctl/mount_message.h"

#include <filesystem>
#include <jansson.h>

namespace tarn {

namespace {

constexpr const char* kFolderType = "local";

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

// KEY=TEXT, or KEY:=JSON for a value that is not a text.
bool InsertSetting(JsonObject& data, const std::string& setting) {
  const size_t equals = setting.find('=');
  if (equals == std::string::npos || equals == 0) {
    return false;
  }
  const std::string text = setting.substr(equals + 1);
  if (setting[equals - 1] != ':') {
    return data.Insert(setting.substr(0, equals).c_str(), text);
  }
  const std::shared_ptr<json_t> value(
      json_loadb(text.data(), text.size(), JSON_DECODE_ANY, nullptr), json_decref);
  return value != nullptr && data.Insert(setting.substr(0, equals - 1).c_str(), JsonObject(value));
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
      problem = "--data needs KEY=TEXT or KEY:=JSON, not \"" + setting + "\"";
      return std::nullopt;
    }
  }
  Json message = Message("connect");
  message.Insert("data", data);
  return message;
}

}  // namespace tarn
