// The library's own memory: each allocation that it makes is refused once, and what it frees is searched for
// secrets. An executable's own malloc, calloc and free come before libc's, for every library of the process.
// Not under a sanitizer, which brings an allocator of its own.

#include <dlfcn.h>
#include <malloc.h>
#include <string.h>

#include "ground.h"

namespace {

constexpr char kSecret[] = "SECRET";  // every secret of the entry point table holds it

bool watching = false;
std::size_t allocations = 0;
std::size_t firstRefused = 0;
std::size_t lastRefused = 0;
std::size_t freedSecrets = 0;
std::pair<std::size_t, std::size_t> lastSizes;  // of the last two zeroed blocks that were asked for

bool isLibrary(const void* caller) {
  Dl_info object;
  return watching && dladdr(caller, &object) != 0 && strstr(object.dli_fname, "libsmartcard.so") != nullptr;
}

bool refuses(const void* caller) {
  return isLibrary(caller) && ++allocations >= firstRefused && allocations <= lastRefused;
}

}  // namespace

extern "C" {

void* __libc_calloc(std::size_t count, std::size_t size);
void __libc_free(void* memory);

void* malloc(std::size_t size) noexcept {
  // Zeroed, so that no secret is found that others have left there.
  return refuses(__builtin_return_address(0)) ? nullptr : __libc_calloc(1, size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  if (isLibrary(__builtin_return_address(0))) lastSizes = {lastSizes.second, count * size};
  // No address for no elements, as the standard allows.
  return count == 0 || refuses(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

void free(void* memory) noexcept {
  if (memory != nullptr && isLibrary(__builtin_return_address(0)) &&
      memmem(memory, malloc_usable_size(memory), kSecret, sizeof kSecret - 1) != nullptr)
    ++freedSecrets;
  __libc_free(memory);
}
}

namespace {

class Memory : public Ground {
 protected:
  /// Calls the entry point while the library is watched; its nth allocation is refused, the first being 1,
  /// and as many in all, or one of the virtual machine's.
  std::string watch(const EntryPoint& entry, std::size_t nth = 0, std::size_t inAll = 1,
                    std::size_t ofJava = 0) {
    allocations = freedSecrets = 0;
    firstRefused = nth;
    lastRefused = nth == 0 ? 0 : nth + inAll - 1;
    watching = true;
    std::string answer = call(entry, ofJava);
    watching = false;
    EXPECT_EQ(freedSecrets, 0U);
    return answer;
  }
};

// Neither success, nor a failure of the module, nor no memory in the middle of it leaves a secret behind.
TEST_F(Memory, EveryAllocationIsRefusedAndNoSecretIsFreed) {
  int secretsPassed = 0;
  for (const auto& entry : entryPoints()) {
    SCOPED_TRACE(entry.name);
    begin(entry.state, true);
    const std::string success = watch(entry);
    const std::size_t ofLibrary = allocations;
    const std::size_t ofJava = java.allocations();
    const auto calls = moduleCalls();
    if (called("534543524554")) ++secretsPassed;

    for (std::size_t nth = 1; nth <= ofLibrary; ++nth) {
      SCOPED_TRACE("allocation " + std::to_string(nth));
      begin(entry.state, true);
      const bool triedTwice = entry.name == "signWithID" && nth == ofLibrary;
      EXPECT_EQ(triedTwice ? success : entry.inForm(CKR_HOST_MEMORY), watch(entry, nth));
    }
    for (std::size_t nth = 1; nth <= ofJava; ++nth) {
      begin(entry.state, true);
      watch(entry, 0, 0, nth);
    }
    for (const auto& [function, nth] : calls) {
      SCOPED_TRACE(function + ' ' + std::to_string(nth));
      begin(entry.state, true);
      module.failAt(function, nth, CKR_DEVICE_ERROR);
      watch(entry);
    }
  }
  EXPECT_EQ(secretsPassed, 4) << "the entry points that are given a secret";
}

TEST_F(Memory, ASignatureBufferIsTriedTwiceOnly) {
  begin(State::kUser, true);
  EXPECT_EQ("{02}", watch(entryPoint("signWithID"), 3, 2)) << "after the copies of the ID and the data";
  EXPECT_EQ(1, std::ranges::count(record, "\"new for result returns null\\n\""));
  EXPECT_EQ(std::pair(1025UL, 1025UL), lastSizes);
}

}  // namespace
