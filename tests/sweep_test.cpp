// Rules that hold for every entry point, whatever fails. The cases come from the table of entry points.
// A failure must change the result, unless the table lists it as swallowed: then the result must not change.

#include <algorithm>
#include <regex>

#include "fixture.h"

namespace {

/// Whether the result contains the code of the failed module call. The other entry points return their own
/// numbers or an array on failure.
bool reportsCode(const EntryPoint& entry) {
  static const std::regex withOwnResults(
      "get(Slot|Token|Mechanism)Info|getSlotCount|getObjectCountInTheToken|isCardEmpty|sign|decrypt|"
      "read(Attribute)?Certificate|read(Certificate|PublicKey|PrivateKey)(ID|Label)");
  return entry.form != "[]" && !std::regex_match(entry.name, withOwnResults);
}

bool isGuarded(const EntryPoint& entry) {
  const bool takesSlot =
      std::ranges::any_of(entry.arguments, [](const auto& argument) { return argument.isSlot; });
  return takesSlot && (entry.form == "%" || entry.name == "readSlotDescription");
}

/// Whether a result is this code, or a listing with this status.
bool hasCode(const EntryPoint& entry, const std::string& result, CK_RV code) {
  const std::string codeOnly = entry.formatCode(code);
  return result == codeOnly || (entry.form == "{{%}}" && result.starts_with(codeOnly.substr(0, 5)));
}

class Sweep : public Fixture {
 protected:
  std::string succeed(const EntryPoint& entry) {
    begin(entry.state, true);
    return call(entry);
  }

  /// Expects the library to work after the call. `rv` is the module's last code, and a refused call does not
  /// change it. The session still works, unless the call has ended it. After a rebind, a new session works.
  void expectUsable(const EntryPoint& entry) {
    const CK_RV last = module.lastCode;
    EXPECT_EQ("-1", call("logout", {99}));
    expectRv(last);
    const bool endsSession = entry.name == "closeSession" || entry.name == "finalize";
    EXPECT_EQ(entry.state < State::kOpen || endsSession, call("isCardEmpty", {0}) == "-1");
    begin(State::kOpen);
    EXPECT_EQ("0", call("isCardEmpty", {0}));
  }

  /// readSlotDescription returns `rv` as its status if the slot index is out of range.
  void expectRv(CK_RV code) {
    EXPECT_EQ(entryPoint("readSlotDescription").formatCode(code), call("readSlotDescription", {99}));
  }

  /// Expects that the module was not called. The result must be -1 if the entry point has a guard and returns
  /// a number, or this code if the entry point has no guard and reports codes.
  void expectRefusal(const EntryPoint& entry, const std::string& result, CK_RV code) {
    EXPECT_FALSE(called("C_"));
    EXPECT_TRUE(isGuarded(entry) ? entry.form != "%" || result == "-1"
                                 : !reportsCode(entry) || hasCode(entry, result, code))
        << result;
  }

