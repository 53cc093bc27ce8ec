#include <gtest/gtest.h>
#include <tuple>
#include <type_traits>

#include "interfaces/cache.h"
#include "interfaces/fs_feature.h"
#include "interfaces/iasyncq.h"
#include "interfaces/iauth.h"
#include "interfaces/ifsdrive.h"
#include "interfaces/ifsevent.h"
#include "interfaces/ilog.h"
#include "interfaces/iprotocol_v2.h"

// Libraries and modules that were built elsewhere find an operation by its position in the table
// that an object's first word points to. Here such tables are made by hand.
namespace {

void* called = nullptr;

template <auto Method, typename Type = decltype(Method)>
struct Operation;

template <auto Method, typename Result, typename Class, typename... Arguments>
struct Operation<Method, Result (Class::*)(Arguments...)> {
  static Result TableEntry(void* /*self*/, Arguments... /*arguments*/) {
    called = reinterpret_cast<void*>(&TableEntry);
    return Result();
  }

  // The object is none that C++ made, which the sanitizer would notice.
  __attribute__((no_sanitize("vptr"))) static void Call(void* object) {
    std::tuple<std::remove_reference_t<Arguments>...> arguments;
    std::apply(
        [object](auto&... each) __attribute__((no_sanitize("vptr"))) {
          (static_cast<Class*>(object)->*Method)(each...);
        },
        arguments);
  }
};

template <auto... Methods>
void ExpectOrder() {
  void* table[] = {reinterpret_cast<void*>(&Operation<Methods>::TableEntry)...};
  void (*const calls[])(void*) = {&Operation<Methods>::Call...};
  struct {
    void** table;
  } object{table};
  for (size_t position = 0; position < sizeof...(Methods); ++position) {
    calls[position](&object);
    ASSERT_EQ(called, table[position]) << position;
  }
}

TEST(PositionsTest, Protocol) {
  using P = IProtocol_V2;
  ExpectOrder<&P::Release, &P::GetUserName, &P::GetSize, &P::SetSize, &P::List, &P::GetInfo,
              &P::Read, &P::Upload, &P::CreateFolder, &P::DeleteFile, &P::DeleteFolder, &P::Move,
              &P::SetModifiedTime, &P::GetIdentity, &P::Cancel, &P::GetCapabilities,
              &P::ReadVersion, &P::SetOption, &P::Reserved18, &P::GetCredential, &P::SetKeyFile,
              &P::Connect, &P::Disconnect, &P::SetQuotaCallback, &P::FreeString>();
}

TEST(PositionsTest, DriveAndItsEventSink) {
  using D = IFSDrive;
  ExpectOrder<&D::AddProtocol, &D::Reserved1, &D::Reserved2, &D::Reserved3, &D::Reserved4,
              &D::Reserved5, &D::GetProtocolCount, &D::GetProtocolAt, &D::SetFeatures,
              &D::Reserved9, &D::GetFeatures, &D::SetEventSink>();
  using E = IFSEvent;
  ExpectOrder<&E::Release, &E::BeginUpload, &E::Uploading, &E::EndUpload, &E::Error, &E::UserAction,
              &E::Unmounted>();
}

TEST(PositionsTest, SmallInterfaces) {
  ExpectOrder<&IRefObject::Release>();
  ExpectOrder<&IAsyncQ::Push, &IAsyncQ::Release>();
  ExpectOrder<&ILog::SetLevel, &ILog::GetLevel, &ILog::Write>();
  ExpectOrder<&IAuth::GetValue, &IAuth::Refresh>();
  ExpectOrder<&ICache::ReadBlock, &ICache::WriteBlock, &ICache::Drop, &ICache::GetUsed,
              &ICache::GetCapacity, &ICache::GetFolder>();
}

TEST(FeatureTest, CombiningKeepsTheLow32BitsAndTheirSign) {
  const auto combine = [](std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<FS_FEATURE>(a) | static_cast<FS_FEATURE>(b));
  };
  EXPECT_EQ(combine(FS_FEATURE_CLIENT, 0x1), 0x21);
  EXPECT_EQ(combine(0x7'0000'0020, 0x1'0000'0000), 0x20);
  EXPECT_EQ(combine(0x8000'0000, 0x20), -0x7FFF'FFE0);
}

}  // namespace
