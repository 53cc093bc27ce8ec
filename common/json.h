#pragma once

#include <cstddef>
#include <jansson.h>
#include <memory>
#include <string>

#include "interfaces/aerror.h"

// JSON documents over jansson. Json is a whole document, JsonObject a view of one value in it or
// standing alone. Both hold counted references: copies share the values, and a value lives as long
// as anything refers to it.
//
// Paths: member names separated by "/", from the starting value down. Empty names are skipped, so
// "/data/type", "data/type" and "//data//type" are the same, and "/" is the starting value itself.
// No escaping, no array indices. Keys are single member names, not paths. Neither may be null.
//
// Text is UTF-8. What is not UTF-8 cannot be stored: inserting it returns false.
// Threads: no locks; a document and the views of it belong to one thread at a time.
// Errors:  only what says so throws. Wide text that has no UTF-8 form, or the reverse, raises
//          std::range_error.

// Has jansson use the C library's malloc and free. Parsing does this by itself. Any thread.
void InitJson();

class JsonObject {
 public:
  // A new empty object.
  JsonObject();
  // Shares `raw`, adding a reference; null makes an empty view.
  explicit JsonObject(json_t* raw);
  explicit JsonObject(std::shared_ptr<json_t> shared);
  virtual ~JsonObject() = default;
  JsonObject(const JsonObject&) = default;
  JsonObject& operator=(const JsonObject&) = default;

  // Shows a new string value from now on (none if `text` is not UTF-8). What was shown before, and
  // the document that holds it, stay as they are.
  JsonObject& operator=(const std::string& text);

  // A value of another type, or an empty view, converts to the empty text, 0, 0.0 or false: numbers
  // are not parsed from text, an integer is no double, and only the literal true is true. Integers
  // are narrowed. Implicit, because reading a member into a variable of its type is what views are
  // for.
  operator std::string() const;              // NOLINT(google-explicit-constructor)
  operator std::wstring() const;             // NOLINT(google-explicit-constructor)
  operator unsigned long long() const;       // NOLINT(google-explicit-constructor)
  operator long long() const;                // NOLINT(google-explicit-constructor)
  operator long() const;                     // NOLINT(google-explicit-constructor)
  operator int() const;                      // NOLINT(google-explicit-constructor)
  operator AERROR() const;                   // NOLINT(google-explicit-constructor)
  operator double() const;                   // NOLINT(google-explicit-constructor)
  operator bool() const;                     // NOLINT(google-explicit-constructor)
  operator std::shared_ptr<json_t>() const;  // NOLINT(google-explicit-constructor)

  // Throws the AERROR ACCESS_VIOLATION when there is no value at `path`.
  [[nodiscard]] JsonObject GetObject(const char* path) const;
  [[nodiscard]] bool HasObject(const char* path) const;

  // An element of an array; empty when there is none at `index`.
  JsonObject operator[](unsigned long index) const;
  // view["name"] would otherwise index the literal by the view's integer value. Use GetObject.
  template <std::size_t N>
  JsonObject operator[](const char (&name)[N]) const = delete;
  // 0 for what is not an array.
  [[nodiscard]] unsigned long GetArraySize() const;

  // Sets a member, replacing one of that name; a view's value is shared, not copied. False, and
  // nothing changed, for an empty view, a value that is not an object, and a value that JSON cannot
  // hold (NaN, an infinity, text that is not UTF-8).
  bool Insert(const char* key, const std::string& text);
  bool Insert(const char* key, const std::wstring& text);
  bool Insert(const char* key, unsigned long long number);
  bool Insert(const char* key, long long number);
  bool Insert(const char* key, int number);
  bool Insert(const char* key, double number);
  bool Insert(const char* key, const JsonObject& object);

  // Adds to an array: a text at its end, a view's value (shared) at its front. A view of anything
  // else shows a new array first; what it showed before stays as it is. False when nothing was
  // added.
  bool InsertArrayItem(const std::string& text);
  bool InsertArrayItem(const JsonObject& object);

  // The members of an object, one by one: Iter gives the first, IterNext the one after, null at the
  // end (and at once for what is not an object).
  [[nodiscard]] void* Iter() const;
  [[nodiscard]] void* IterNext(void* iter) const;
  [[nodiscard]] std::string IterKey(void* iter) const;
  [[nodiscard]] JsonObject IterValue(void* iter) const;

  // A view of a deep copy.
  [[nodiscard]] JsonObject Copy() const;

  // Compact form; the empty text for an empty view and for what is neither object nor array.
  [[nodiscard]] std::string ToText() const;

 private:
  void BecomeArray();

  std::shared_ptr<json_t> value;
};

class Json {
 public:
  // A document whose root is a new empty object.
  Json();
  // Parse one object or array with nothing but white space around it; throw the AERROR
  // JSON_PARSE_FAILED for anything else. A null `text` alone makes an empty object.
  explicit Json(const char* text);
  Json(const char* text, unsigned int length_bytes);
  // Parses with jansson's decoding flags. A failure leaves the document without a root.
  Json(const char* text, unsigned int length_bytes, unsigned long flags);
  virtual ~Json() = default;
  Json(const Json&) = default;
  Json& operator=(const Json&) = default;

  // The document has a root.
  explicit operator bool() const;

  // As the operations of JsonObject, on the root.
  [[nodiscard]] JsonObject GetObject(const char* path) const;
  [[nodiscard]] bool HasObject(const char* path) const;
  bool Insert(const char* key, const std::string& text);
  bool Insert(const char* key, const std::wstring& text);
  bool Insert(const char* key, unsigned long long number);
  bool Insert(const char* key, long long number);
  bool Insert(const char* key, int number);
  bool Insert(const char* key, double number);
  bool Insert(const char* key, const JsonObject& object);
  [[nodiscard]] std::string ToText() const;

  // Removes a member of the root, if there is one.
  void DeleteObject(const char* key);

  // Where and why parsing failed.
  [[nodiscard]] const json_error_t& ParseError() const { return error; }

 private:
  json_error_t error{};
  std::shared_ptr<json_t> root;
};