  bool usesSession() const { return called("(session"); }
};

TEST_F(Sweep, FailingModuleCallsAreReported) {
  for (const auto& entry : entryPoints()) {
    const std::string success = succeed(entry);
    EXPECT_NE(success, entry.formatCode(CKR_GENERAL_ERROR)) << entry.name;
    for (const auto& [function, nth] : moduleCalls()) {
      const bool isSwallowed = entry.swallowed.contains(function) ||
                               entry.swallowed.contains(function + '#' + std::to_string(nth));
      for (const CK_RV code :
           {0x02UL, 0x30UL, 0x54UL, 0xb3UL, 0xe0UL, 0x101UL, 0x150UL, 0x191UL, 0x200UL, 0x1'8000'0001UL}) {
        SCOPED_TRACE(entry.name + ", " + function + ' ' + std::to_string(nth) + ", " + std::to_string(code));
        begin(entry.state, true);
        module.failAt(function, nth, code);
        const std::string result = call(entry);
        // A complete listing with a status byte of 0 looks like success.
        EXPECT_TRUE(isSwallowed == (result == success) || (entry.form == "{{%}}" && (code & 0xffU) == 0));
        // If C_FindObjectsInit fails, the result may be the code of a later call.
        EXPECT_TRUE(
            isSwallowed || !reportsCode(entry) ||
            std::ranges::any_of(module.codes, [&](CK_RV each) { return hasCode(entry, result, each); }))
            << result;
        expectUsable(entry);
      }
    }
  }
}

TEST_F(Sweep, FailingJniAllocationsAreReported) {
  for (const auto& entry : entryPoints()) {
    succeed(entry);
    const std::size_t allocations = java.allocations();
    for (std::size_t nth = 1; nth <= allocations; ++nth) {
      SCOPED_TRACE(entry.name + ", allocation " + std::to_string(nth));
      begin(entry.state, true);
      EXPECT_EQ(call(entry, nth), entry.form == "%" ? "2" : "null");
      expectUsable(entry);
    }
  }
}

TEST_F(Sweep, NullsAreRefused) {
  for (const auto& entry : entryPoints()) {
    std::vector<Arguments> cases;
    Arguments all = entry.arguments;
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (!all[i].isReference) continue;
      cases.push_back(entry.arguments);
      cases.back()[i].content = all[i].content = std::nullopt;
    }
    if (cases.empty() || entry.mayTakeNull) continue;
    cases.push_back(all);
    for (const auto& arguments : cases) {
      begin(entry.state, true);
      EXPECT_EQ(entry.formatCode(CKR_ARGUMENTS_BAD), call(entry.name, arguments)) << entry.name;
      EXPECT_FALSE(called("C_"));
    }
    if (entry.form != "%" || !all[0].isSlot) continue;
    all[0].number = 2;
    EXPECT_EQ("-1", call(entry.name, all))
        << entry.name << ": the slot index must be tested before the references";
  }
}

TEST_F(Sweep, SlotIndexesOutOfRangeAreRefused) {
  for (const auto& entry : entryPoints()) {
    Arguments arguments = entry.arguments;
    const auto slot =
        std::find_if(arguments.begin(), arguments.end(), [](const auto& a) { return a.isSlot; });
    if (slot == arguments.end()) continue;
    const std::string success = succeed(entry);
    const unsigned unknown = usesSession() ? CKR_SESSION_HANDLE_INVALID : CKR_SLOT_ID_INVALID;
    for (const jlong index : {-1L, 2L, 1L << 31, 1L << 32, INT64_MAX, INT64_MIN}) {
      SCOPED_TRACE(entry.name + ", slot " + std::to_string(index));
      begin(entry.state, true);
      slot->number = index;
      const std::string result = call(entry.name, arguments);
      expectRefusal(entry, result, unknown);
      EXPECT_NE(success, result);
      expectRv(isGuarded(entry) ? CKR_OK : unknown);
    }
  }
}

TEST_F(Sweep, CallsDependOnTheState) {
  for (const auto& entry : entryPoints()) {
    if (entry.state == State::kUnbound) continue;
    SCOPED_TRACE(entry.name);
    const std::string success = succeed(entry);
    const bool callsModule = !module.log.empty();
    const bool needsSession = usesSession();
    begin(entry.state, true);
    call("finalize", {});
    const std::string result = call(entry);
    expectRefusal(entry, result, CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_FALSE(callsModule && success == result) << "unbound";
    begin(entry.state, true);
    call("init", {kModule});
    EXPECT_EQ(success, call(entry)) << "after a second bind";
    if (!needsSession) continue;
    begin(State::kBound, true);
    const std::string unopened = call(entry);
    EXPECT_TRUE(entry.form == "%" ? unopened == "-1" && !called("C_") : called("(session 0x0")) << unopened;
    if (entry.name == "closeSession") continue;
    begin(entry.state, true);
    call("closeSession", {0});
    EXPECT_NE(success, call(entry)) << "in a stale session";
  }
}

TEST_F(Sweep, OverwrittenConstantsAreSetAgain) {
  std::map<std::string, std::vector<std::string>> records;
  for (const auto& entry : entryPoints()) {
    succeed(entry);
    records[entry.name] = record;
  }
  for (const auto& entry : entryPoints()) {
    begin(entry.state, true);
    module.overwritesConstants = true;
    call(entry);
    EXPECT_EQ(records[entry.name], record) << entry.name;
  }
}

}  // namespace
