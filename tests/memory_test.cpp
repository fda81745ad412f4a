// The library's own memory: each allocation that it makes is refused once, and what it frees, in any test, is
// searched for secrets. An executable's own malloc, calloc and free come before libc's, for every library of
// the process. Not under a sanitizer, which brings an allocator of its own.

#include <dlfcn.h>
#include <malloc.h>
#include <string.h>

#include <algorithm>

#include "fixture.h"

namespace {

// What each secret of the entry point table ends with, and no other data of the tests nor an address holds:
// it is found even if all but the last byte is wiped.
constexpr char kSecret[] = {0, 0, 0, '\xfe'};

bool watching = false;
std::size_t allocations = 0;
std::size_t firstRefused = 0;
std::size_t lastRefused = 0;
std::size_t freedSecrets = 0;
std::pair<std::size_t, std::size_t> lastSizes;  // of the last two zeroed blocks that were asked for

bool isLibrary(const void* caller) {
  Dl_info object;
  return dladdr(caller, &object) != 0 && strstr(object.dli_fname, "libsmartcard.so") != nullptr;
}

bool refuses(const void* caller) {
  return watching && isLibrary(caller) && ++allocations >= firstRefused && allocations <= lastRefused;
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
  if (watching && isLibrary(__builtin_return_address(0))) lastSizes = {lastSizes.second, count * size};
  // No address for no elements, as the standard allows.
  return count == 0 || refuses(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

void free(void* memory) noexcept {
  const std::size_t size = std::min(malloc_usable_size(memory), std::size_t{1} << 12);
  if (memory != nullptr && memmem(memory, size, kSecret, sizeof kSecret) != nullptr &&
      isLibrary(__builtin_return_address(0)))
    ++freedSecrets;
  __libc_free(memory);
}
}

namespace {

/// Whatever a test has done: neither success, nor a failure, nor no memory in the middle leaves a secret
/// behind.
class NoSecretIsFreed : public testing::Environment {
  void TearDown() override { EXPECT_EQ(freedSecrets, 0U); }
};
[[maybe_unused]] const auto* const noSecretIsFreed = testing::AddGlobalTestEnvironment(new NoSecretIsFreed);

class Memory : public Fixture {
 protected:
  /// Calls the entry point while the library is watched; its nth allocation is refused, the first being 1,
  /// and as many in all.
  std::string watch(const EntryPoint& entry, std::size_t nth = 0, std::size_t inAll = 1) {
    allocations = 0;
    firstRefused = nth;
    lastRefused = nth == 0 ? 0 : nth + inAll - 1;
    watching = true;
    std::string answer = call(entry);
    watching = false;
    return answer;
  }
};

TEST_F(Memory, EveryAllocationIsRefused) {
  int secretsPassed = 0;
  for (const auto& entry : entryPoints()) {
    SCOPED_TRACE(entry.name);
    begin(entry.state, true);
    const std::string success = watch(entry);
    const std::size_t ofLibrary = allocations;
    if (called("000000fe")) ++secretsPassed;
    for (std::size_t nth = 1; nth <= ofLibrary; ++nth) {
      SCOPED_TRACE("allocation " + std::to_string(nth));
      begin(entry.state, true);
      const bool triedTwice = entry.name == "signWithID" && nth == ofLibrary;
      EXPECT_EQ(triedTwice ? success : entry.inForm(CKR_HOST_MEMORY), watch(entry, nth));
      EXPECT_TRUE(entry.state != State::kUnbound || module.initializations == 0) << "a bind half undone";
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
