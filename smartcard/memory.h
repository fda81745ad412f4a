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

/// An array of `count` zeroed elements, or null if there is no memory. An empty array has an address too,
/// because a null buffer asks a module for the length only. A false count from a module does little harm,
/// because calloc commits no memory for pages that are never written.
template <class T>
Buffer<T> tryZeroed(std::size_t count) {
  return Buffer<T>(static_cast<T*>(std::calloc(count == 0 ? 1 : count, sizeof(T))));
}

/// The same, but throws std::bad_alloc instead of returning null.
template <class T>
Buffer<T> zeroed(std::size_t count) {
  Buffer<T> buffer = tryZeroed<T>(count);
  if (buffer == nullptr) throw std::bad_alloc();
  return buffer;
}

/// Overwrites memory that held a secret. The compiler cannot optimise explicit_bzero away.
inline void wipe(void* memory, std::size_t size) { explicit_bzero(memory, size); }
