#include "ground.h"
#include "library_memory.h"

namespace {

using Memory = Ground;

TEST_F(Memory, EveryAllocationOfTheLibraryIsRefused) {
  for (const auto& entry : entryPoints()) {
    prepare(entry);
    library_memory::watch();
    const std::string success = run(entry);
    const std::size_t allocations = library_memory::allocations();
    for (std::size_t nth = 1; nth <= allocations; ++nth) {
      SCOPED_TRACE(entry.name + ", allocation " + std::to_string(nth));
      prepare(entry);
      library_memory::watch(nth);
      const std::string answer = run(entry);
      library_memory::watch();
      // One allocation is tried twice.
      if (entry.name != "signWithID" || answer != success) {
        EXPECT_EQ(entry.inForm(CKR_HOST_MEMORY), answer);
      }
      EXPECT_EQ(java.pendingException(), "");
    }
  }
}

TEST_F(Memory, ASignatureBufferIsTriedTwice) {
  bindAndLogin();
  module.addObject(0, mock::privateKey("id", "label"));
  library_memory::watch(3, 2);  // after the copies of the ID and the data
  const std::string answer = shown(call(ENTRY(signWithID), 0, bytes("data"), bytes("id")));
  library_memory::watch();
  EXPECT_EQ("{02}", answer);
  EXPECT_TRUE(traces.ends_with("once result = 0x0\nnew for result returns null\nsonra result = 0x0\n"))
      << traces;
}

// Whatever ends a call: success, a failure of the module, or no memory in the middle of it.
TEST_F(Memory, NoSecretIsFreed) {
  std::size_t secretsPassed = 0;
  for (const auto& entry : entryPoints()) {
    SCOPED_TRACE(entry.name);
    const auto freedSecrets = [&](std::size_t refusedByJava, std::size_t refusedToLibrary) {
      library_memory::watch(refusedToLibrary);
      run(entry, entry.arguments, refusedByJava);
      const std::size_t freed = library_memory::freedSecrets();
      library_memory::watch();
      return freed;
    };
    prepare(entry);
    EXPECT_EQ(freedSecrets(0, 0), 0U);
    if (calls().find("534543524554") != std::string::npos) ++secretsPassed;
    const auto log = module.log;
    const std::size_t allocations = java.allocations();
    for (std::size_t nth = 1; nth <= allocations; ++nth) {
      prepare(entry);
      EXPECT_EQ(freedSecrets(nth, 0), 0U) << "refused by the virtual machine: " << nth;
      prepare(entry);
      EXPECT_EQ(freedSecrets(0, nth), 0U) << "refused to the library: " << nth;
    }
    for (const auto& line : log) {
      prepare(entry);
      module.failAt(line.substr(0, line.find('(')), 1, CKR_DEVICE_ERROR);
      EXPECT_EQ(freedSecrets(0, 0), 0U) << "failed: " << line;
    }
  }
  EXPECT_EQ(secretsPassed, 4U) << "the entry points that are given a secret";
}

}  // namespace
