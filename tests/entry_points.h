// All entry points as data: arguments with which each succeeds on a populated token, and the failing module
// calls that it does not report. Tests of all entry points derive their cases from this table.
#pragma once

#include <concepts>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fake_jni.h"
#include "mock_module.h"

/// The state in which a call succeeds.
enum class State { kUnbound, kBound, kOpen, kUser, kSecurityOfficer };

/// One argument, converted to the entry point's parameter type: a number, or the content of a string or array
/// with its name in the log of JNI calls. Without content it is a null reference.
struct Argument {
  template <std::integral Number>
  Argument(Number value, bool slot = false) : number(static_cast<jlong>(value)), isSlot(slot) {}
  Argument(const char* text) : isReference(true), name(text), content(text) {}
  Argument(std::string logName, std::optional<std::string> text)
      : isReference(true), name(std::move(logName)), content(std::move(text)) {}

  jlong number = 0;
  bool isSlot = false;
  bool isReference = false;
  std::string name;
  std::optional<std::string> content;
};
using Arguments = std::vector<Argument>;

struct EntryPoint {
  std::string name;
  State state;
  Arguments arguments;
  /// Module calls whose failure does not change the result: `C_Sign` for all calls of the function,
  /// `C_Sign#2` for the second only.
  std::set<std::string> swallowed;
  bool mayTakeNull;
  /// The format of a result that consists of a code, which replaces %: `%`, `{%}` or `{{%}}`. `[]` has none.
  std::string form;

  /// Returns the result as FakeJni formats it.
  std::function<std::string(FakeJni&, const Arguments&)> call;

  std::string formatCode(CK_RV code) const;  // the result with this code
};

const std::vector<EntryPoint>& entryPoints();
const EntryPoint& entryPoint(const std::string& name);

/// Adds the objects that the table's calls look for to the token.
void populate(mock::Module& module);
