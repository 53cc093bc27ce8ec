#include "platform/filesystem/listings.h"

#include <gtest/gtest.h>

namespace tarn::fs {
namespace {

constexpr std::chrono::seconds kTimeOut{5};

class ListingsTest : public testing::Test {
 protected:
  Listings::Known Known(const std::string& path, Clock::duration later = {}) {
    return listings.Find(path, now + later).known;
  }

  static Entry File(const std::string& name, unsigned long long size) {
    Attributes attributes;
    attributes.size = size;
    return {name, attributes};
  }

  Listings listings{kTimeOut};
  const Clock::time_point now = Clock::now();
};

TEST_F(ListingsTest, OneListingAnswersForItsFolderAbsentNamesIncludedUntilItIsOld) {
  listings.AddListing(listings.Begin(), "/f", {File("a", 1), File("b", 2)}, now);
  EXPECT_EQ(listings.Find("/f/b", now).attributes.size, 2U);
  EXPECT_EQ(Known("/f/c"), Listings::Known::kAbsent);
  EXPECT_EQ(Known("/g/c"), Listings::Known::kNothing);
  EXPECT_EQ(Known("/f/b", kTimeOut), Listings::Known::kNothing);
  EXPECT_EQ(Known("/f/c", kTimeOut), Listings::Known::kNothing);
}

TEST_F(ListingsTest, AnswersToQuestionsFromBeforeAChangeAreNotKept) {
  const auto before = listings.Begin();
  listings.SetAbsent("/f/gone", now);
  listings.AddListing(before, "/f", {File("gone", 1)}, now);
  EXPECT_EQ(Known("/f/gone"), Listings::Known::kAbsent);

  const Attributes stale = File("", 1).attributes;
  EXPECT_FALSE(listings.Add(before, "/f/gone", &stale, now));
  EXPECT_TRUE(listings.Add(before, "/f/other", &stale, now)) << "nothing happened to that one";

  listings.ForgetTree("/");
  EXPECT_FALSE(listings.Add(before, "/new/folder", &stale, now));
  EXPECT_TRUE(listings.Add(listings.Begin(), "/new/folder", &stale, now));
}

TEST_F(ListingsTest, ALaterListingDoesNotLetAnEarlierAnswerIn) {
  const Attributes stale = File("", 1).attributes;
  const auto before = listings.Begin();
  listings.SetAbsent("/f/gone", now);
  listings.AddListing(listings.Begin(), "/f", {File("kept", 1)}, now);
  EXPECT_FALSE(listings.Add(before, "/f/gone", &stale, now));
  EXPECT_EQ(Known("/f/gone"), Listings::Known::kAbsent);
}

TEST_F(ListingsTest, ForgettingATreeSparesNeighboursWithTheSameBeginning) {
  for (const char* const folder : {"/a", "/a-b", "/a/b", "/ab"}) {
    listings.AddListing(listings.Begin(), folder, {File("x", 1)}, now);
  }
  listings.ForgetTree("/a");
  EXPECT_EQ(Known("/a/x"), Listings::Known::kNothing);
  EXPECT_EQ(Known("/a/b/x"), Listings::Known::kNothing);
  EXPECT_EQ(Known("/a-b/x"), Listings::Known::kPresent);
  EXPECT_EQ(Known("/ab/x"), Listings::Known::kPresent);
}

TEST_F(ListingsTest, ForgottenNamesDoNotCountAsAbsent) {
  listings.AddListing(listings.Begin(), "/f", {File("a", 1)}, now);
  listings.Forget("/f/a");
  EXPECT_EQ(Known("/f/a"), Listings::Known::kNothing);
}

}  // namespace
}  // namespace tarn::fs
