// What holds for every entry point, whatever fails: derived from the table of entry points, not written by
// hand. After each call the fixture checks that inputs are released, searches ended, and no handle was made
// up.

#include <algorithm>
#include <regex>

#include "fixture.h"

namespace {

/// Whether the answer tells the code of what failed; the others have codes of their own.
bool tellsCode(const EntryPoint& entry) {
  static const std::regex others(
      "get(Slot|Token|Mechanism)Info|getSlotCount|getObjectCountInTheToken|isCardEmpty|sign|decrypt|"
      "read(Attribute)?Certificate|read(Certificate|PublicKey|PrivateKey)(ID|Label)");
  return entry.form != "[]" && !std::regex_match(entry.name, others);
}

bool isGuarded(const EntryPoint& entry) {
  const bool takesSlot =
      std::ranges::any_of(entry.arguments, [](const auto& argument) { return argument.isSlot; });
  return takesSlot && (entry.form == "%" || entry.name == "readSlotDescription");
}

/// Whether an answer is this code, or a listing with it as its status.
bool tells(const EntryPoint& entry, const std::string& answer, CK_RV code) {
  const std::string alone = entry.inForm(code);
  return answer == alone || (entry.form == "{{%}}" && answer.starts_with(alone.substr(0, 5)));
}

class Sweep : public Fixture {
 protected:
  std::string succeed(const EntryPoint& entry) {
    begin(entry.state, true);
    return call(entry);
  }

  /// The library as sound as before: `rv` is the module's last code, which a guard leaves alone; the session,
  /// if the call was not to end it, can search; and so it can after another bind.
  void expectSound(const EntryPoint& entry) {
    const CK_RV last = module.lastCode;
    EXPECT_EQ("-1", call("logout", {99}));
    expectResult(last);
    const bool isOver = entry.name == "closeSession" || entry.name == "finalize";
    EXPECT_EQ(entry.state < State::kOpen || isOver, call("isCardEmpty", {0}) == "-1");
    begin(State::kOpen);
    EXPECT_EQ("0", call("isCardEmpty", {0}));
  }

  /// What `rv` holds.
  void expectResult(CK_RV code) {
    EXPECT_EQ(entryPoint("readSlotDescription").inForm(code), call("readSlotDescription", {99}));
  }

  /// The library has answered alone: -1 where a guard has a number for it, else this code, if it tells one.
  void expectRefusal(const EntryPoint& entry, const std::string& answer, CK_RV code) {
    EXPECT_FALSE(called("C_"));
    EXPECT_TRUE(isGuarded(entry) ? entry.form != "%" || answer == "-1"
                                 : !tellsCode(entry) || tells(entry, answer, code))
        << answer;
  }

