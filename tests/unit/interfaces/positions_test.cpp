#include <array>
#include <gtest/gtest.h>
#include <tuple>
#include <type_traits>
#include <vector>

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

int last_called = -1;

void Unexpected(void* /*self*/) {
  last_called = -1;
}

template <typename Method>
struct Operation;

template <typename Result, typename Class, typename... Arguments>
struct Operation<Result (Class::*)(Arguments...)> {
  template <int Position>
  static Result Record(void* /*self*/, Arguments... /*arguments*/) {
    last_called = Position;
    return Result();
  }

  // The object is none that C++ made, which the sanitizer would notice.
  template <auto Method>
  __attribute__((no_sanitize("vptr"))) static void Call(void* object) {
    std::tuple<std::remove_reference_t<Arguments>...> arguments;
    std::apply(
        [object](auto&... each) __attribute__((no_sanitize("vptr"))) {
          (static_cast<Class*>(object)->*Method)(each...);
        },
        arguments);
  }
};

struct Row {
  int position;
  void* entry;
  void (*call)(void* object);
};

template <int Position, auto Method>
Row At() {
  using Typed = Operation<decltype(Method)>;
  return {Position, reinterpret_cast<void*>(&Typed::template Record<Position>),
          &Typed::template Call<Method>};
}

void ExpectPositions(const std::vector<Row>& rows) {
  std::array<void*, 25> table;
  table.fill(reinterpret_cast<void*>(&Unexpected));
  for (const Row& row : rows) {
    table.at(static_cast<size_t>(row.position)) = row.entry;
  }
  struct {
    void** table;
  } object{table.data()};
  for (const Row& row : rows) {
    last_called = -1;
    row.call(&object);
    EXPECT_EQ(last_called, row.position);
  }
}

TEST(PositionsTest, Protocol) {
  using P = IProtocol_V2;
  ExpectPositions({At<0, &P::Release>(),
                   At<1, &P::GetUserName>(),
                   At<2, &P::GetSize>(),
                   At<3, &P::SetSize>(),
                   At<4, &P::List>(),
                   At<5, &P::GetInfo>(),
                   At<6, &P::Read>(),
                   At<7, &P::Upload>(),
                   At<8, &P::CreateFolder>(),
                   At<9, &P::DeleteFile>(),
                   At<10, &P::DeleteFolder>(),
                   At<11, &P::Move>(),
                   At<12, &P::SetModifiedTime>(),
                   At<13, &P::GetIdentity>(),
                   At<14, &P::Cancel>(),
                   At<15, &P::GetCapabilities>(),
                   At<16, &P::ReadVersion>(),
                   At<17, &P::SetOption>(),
                   At<19, &P::GetCredential>(),
                   At<20, &P::SetKeyFile>(),
                   At<21, &P::Connect>(),
                   At<22, &P::Disconnect>(),
                   At<23, &P::SetQuotaCallback>(),
                   At<24, &P::FreeString>()});
}

TEST(PositionsTest, Drive) {
  ExpectPositions({At<0, &IFSDrive::AddProtocol>(), At<6, &IFSDrive::GetProtocolCount>(),
                   At<7, &IFSDrive::GetProtocolAt>(), At<8, &IFSDrive::SetFeatures>(),
                   At<10, &IFSDrive::GetFeatures>(), At<11, &IFSDrive::SetEventSink>()});
}

TEST(PositionsTest, EventSink) {
  ExpectPositions({At<0, &IFSEvent::Release>(), At<1, &IFSEvent::BeginUpload>(),
                   At<2, &IFSEvent::Uploading>(), At<3, &IFSEvent::EndUpload>(),
                   At<4, &IFSEvent::Error>(), At<5, &IFSEvent::UserAction>(),
                   At<6, &IFSEvent::Unmounted>()});
}

TEST(PositionsTest, SmallInterfaces) {
  ExpectPositions({At<0, &IRefObject::Release>()});
  ExpectPositions({At<0, &IAsyncQ::Push>(), At<1, &IAsyncQ::Release>()});
  ExpectPositions({At<0, &ILog::SetLevel>(), At<1, &ILog::GetLevel>(), At<2, &ILog::Write>()});
  ExpectPositions({At<0, &IAuth::GetValue>(), At<1, &IAuth::Refresh>()});
  ExpectPositions({At<0, &ICache::ReadBlock>(), At<1, &ICache::WriteBlock>(),
                   At<2, &ICache::Drop>(), At<3, &ICache::GetUsed>(), At<4, &ICache::GetCapacity>(),
                   At<5, &ICache::GetFolder>()});
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
