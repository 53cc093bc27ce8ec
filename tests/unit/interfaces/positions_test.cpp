#include <bit>
#include <cstddef>
#include <gtest/gtest.h>
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
// that an object's first word points to.
namespace {

using Positions = std::vector<std::ptrdiff_t>;

// The first word of a pointer to a virtual operation is its offset in the table in bytes, plus one
// on machines where that tells it from an address.
template <typename... Methods>
Positions PositionsOf(Methods... methods) {
  struct Pointer {
    std::ptrdiff_t offset_bytes;
    std::ptrdiff_t adjustment;
  };
  constexpr auto kEntryBytes = static_cast<std::ptrdiff_t>(sizeof(void*));
  return {std::bit_cast<Pointer>(methods).offset_bytes / kEntryBytes...};
}

TEST(PositionsTest, Protocol) {
  using P = IProtocol_V2;
  EXPECT_EQ(PositionsOf(&P::Release, &P::GetUserName, &P::GetSize, &P::SetSize, &P::List,
                        &P::GetInfo, &P::Read, &P::Upload, &P::CreateFolder, &P::DeleteFile,
                        &P::DeleteFolder, &P::Move, &P::SetModifiedTime, &P::GetIdentity,
                        &P::Cancel, &P::GetCapabilities, &P::ReadVersion, &P::SetOption),
            (Positions{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17}));
  EXPECT_EQ(PositionsOf(&P::GetCredential, &P::SetKeyFile, &P::Connect, &P::Disconnect,
                        &P::SetQuotaCallback, &P::FreeString),
            (Positions{19, 20, 21, 22, 23, 24}));
}

TEST(PositionsTest, DriveAndItsEvents) {
  using D = IFSDrive;
  EXPECT_EQ(PositionsOf(&D::AddProtocol, &D::GetProtocolCount, &D::GetProtocolAt, &D::SetFeatures,
                        &D::GetFeatures, &D::SetEventSink),
            (Positions{0, 6, 7, 8, 10, 11}));
  using E = IFSEvent;
  EXPECT_EQ(PositionsOf(&E::Release, &E::BeginUpload, &E::Uploading, &E::EndUpload, &E::Error,
                        &E::UserAction, &E::Unmounted),
            (Positions{0, 1, 2, 3, 4, 5, 6}));
}

TEST(PositionsTest, SmallInterfaces) {
  EXPECT_EQ(PositionsOf(&IRefObject::Release), Positions{0});
  EXPECT_EQ(PositionsOf(&IAsyncQ::Push, &IAsyncQ::Release), (Positions{0, 1}));
  EXPECT_EQ(PositionsOf(&ILog::SetLevel, &ILog::GetLevel, &ILog::Write), (Positions{0, 1, 2}));
  EXPECT_EQ(PositionsOf(&IAuth::GetValue, &IAuth::Refresh), (Positions{0, 1}));
  EXPECT_EQ(PositionsOf(&ICache::ReadBlock, &ICache::WriteBlock, &ICache::Drop, &ICache::GetUsed,
                        &ICache::GetCapacity, &ICache::GetFolder),
            (Positions{0, 1, 2, 3, 4, 5}));
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
