#pragma once

// A source of access tokens, supplied by whoever signs requests with it.
struct IAuth {
  // 0: puts the zero-terminated value of `key` into `buffer`; *length holds the buffer's size.
  // Without a value the buffer, which comes filled with zeros, stays as it is; false then.
  virtual bool GetValue(const char* key, char* buffer, int* length) = 0;
  virtual bool Refresh() = 0;  // 1: gets a new token from where it comes from

 protected:
  ~IAuth() = default;
};
