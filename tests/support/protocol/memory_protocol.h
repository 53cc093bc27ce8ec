#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/sync.h"
#include "interfaces/iprotocol_v2.h"

namespace tarn::test {

// A complete remote in memory. What it holds belongs to a Store that several protocols can share,
// as several clients share one server; changes made through the Store come from "elsewhere".
//
// Threads: any, several operations at once.
class MemoryProtocol final : public IProtocol_V2 {
 public:
  class Store {
   public:
    // From elsewhere, at once. Folders above are made.
    void Write(const std::string& path, const std::string& content);
    void MakeFolder(const std::string& path);
    void Remove(const std::string& path);
    [[nodiscard]] bool Has(const std::string& path) const;
    [[nodiscard]] std::string Content(const std::string& path) const;  // empty when there is none
    [[nodiscard]] std::vector<std::string> Paths() const;              // sorted, without the root

   private:
    friend class MemoryProtocol;
    struct Item {
      bool is_folder = false;
      std::shared_ptr<const std::string> content;
      FS_TIME modified = {};
      std::uint64_t version = 0;
    };

    Item& Put(const std::string& path, Item item) TARN_REQUIRES(lock);
    [[nodiscard]] AERROR CheckParent(const std::string& path) const TARN_REQUIRES(lock);
    [[nodiscard]] bool IsEmpty(const std::string& folder) const TARN_REQUIRES(lock);

    mutable Mutex lock;
    std::map<std::string, Item> items TARN_GUARDED_BY(lock) = {
        {"/", {.is_folder = true, .content = nullptr, .modified = {}, .version = 0}}};
    std::uint64_t last_version TARN_GUARDED_BY(lock) = 0;
  };

  // What a test can turn while it runs.
  struct Behaviour {
    std::atomic<int> latency_ms = 0;        // before every operation
    std::atomic<AERROR> failure = SUCCESS;  // of every operation, when not SUCCESS
    std::atomic<unsigned long long> capabilities =
        FS_CAN_SET_TIME | FS_CAN_REPLACE_VERSION | FS_HAS_SIZE;
    std::atomic<bool> tells_version = true;  // of an upload
  };
  // Operations so far.
  struct Counts {
    std::atomic<int> list = 0, info = 0, read = 0, upload = 0, change = 0;
  };

  explicit MemoryProtocol(std::shared_ptr<Store> shared = std::make_shared<Store>(),
                          std::string identity_text = "memory:")
      : store(std::move(shared)), identity(std::move(identity_text)) {}

  Store& GetStore() { return *store; }
  Behaviour behaviour;
  Counts counts;

  void Release() override {}  // lives as long as its test wants
  int GetUserName(char* buffer, int* length) override;
  AERROR GetSize(unsigned long long* total, unsigned long long* free) override;
  int SetSize(unsigned long long /*total*/, unsigned long long /*used*/) override { return 0; }
  AERROR List(const char* path, FS_LIST_SINK sink, void* context) override;
  AERROR GetInfo(const char* path, FS_INFO* info) override;
  AERROR Read(const char* path, unsigned long long offset, void* buffer, unsigned long long length,
              unsigned long long* received) override;
  AERROR Upload(const char* path, FS_SOURCE* source, unsigned long long size, FS_PROGRESS progress,
                void* context) override;
  AERROR CreateFolder(const char* path) override;
  AERROR DeleteFile(const char* path) override;
  AERROR DeleteFolder(const char* path) override;
  AERROR Move(const char* from, const char* to) override;
  AERROR SetModifiedTime(const char* path, const FS_TIME* time) override;
  AERROR GetIdentity(char* buffer, int* length) override;
  AERROR Cancel() override;
  unsigned long long GetCapabilities() override { return behaviour.capabilities; }
  void Reserved16() override {}
  int SetOption(const char* /*key*/, const char* /*value*/) override { return 0; }
  void Reserved18() override {}
  int GetCredential(char* buffer, int* length) override { return GetUserName(buffer, length); }
  void SetKeyFile(const char* /*path*/) override {}
  AERROR Connect(char** /*message*/) override { return SUCCESS; }
  AERROR Disconnect() override { return SUCCESS; }
  void SetQuotaCallback(void* /*context*/, QUOTA_CALLBACK /*callback*/) override {}
  void FreeString(char* /*text*/) override {}

 private:
  using Item = Store::Item;

  // The remote's time for one operation, and its outcome if it is a failure.
  [[nodiscard]] AERROR Begin(std::atomic<int>& counter);
  static void Describe(const Item& item, FS_INFO& info);
  [[nodiscard]] bool ReadSource(FS_SOURCE& source, unsigned long long size, FS_PROGRESS progress,
                                void* context, std::string& content);

  const std::shared_ptr<Store> store;
  const std::string identity;
  Mutex lock;
  CondVar cancel_came;
  int cancels TARN_GUARDED_BY(lock) = 0;
};

}  // namespace tarn::test
