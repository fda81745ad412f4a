// All entry points as data: how to call each on a populated token so that it succeeds, and which failures of
// the module it keeps to itself. Whatever sweeps over all of them derives its cases from this table.
#pragma once

#include <concepts>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fake_jni.h"
#include "mock_module.h"

/// What must have happened before a call can succeed.
enum class State { kUnbound, kBound, kOpen, kUser, kSecurityOfficer };

/// One argument, read by the entry point's own parameter types: a number, or the content of a string or an
/// array under the name by which the virtual machine's log calls it. No content is a null reference.
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
  /// Calls whose failure leaves the result as it is: `C_Sign`, or only `C_Sign#2`.
  std::set<std::string> swallowed;
  bool nullsAllowed;
  std::string form;  // of a result that is only a code, with % in its place: `%`, `{%}`, `{{%}}`, `[]`

  /// Answers with what came back, as the fake virtual machine shows it.
  std::function<std::string(FakeJni&, const Arguments&)> call;

  std::string inForm(CK_RV code) const;
};

const std::vector<EntryPoint>& entryPoints();
const EntryPoint& entryPoint(const std::string& name);

/// Puts the objects on the token that the table's calls look for.
void populate(mock::Module& module);
