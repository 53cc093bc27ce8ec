#include "common/json.h"

#include <cmath>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/frame.h"

namespace {

// The code that `action` throws; SUCCESS when it throws none.
template <typename Action>
AERROR Thrown(Action action) {
  try {
    action();
  } catch (AERROR code) {
    return code;
  }
  return SUCCESS;
}

AERROR ParseResult(const std::string& text) {
  return Thrown([&] { Json(text.data(), static_cast<unsigned int>(text.size())); });
}

TEST(JsonTest, PathsNameMembersFromTheRootDown) {
  const Json document(R"({"cmd":"mount","data":{"type":"x","list":[1,2]}})");
  for (const char* path : {"/data/type", "data/type", "//data//type/"}) {
    EXPECT_EQ(static_cast<std::string>(document.GetObject(path)), "x") << path;
  }
  EXPECT_EQ(static_cast<std::string>(document.GetObject("data").GetObject("/type")), "x");
  EXPECT_EQ(document.GetObject("/").ToText(), document.ToText());
  EXPECT_EQ(document.GetObject("").ToText(), document.ToText());
  for (const char* path :
       {"/data/type/more", "/cmd/x", "/data/list/0", "/DATA", "/dat", "/data "}) {
    EXPECT_FALSE(document.HasObject(path)) << path;
    EXPECT_EQ(Thrown([&] { (void)document.GetObject(path); }), ACCESS_VIOLATION) << path;
  }
}

TEST(JsonTest, OnlyOneWholeObjectOrArrayParses) {
  for (const char* text : {"{}", " [1] \n", R"({"a":"é"})"}) {
    EXPECT_EQ(ParseResult(text), SUCCESS) << text;
    EXPECT_EQ(Thrown([&] { Json parsed(text); }), SUCCESS) << text;
  }
  for (const char* text :
       {"", " ", "5", "null", R"("x")", "{", "{}{}", "[1],", "{'a':1}", "\xC3"}) {
    EXPECT_EQ(ParseResult(text), JSON_PARSE_FAILED) << text;
    EXPECT_EQ(Thrown([&] { Json parsed(text); }), JSON_PARSE_FAILED) << text;
  }
  EXPECT_EQ(ParseResult(std::string("{\0}", 3)), JSON_PARSE_FAILED);
  EXPECT_EQ(Json(nullptr).ToText(), "{}");
  EXPECT_EQ(Json("[7]garbage", 3).ToText(), "[7]");
}

TEST(JsonTest, ParsingWithFlagsLeavesNoRootInsteadOfThrowing) {
  Json broken("{\n?", 3, 0);
  EXPECT_FALSE(broken);
  EXPECT_EQ(broken.ParseError().line, 2);
  EXPECT_FALSE(broken.HasObject("/"));
  EXPECT_FALSE(broken.Insert("a", 1));
  broken.DeleteObject("a");
  EXPECT_EQ(broken.ToText(), "");
  const Json scalar("5", 1, JSON_DECODE_ANY);
  EXPECT_TRUE(scalar);
  EXPECT_EQ(scalar.ToText(), "");
}

// Everything here comes from a peer: a deep text must not use up the stack, nor take long.
TEST(JsonTest, NestingIsBounded) {
  EXPECT_EQ(ParseResult(std::string(tarn::kMaxFrameBytes, '[')), JSON_PARSE_FAILED);
  std::string members;
  for (int i = 0; i < 100'000; ++i) {
    members += R"({"":)";
  }
  EXPECT_EQ(ParseResult(members), JSON_PARSE_FAILED);
  const std::string deep = std::string(2000, '[') + std::string(2000, ']');
  EXPECT_EQ(Json(deep.c_str()).GetObject("/").Copy().ToText(), deep);
}

TEST(JsonTest, ConversionsNeverParseNorConvertBetweenTypes) {
  Json document(
      R"({"text":"12","int":-3,"big":4294967298,"real":1.5,"true":true,"false":false,"null":null})");
  const auto at = [&](const char* path) { return document.GetObject(path); };
  const std::string text = at("text");
  const int integer = at("int");
  const int narrowed = at("big");
  const long long big = at("big");
  const AERROR code = at("int");
  const double real = at("real");
  EXPECT_EQ(text, "12");
  EXPECT_EQ(integer, -3);
  EXPECT_EQ(narrowed, 2);
  EXPECT_EQ(big, 4294967298);
  EXPECT_EQ(code, -3);
  EXPECT_EQ(real, 1.5);
  EXPECT_EQ(static_cast<unsigned long long>(at("int")), ~0ULL - 2);
  for (const char* path : {"int", "real", "true", "null", "/"}) {
    EXPECT_EQ(static_cast<std::string>(at(path)), "") << path;
    EXPECT_EQ(static_cast<std::wstring>(at(path)), L"") << path;
  }
  for (const char* path : {"text", "real", "true", "null", "/"}) {
    EXPECT_EQ(static_cast<long>(at(path)), 0) << path;
  }
  for (const char* path : {"text", "int", "true"}) {
    EXPECT_EQ(static_cast<double>(at(path)), 0.0) << path;
  }
  EXPECT_TRUE(static_cast<bool>(at("true")));
  for (const char* path : {"text", "int", "real", "false", "null", "/"}) {
    EXPECT_FALSE(static_cast<bool>(at(path))) << path;
  }
}

TEST(JsonTest, AnEmptyViewIsHarmless) {
  JsonObject view(nullptr);
  EXPECT_EQ(static_cast<std::string>(view), "");
  EXPECT_EQ(static_cast<std::wstring>(view), L"");
  EXPECT_EQ(static_cast<int>(view), 0);
  EXPECT_EQ(static_cast<double>(view), 0.0);
  EXPECT_FALSE(static_cast<bool>(view));
  EXPECT_FALSE(view.HasObject("/"));
  EXPECT_EQ(Thrown([&] { (void)view.GetObject("/"); }), ACCESS_VIOLATION);
  EXPECT_FALSE(static_cast<std::shared_ptr<json_t>>(view[0]));
  EXPECT_EQ(view.GetArraySize(), 0u);
  EXPECT_EQ(view.Iter(), nullptr);
  EXPECT_EQ(view.IterKey(nullptr), "");
  EXPECT_FALSE(static_cast<std::shared_ptr<json_t>>(view.IterValue(nullptr)));
  EXPECT_FALSE(view.Insert("a", "b"));
  EXPECT_EQ(view.ToText(), "");
  EXPECT_EQ(view.Copy().ToText(), "");
  EXPECT_FALSE(Json().Insert("a", view));
}

TEST(JsonTest, InsertReplacesAndPrintsCompactly) {
  Json document;
  EXPECT_TRUE(document.Insert("a", 4));
  EXPECT_TRUE(document.Insert("a", 5));
  EXPECT_EQ(document.ToText(), R"({"a":5})");
  EXPECT_TRUE(document.Insert("a/b", "/\"\n"));
  EXPECT_TRUE(document.Insert("é", L"é\x1F600"));
  EXPECT_TRUE(document.Insert("real", 0.5));
  EXPECT_TRUE(document.Insert("large", 9223372036854775807LL));
  EXPECT_TRUE(document.Insert("wraps", ~0ULL));
  EXPECT_EQ(document.ToText(),
            R"({"a":5,"a/b":"/\"\n","é":"é😀","real":0.5,"large":9223372036854775807,"wraps":-1})");
  EXPECT_EQ(static_cast<std::wstring>(document.GetObject("é")), L"é\x1F600");
  document.DeleteObject("a");
  document.DeleteObject("absent");
  EXPECT_FALSE(document.HasObject("a"));
}