  bool worksInSession() const { return called("(session"); }
};

TEST_F(Sweep, EveryCallOfTheModuleFails) {
  for (const auto& entry : entryPoints()) {
    const std::string success = succeed(entry);
    EXPECT_NE(success, entry.inForm(CKR_GENERAL_ERROR)) << entry.name;
    for (const auto& [function, nth] : moduleCalls()) {
      const bool isKept = entry.swallowed.contains(function) ||
                          entry.swallowed.contains(function + '#' + std::to_string(nth));
      for (const CK_RV code :
           {0x02UL, 0x30UL, 0x54UL, 0xb3UL, 0xe0UL, 0x101UL, 0x150UL, 0x191UL, 0x200UL, 0x1'8000'0001UL}) {
        SCOPED_TRACE(entry.name + ", " + function + ' ' + std::to_string(nth) + ", " + std::to_string(code));
        begin(entry.state, true);
        module.failAt(function, nth, code);
        const std::string answer = call(entry);
        // In a listing that is as long as it should be, a status byte of 0 is success.
        EXPECT_TRUE(isKept == (answer == success) || (entry.form == "{{%}}" && (code & 0xffU) == 0));
        // Of a failed start the calls that follow it may tell.
        EXPECT_TRUE(isKept || !tellsCode(entry) ||
                    std::ranges::any_of(module.codes, [&](CK_RV told) { return tells(entry, answer, told); }))
            << answer;
        expectSound(entry);
      }
    }
  }
}

TEST_F(Sweep, EveryAllocationOfTheVirtualMachineIsRefused) {
  for (const auto& entry : entryPoints()) {
    succeed(entry);
    const std::size_t allocations = java.allocations();
    for (std::size_t nth = 1; nth <= allocations; ++nth) {
      SCOPED_TRACE(entry.name + ", allocation " + std::to_string(nth));
      begin(entry.state, true);
      EXPECT_EQ(call(entry, nth), entry.form == "%" ? "2" : "null");
      expectSound(entry);
    }
  }
}

TEST_F(Sweep, EveryReferenceIsNull) {
  for (const auto& entry : entryPoints()) {
    std::vector<Arguments> cases;
    Arguments all = entry.arguments;
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (!all[i].isReference) continue;
      cases.push_back(entry.arguments);
      cases.back()[i].content = all[i].content = std::nullopt;
    }
    if (cases.empty() || entry.nullsAllowed) continue;
    cases.push_back(all);
    for (const auto& arguments : cases) {
      begin(entry.state, true);
      EXPECT_EQ(entry.inForm(CKR_ARGUMENTS_BAD), call(entry.name, arguments)) << entry.name;
      EXPECT_FALSE(called("C_"));
    }
    if (entry.form != "%" || !all[0].isSlot) continue;
    all[0].number = 2;
    EXPECT_EQ("-1", call(entry.name, all)) << entry.name << ": the slot comes first";
  }
}

TEST_F(Sweep, EverySlotIndexOutOfRange) {
  for (const auto& entry : entryPoints()) {
    Arguments arguments = entry.arguments;
    const auto slot =
        std::find_if(arguments.begin(), arguments.end(), [](const auto& a) { return a.isSlot; });
    if (slot == arguments.end()) continue;
    const std::string success = succeed(entry);
    const unsigned unknown = worksInSession() ? CKR_SESSION_HANDLE_INVALID : CKR_SLOT_ID_INVALID;
    for (const jlong index : {-1L, 2L, 1L << 31, 1L << 32, INT64_MAX, INT64_MIN}) {
      SCOPED_TRACE(entry.name + ", slot " + std::to_string(index));
      begin(entry.state, true);
      slot->number = index;
      const std::string answer = call(entry.name, arguments);
      expectRefusal(entry, answer, unknown);
      EXPECT_NE(success, answer);
      expectResult(isGuarded(entry) ? CKR_OK : unknown);
    }
  }
}

TEST_F(Sweep, EveryState) {
  for (const auto& entry : entryPoints()) {
    if (entry.state == State::kUnbound) continue;
    SCOPED_TRACE(entry.name);
    const std::string success = succeed(entry);
    const bool asksModule = !module.log.empty();
    const bool inSession = worksInSession();
    begin(entry.state, true);
    call("finalize", {});
    const std::string answer = call(entry);
    expectRefusal(entry, answer, CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_FALSE(asksModule && success == answer) << "unbound";
    begin(entry.state, true);
    call("init", {kModule});
    EXPECT_EQ(success, call(entry)) << "after a second bind";
    if (!inSession) continue;
    begin(State::kBound, true);
    const std::string unopened = call(entry);
    EXPECT_TRUE(entry.form == "%" ? unopened == "-1" && !called("C_") : called("(session 0x0")) << unopened;
    if (entry.name == "closeSession") continue;
    begin(entry.state, true);
    call("closeSession", {0});
    EXPECT_NE(success, call(entry)) << "in a stale session";
  }
}

TEST_F(Sweep, EveryConstantIsOverwrittenByTheModule) {
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
