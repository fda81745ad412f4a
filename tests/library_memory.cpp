#include "library_memory.h"

#include <dlfcn.h>
#include <malloc.h>
#include <string.h>

namespace {

std::size_t allocated = 0;
std::size_t firstRefused = 0;
std::size_t lastRefused = 0;
std::size_t leaked = 0;
bool watching = false;

bool isLibrary(const void* caller) {
  Dl_info object;
  return watching && dladdr(caller, &object) != 0 && strstr(object.dli_fname, "libsmartcard.so") != nullptr;
}

bool refuses(const void* caller) {
  return isLibrary(caller) && ++allocated >= firstRefused && allocated <= lastRefused;
}

}  // namespace

void library_memory::watch(std::size_t nth, std::size_t inAll) {
  watching = true;
  allocated = leaked = 0;
  firstRefused = nth;
  lastRefused = nth == 0 ? 0 : nth + inAll - 1;
}

std::size_t library_memory::allocations() { return allocated; }
std::size_t library_memory::freedSecrets() { return leaked; }

// An executable's own malloc, calloc and free come before libc's, for every library of the process.

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void __libc_free(void* memory);

void* malloc(std::size_t size) noexcept {
  return refuses(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  return refuses(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

void free(void* memory) noexcept {
  if (memory != nullptr && isLibrary(__builtin_return_address(0)) &&
      memmem(memory, malloc_usable_size(memory), library_memory::kSecret,
             sizeof library_memory::kSecret - 1) != nullptr) {
    ++leaked;
  }
  __libc_free(memory);
}
}