TEST(JsonTest, WhatJsonCannotHoldIsRefusedAndChangesNothing) {
  Json document(R"({"a":1,"list":[]})");
  EXPECT_FALSE(document.Insert("a", "\xFF"));
  EXPECT_FALSE(document.Insert("a", std::nan("")));
  EXPECT_FALSE(document.Insert("\xFF", 1));
  EXPECT_FALSE(document.Insert("a", document.GetObject("/")));
  EXPECT_FALSE(document.GetObject("a").Insert("b", 1));
  EXPECT_FALSE(document.GetObject("list").Insert("b", 1));
  EXPECT_THROW(document.Insert("a", std::wstring(1, wchar_t{0x110000})), std::range_error);
  EXPECT_EQ(document.ToText(), R"({"a":1,"list":[]})");
}

TEST(JsonTest, ViewsShareUntilCopiedOrRebound) {
  Json document(R"({"inner":{"n":1}})");
  JsonObject view = document.GetObject("inner");
  JsonObject copy = view.Copy();
  const Json same = document;
  view.Insert("n", 2);
  EXPECT_EQ(same.ToText(), R"({"inner":{"n":2}})");
  EXPECT_EQ(copy.ToText(), R"({"n":1})");
  document.Insert("other", view);
  view.Insert("n", 3);
  EXPECT_EQ(document.ToText(), R"({"inner":{"n":3},"other":{"n":3}})");
  view = "text";
  EXPECT_EQ(static_cast<std::string>(view), "text");
  EXPECT_EQ(document.ToText(), R"({"inner":{"n":3},"other":{"n":3}})");
  copy = Json(R"({"outlives":"its document"})").GetObject("outlives");
  EXPECT_EQ(static_cast<std::string>(copy), "its document");
}

