#include "ground.h"
#include "library_memory.h"

namespace {

class Memory : public Ground {
 protected:
  /// Calls the entry point on a new token, with the nth allocation refused: by the virtual machine or to the
  /// library.
  std::string callRefused(const EntryPoint& entry, std::size_t byJava, std::size_t toLibrary,
                          std::size_t inAll = 1) {
    library_memory::watch(toLibrary, inAll);
    std::string answer = call(entry, byJava);
    secretsFreed = library_memory::freedSecrets();
    library_memory::watch();
    return answer;
  }

  std::size_t secretsFreed = 0;
};

// Neither success, nor a failure of the module, nor no memory in the middle of it leaves a secret behind.
TEST_F(Memory, EveryAllocationIsRefusedAndNoSecretIsFreed) {
  int secretsPassed = 0;
  for (const auto& entry : entryPoints()) {
    begin(entry.state, true);
    library_memory::watch();
    const std::string success = call(entry);
    EXPECT_EQ(library_memory::freedSecrets(), 0U) << entry.name;
    const std::size_t allocations = library_memory::allocations();
    const std::size_t ofJava = java.allocations();
    const auto log = module.log;
    if (moduleCalls().find("534543524554") != std::string::npos) ++secretsPassed;

    for (std::size_t nth = 1; nth <= allocations; ++nth) {
      SCOPED_TRACE(entry.name + ", allocation " + std::to_string(nth));
      begin(entry.state, true);
      const std::string answer = callRefused(entry, 0, nth);
      const bool triedTwice = entry.name == "signWithID" && nth == allocations;
      EXPECT_EQ(triedTwice ? success : entry.inForm(CKR_HOST_MEMORY), answer);
      EXPECT_EQ(secretsFreed, 0U);
      EXPECT_EQ(java.pendingException(), "");
    }
    for (std::size_t nth = 1; nth <= ofJava; ++nth) {
      begin(entry.state, true);
      callRefused(entry, nth, 0);
      EXPECT_EQ(secretsFreed, 0U) << entry.name << ", refused by the virtual machine: " << nth;
    }
    for (const auto& line : log) {
      begin(entry.state, true);
      module.failAt(line.substr(0, line.find('(')), 1, CKR_DEVICE_ERROR);
      callRefused(entry, 0, 0);
      EXPECT_EQ(secretsFreed, 0U) << entry.name << ", failed: " << line;
    }
  }
  EXPECT_EQ(secretsPassed, 4) << "the entry points that are given a secret";
}

TEST_F(Memory, ASignatureBufferIsTriedTwiceOnly) {
  begin(State::kUser, true);
  EXPECT_EQ("{02}", callRefused(entryPoint("signWithID"), 0, 3, 2))
      << "after the copies of the ID and the data";
  EXPECT_TRUE(traces().ends_with("once result = 0x0\\nnew for result returns null\\nsonra result = 0x0\\n"))
      << traces();
}

}  // namespace
