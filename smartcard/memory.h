#pragma once

#include <string.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>

struct Free {
  void operator()(void* memory) const { std::free(memory); }
};

/// An array from zeroed() or tryZeroed().
template <class T>
using Buffer = std::unique_ptr<T[], Free>;

/// An array of `count` zeroed elements, or null if there is no memory for it. Room for no elements is a real
/// address as well: a null pointer means "only tell me the length" to a module. The memory comes from calloc
/// because counts may come from a module that lies: pages nobody writes to cost nothing.
template <class T>
Buffer<T> tryZeroed(std::size_t count) {
  return Buffer<T>(static_cast<T*>(std::calloc(count == 0 ? 1 : count, sizeof(T))));
}

/// The same, throwing std::bad_alloc instead of answering null.
template <class T>
Buffer<T> zeroed(std::size_t count) {
  Buffer<T> buffer = tryZeroed<T>(count);
  if (buffer == nullptr) throw std::bad_alloc();
  return buffer;
}

/// Overwrites memory that held a secret, in a way that the compiler may not leave out.
inline void wipe(void* memory, std::size_t size) { explicit_bzero(memory, size); }
