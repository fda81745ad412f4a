// Makes each allocation of the library fail once. In all native tests, searches each buffer of the library
// for secrets when it is freed. This file defines malloc, calloc and free, which replace libc's in the whole
// process. The sanitizers have their own allocator, so these tests run without them.

#include <dlfcn.h>
#include <malloc.h>
#include <string.h>

#include <algorithm>
#include <array>

#include "fixture.h"

namespace {

// Each secret of the entry point table ends with these bytes, which no other test data contains. A
// wiped byte is 0, so a secret is found even if only its last byte is left.
constexpr char kSecret[] = {0, 0, 0, '\xfe'};

bool watching = false;
std::size_t allocations = 0;
std::size_t firstRefused = 0;
std::size_t lastRefused = 0;
std::size_t freedSecrets = 0;
std::pair<std::size_t, std::size_t> lastSizes;  // of the last two blocks requested with calloc

// The blocks that the library got from calloc: its buffers. Blocks from malloc are not searched: they are C++
// exceptions, which may contain an address that looks like a secret.
std::array<void*, 64> blocks{};

bool isLibrary(const void* caller) {
  Dl_info object;
  return dladdr(caller, &object) != 0 && strstr(object.dli_fname, "libsmartcard.so") != nullptr;
}

bool isRefused(const void* caller) {
  return watching && isLibrary(caller) && ++allocations >= firstRefused && allocations <= lastRefused;
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void __libc_free(void* memory);

void* malloc(std::size_t size) noexcept {
  return isRefused(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  const bool byLibrary = isLibrary(__builtin_return_address(0));
  if (watching && byLibrary) lastSizes = {lastSizes.second, count * size};
  // Returns null for no elements, as the C standard allows.
  if (count == 0 || isRefused(__builtin_return_address(0))) return nullptr;
  void* const block = __libc_calloc(count, size);
  if (byLibrary) {
    auto* const entry = std::ranges::find(blocks, nullptr);
    if (entry == blocks.end()) std::abort();
    *entry = block;
  }
  return block;
}

void free(void* memory) noexcept {
  auto* const block = memory == nullptr ? blocks.end() : std::ranges::find(blocks, memory);
  if (block != blocks.end()) {
    *block = nullptr;
    const std::size_t size = std::min(malloc_usable_size(memory), std::size_t{1} << 12);
    if (memmem(memory, size, kSecret, sizeof kSecret) != nullptr) ++freedSecrets;
  }
  __libc_free(memory);
}
}

namespace {

/// Checks after all tests that the library wiped every secret, even after failures and refused allocations.
class NoSecretIsFreed : public testing::Environment {
  void TearDown() override { EXPECT_EQ(freedSecrets, 0U); }
};
[[maybe_unused]] const auto* const noSecretIsFreed = testing::AddGlobalTestEnvironment(new NoSecretIsFreed);

class Memory : public Fixture {
 protected:
  /// Calls the entry point while the library is watched, and refuses `count` allocations from the nth,
  /// counted from 1; none if nth is 0.
  std::string watch(const EntryPoint& entry, std::size_t nth = 0, std::size_t count = 1) {
    allocations = 0;
    firstRefused = nth;
    lastRefused = nth == 0 ? 0 : nth + count - 1;
    watching = true;
    std::string result = call(entry);
    watching = false;
    return result;
  }
};

TEST_F(Memory, FailingAllocationsAreReported) {
  int secretsPassed = 0;
  for (const auto& entry : entryPoints()) {
    SCOPED_TRACE(entry.name);
    begin(entry.state, true);
    const std::string success = watch(entry);
    const std::size_t total = allocations;
    if (called("000000fe")) ++secretsPassed;
    for (std::size_t nth = 1; nth <= total; ++nth) {
      SCOPED_TRACE("allocation " + std::to_string(nth));
      begin(entry.state, true);
      const bool isRetried = entry.name == "signWithID" && nth == total;
      EXPECT_EQ(isRetried ? success : entry.formatCode(CKR_HOST_MEMORY), watch(entry, nth));
      EXPECT_TRUE(entry.state != State::kUnbound || module.initializations == 0)
          << "C_Initialize was not undone";
    }
  }
  EXPECT_EQ(secretsPassed, 4) << "entry points that pass a secret to the module";
}

TEST_F(Memory, SignWithIdAllocatesItsBufferAtMostTwice) {
  begin(State::kUser, true);
  // The first two allocations are the copies of the ID and the data.
  EXPECT_EQ("{02}", watch(entryPoint("signWithID"), 3, 2)) << "both buffers were refused";
  EXPECT_EQ(1, std::ranges::count(record, "\"new for result returns null\\n\""));
  EXPECT_EQ(std::pair(1025UL, 1025UL), lastSizes);
}

}  // namespace
