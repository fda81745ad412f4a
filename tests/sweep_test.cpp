// What holds for every entry point, whatever fails: derived from the table of entry points, not written by
// hand. After each call the ground checks that inputs are released, searches ended, and no handle was made
// up.

#include <algorithm>

#include "ground.h"

namespace {

class Sweep : public Ground {
 protected:
  /// What the entry point answers when nothing fails, and the calls it makes then.
  std::string succeed(const EntryPoint& entry) {
    prepare(entry);
    return run(entry);
  }

  /// The library as sound as before: bound, with a session, and with searches that begin.
  void expectSound() {
    ENTRY(finalize)(java.env(), nullptr);
    module.reset();
    ASSERT_CKR(CKR_OK, bind());
    ASSERT_CKR(CKR_OK, call(ENTRY(openSession), 0));
    EXPECT_EQ(0, call(ENTRY(isCardEmpty), 0));
  }
};

bool hasSlot(const EntryPoint& entry) {
  return std::any_of(entry.arguments.begin(), entry.arguments.end(),
                     [](const Argument& a) { return a.isSlot; });
}

bool worksInSession(const std::string& calls) { return calls.find("(S") != std::string::npos; }

TEST_F(Sweep, EveryCallOfTheModuleFails) {
  for (const auto& entry : entryPoints()) {
    const std::string success = succeed(entry);
    EXPECT_NE(success, entry.inForm(CKR_GENERAL_ERROR)) << entry.name;
    std::map<std::string, std::size_t> made;
    const auto log = module.log;
    for (const auto& line : log) {
      const std::string function = line.substr(0, line.find('('));
      const std::size_t nth = ++made[function];
      const std::string kept = ' ' + entry.keptBack + ' ';
      const bool isKept = kept.find(' ' + function + ' ') != std::string::npos ||
                          kept.find(' ' + function + '#' + std::to_string(nth) + ' ') != std::string::npos;
      for (const CK_RV code :
           {0x02UL, 0x30UL, 0x54UL, 0xb3UL, 0xe0UL, 0x101UL, 0x150UL, 0x191UL, 0x200UL, 0x1'8000'0001UL}) {
        // In a listing that is as long as it should be, a status byte of 0 is success.
        if (entry.form == "{{%}}" && (code & 0xffU) == 0) continue;
        SCOPED_TRACE(entry.name + ", " + function + ' ' + std::to_string(nth) + ", " + ckrName(code));
        prepare(entry);
        module.failAt(function, nth, code);
        if (isKept) {
          EXPECT_EQ(success, run(entry));
        } else {
          EXPECT_NE(success, run(entry));
        }
        expectSound();
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
      prepare(entry);
      EXPECT_EQ(run(entry, entry.arguments, nth), entry.form == "%" ? "2" : "null");
      EXPECT_EQ(java.pendingException(), "OutOfMemoryError");
      expectSound();
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
      cases.back()[i].text = all[i].text = nullptr;
    }
    cases.push_back(all);
    if (cases.size() == 1) continue;
    for (const auto& arguments : cases) {
      SCOPED_TRACE(entry.name);
      prepare(entry);
      const std::string answer = run(entry, arguments);
      if (entry.nullsAllowed) continue;
      EXPECT_EQ(entry.inForm(CKR_ARGUMENTS_BAD), answer);
      EXPECT_EQ(calls(), "");
    }
  }
}

TEST_F(Sweep, EverySlotIndexOutOfRange) {
  for (const auto& entry : entryPoints()) {
    if (!hasSlot(entry)) continue;
    const std::string success = succeed(entry);
    const unsigned unknown = worksInSession(calls()) ? CKR_SESSION_HANDLE_INVALID : CKR_SLOT_ID_INVALID;
    for (const jlong index : {-1L, 2L, 1L << 31, 1L << 32, INT64_MAX, INT64_MIN}) {
      SCOPED_TRACE(entry.name + ", slot " + std::to_string(index));
      prepare(entry);
      Arguments arguments = entry.arguments;
      for (auto& argument : arguments) {
        if (argument.isSlot) argument.number = index;
      }
      const std::string answer = run(entry, arguments);
      EXPECT_EQ(calls(), "");
      EXPECT_NE(success, answer);
      // Where the answer is one code, it is -1 or that of what is unknown; the others have codes of their
      // own.
      const bool ownCode = entry.name.starts_with("read") || entry.name == "sign";
      if (entry.form == "%") {
        EXPECT_EQ(answer, "-1");
      }
      if (!ownCode && entry.form.find("{%}") == 0) {
        EXPECT_EQ(answer, entry.inForm(unknown));
      }
      expectSound();
    }
  }
}

TEST_F(Sweep, EveryState) {
  for (const auto& entry : entryPoints()) {
    SCOPED_TRACE(entry.name);
    const std::string success = succeed(entry);
    const bool asksModule = !calls().empty();
    const bool inSession = worksInSession(calls());
    const auto expectRefusal = [&] {
      const std::string answer = run(entry);
      EXPECT_EQ(calls(), "");
      if (asksModule) {
        EXPECT_NE(success, answer);
      }
    };
    if (entry.state != State::kUnbound) {
      // Each step of binding fails; what is left is as good as never bound.
      for (const auto& [step, nth] : std::vector<std::pair<const char*, std::size_t>>{
               {"C_GetFunctionList", 1}, {"C_Initialize", 1}, {"C_GetSlotList", 1}, {"C_GetSlotList", 2}}) {
        ENTRY(finalize)(java.env(), nullptr);
        module.reset();
        module.failAt(step, nth, CKR_DEVICE_ERROR);
        EXPECT_CKR(CKR_DEVICE_ERROR, bind());
        expectRefusal();
      }
      prepare(entry);
      call(ENTRY(finalize));
      expectRefusal();

      prepare(entry);
      bind();
      EXPECT_EQ(success, run(entry)) << "after a second bind";
    }
    if (inSession && entry.name != "closeSession") {
      prepare(entry);
      call(ENTRY(closeSession), 0);
      EXPECT_NE(success, run(entry)) << "in a stale session";
    }
    expectSound();
  }
}

// A missing function is answered like a failing one.
TEST_F(Sweep, EveryFunctionIsMissing) {
  for (const auto& entry : entryPoints()) {
    prepare(entry);
    const CK_FUNCTION_LIST empty = {};
    module.functions = empty;
    run(entry);
    EXPECT_EQ(calls(), entry.state == State::kUnbound ? "C_GetFunctionList()\n" : "") << entry.name;
    expectSound();
  }
}

}  // namespace
