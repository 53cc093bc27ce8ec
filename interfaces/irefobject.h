#pragma once

// An object whose end is asked for, never deleted directly, because it may come from a library
// built by another compiler. Positions of operations are part of the contract: each interface here
// is a table that starts at 0 and only ever grows at its end.
struct IRefObject {
  virtual void Release() = 0;  // 0: ends the object's life

 protected:
  ~IRefObject() = default;
};
