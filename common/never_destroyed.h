#pragma once

#include <cstddef>
#include <memory>
#include <utility>

namespace tarn {

// Holds a process-wide object that is made at start and never destroyed, because threads that
// nobody waits for may still use it while the process exits.
template <typename T>
class NeverDestroyed {
 public:
  template <typename... Arguments>
  explicit NeverDestroyed(Arguments&&... arguments)
      : object(std::construct_at(reinterpret_cast<T*>(storage),
                                 std::forward<Arguments>(arguments)...)) {}
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  [[nodiscard]] T& get() { return *object; }

 private:
  alignas(T) std::byte storage[sizeof(T)];
  T* object;
};

}  // namespace tarn
