#include "library_memory.h"

#include <link.h>
#include <malloc.h>
#include <string.h>

#include <cstdint>

namespace {

std::uintptr_t first = 0;
std::uintptr_t last = 0;
std::size_t allocated = 0;
std::size_t firstRefused = 0;
std::size_t lastRefused = 0;
std::size_t leaked = 0;

int findLibrary(dl_phdr_info* object, std::size_t, void*) {
  if (strstr(object->dlpi_name, "libsmartcard") == nullptr) return 0;
  first = object->dlpi_addr;
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const auto& segment = object->dlpi_phdr[i];
    if (segment.p_type == PT_LOAD) last = first + segment.p_vaddr + segment.p_memsz;
  }
  return 1;
}

bool isLibrary(const void* caller) {
  const auto address = reinterpret_cast<std::uintptr_t>(caller);
  return address >= first && address < last;
}

bool refuses(const void* caller) {
  return isLibrary(caller) && ++allocated >= firstRefused && allocated <= lastRefused;
}

}  // namespace

void library_memory::watch(std::size_t nth, std::size_t inAll) {
  if (last == 0) dl_iterate_phdr(findLibrary, nullptr);
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