TEST(JsonTest, EveryReferenceIsGivenBack) {
  json_t* raw = json_object();
  {
    JsonObject view(raw);
    Json document;
    document.Insert("a", view);
    JsonObject list;
    list.InsertArrayItem(document.GetObject("a"));
    list.InsertArrayItem(document.GetObject("/")[3]);
    EXPECT_FALSE(view.Insert("self", view));
    EXPECT_EQ(raw->refcount, 4u);  // ours, the view's, the document's, the array's
  }
  EXPECT_EQ(raw->refcount, 1u);
  json_decref(raw);
}

TEST(JsonTest, ArraysTakeTextsAtTheEndAndViewsAtTheFront) {
  const Json document(R"({"data":{"was":"object"}})");
  JsonObject list = document.GetObject("data");
  EXPECT_TRUE(list.InsertArrayItem("one"));
  EXPECT_TRUE(list.InsertArrayItem("two"));
  EXPECT_TRUE(list.InsertArrayItem(JsonObject()));
  EXPECT_TRUE(list.InsertArrayItem(list[1]));
  EXPECT_FALSE(list.InsertArrayItem("\xFF"));
  EXPECT_FALSE(list.InsertArrayItem(list));
  EXPECT_EQ(list.ToText(), R"(["one",{},"one","two"])");
  EXPECT_EQ(list.GetArraySize(), 4u);
  EXPECT_EQ(static_cast<std::string>(list[3]), "two");
  EXPECT_FALSE(static_cast<std::shared_ptr<json_t>>(list[4]));
  EXPECT_EQ(document.ToText(), R"({"data":{"was":"object"}})");
  JsonObject itself = document.GetObject("data");
  EXPECT_TRUE(itself.InsertArrayItem(itself));
  EXPECT_EQ(itself.ToText(), R"([{"was":"object"}])");
}

TEST(JsonTest, MembersAreIteratedInOrder) {
  const Json document(R"({"z":1,"a":2,"":3})");
  const JsonObject root = document.GetObject("/");
  std::vector<std::pair<std::string, int>> members;
  for (void* iter = root.Iter(); iter != nullptr; iter = root.IterNext(iter)) {
    members.emplace_back(root.IterKey(iter), root.IterValue(iter));
  }
  EXPECT_EQ(members, (decltype(members){{"z", 1}, {"a", 2}, {"", 3}}));
}

}  // namespace
