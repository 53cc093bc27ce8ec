#pragma once

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <stdlib.h>
#include <string>
#include <vector>

#include "interfaces/module.h"

namespace tarn::local {

struct ReleaseProtocol {
  void operator()(IProtocol_V2* protocol) const { protocol->Release(); }
};
using Protocol = std::unique_ptr<IProtocol_V2, ReleaseProtocol>;

// A text as the content of an upload; `fail_at` makes reading fail there.
struct TextSource {
  explicit TextSource(std::string text) : content(std::move(text)) {
    source.context = this;
    source.read = [](void* self, void* buffer, long long length) {
      return static_cast<TextSource*>(self)->Read(buffer, length);
    };
    source.rewind = [](void* self) {
      static_cast<TextSource*>(self)->position = 0;
      return 0;
    };
  }
  long long Read(void* buffer, long long length) {
    if (position >= fail_at) {
      return -1;
    }
    const size_t count = std::min(static_cast<size_t>(length), content.size() - position);
    std::memcpy(buffer, content.data() + position, count);
    position += count;
    return static_cast<long long>(count);
  }

  std::string content;
  size_t position = 0;
  size_t fail_at = static_cast<size_t>(-1);
  FS_SOURCE source{};
};

// A folder under /tmp and a connected protocol object for it, from the module's file.
class LocalTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = "/tmp/tarn_local_XXXXXX";
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    base = name;
    root = base / "root";
    std::filesystem::create_directory(root);
    module.reset(::dlopen(LOCAL_MODULE, RTLD_NOW | RTLD_LOCAL));
    ASSERT_NE(module, nullptr) << ::dlerror();
    protocol = Make(root.string());
    ASSERT_EQ(Connect(*protocol), SUCCESS);
  }
  void TearDown() override {
    protocol.reset();
    std::filesystem::remove_all(base);
  }

  template <typename Function>
  Function* Export(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(module.get(), name));
  }
  Protocol Make(const std::string& connection_id) {
    IProtocol_V2* made = nullptr;
    EXPECT_TRUE(
        Export<decltype(GetProtocol)>("GetProtocol")(connection_id.c_str(), nullptr, &made));
    return Protocol(made);
  }
  AERROR Connect(IProtocol_V2& made, std::string* message = nullptr) {
    char* text = nullptr;
    const AERROR error = made.Connect(&text);
    if (message != nullptr && text != nullptr) {
      *message = text;
    }
    made.FreeString(text);
    return error;
  }

  std::map<std::string, FS_INFO> List(const char* path) {
    std::map<std::string, FS_INFO> entries;
    const auto collect = [](void* context, const char* name, const FS_INFO* info) {
      static_cast<std::map<std::string, FS_INFO>*>(context)->emplace(name, *info);
      return 1;
    };
    EXPECT_EQ(protocol->List(path, collect, &entries), SUCCESS) << path;
    return entries;
  }
  std::vector<std::string> Names(const char* path) {
    std::vector<std::string> names;
    for (const auto& [name, info] : List(path)) {
      names.push_back(name);
    }
    return names;
  }
  AERROR Put(const char* path, const std::string& content, const char* replaces = nullptr,
             std::string* version = nullptr) {
    TextSource text(content);
    text.source.replaces = replaces;
    const AERROR error = protocol->Upload(path, &text.source, content.size(), nullptr, nullptr);
    if (version != nullptr) {
      *version = text.source.version;
    }
    return error;
  }
  AERROR Get(const char* path, std::string& content) {
    content.resize(1 << 20);
    unsigned long long received = 0;
    const AERROR error = protocol->Read(path, 0, content.data(), content.size(), &received);
    content.resize(received);
    return error;
  }
  std::string Version(const char* path) {
    FS_INFO info{};
    EXPECT_EQ(protocol->GetInfo(path, &info), SUCCESS) << path;
    return info.version;
  }
  static void WriteFile(const std::filesystem::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
  }
  static std::string FileContent(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  // Names in the folder itself, hidden ones too.
  static size_t CountFiles(const std::filesystem::path& folder) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
  }

  struct CloseModule {
    void operator()(void* handle) const { ::dlclose(handle); }
  };
  std::filesystem::path base;
  std::filesystem::path root;
  std::unique_ptr<void, CloseModule> module;
  Protocol protocol;
};

}  // namespace tarn::local
