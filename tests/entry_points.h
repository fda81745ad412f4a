// All entry points as data: how to call each on a populated token so that it succeeds, and which failures of
// the module it keeps to itself. Whatever sweeps over all of them derives its cases from this table.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "fake_jni.h"
#include "mock_module.h"

/// What must have happened before a call can succeed.
enum class State { kUnbound, kBound, kOpen, kUser, kSecurityOfficer };

struct SlotIndex {
  jlong value = 0;
};

/// One argument, read by the entry point's own parameter types. A null text is a null reference.
struct Argument {
  Argument(SlotIndex slot) : number(slot.value), isSlot(true) {}
  Argument(jlong value) : number(value) {}
  Argument(const char* characters) : text(characters), isReference(true) {}

  jlong number = 0;
  const char* text = nullptr;
  bool isSlot = false;
  bool isReference = false;
};
using Arguments = std::vector<Argument>;

/// What came back, as text: `5`, `[16909060]`, `{01 02}`, `{{00} {41} null}` or `null`.
std::string shown(FakeJni& java, jlong number);
std::string shown(FakeJni& java, jbyteArray array);
std::string shown(FakeJni& java, jintArray array);
std::string shown(FakeJni& java, jobjectArray array);

struct EntryPoint {
  std::string name;
  State state;
  Arguments arguments;
  std::string
      keptBack;      // calls whose failure leaves the result as it is: `C_Sign` for all, `C_Sign#2` for one
  std::string form;  // of a result that is only a code, with % in its place: `%`, `{%}`, `{{%}}`, `[]`
  bool nullsAllowed;
  std::function<std::string(FakeJni&, const Arguments&)> call;

  std::string inForm(unsigned code) const;
};

const std::vector<EntryPoint>& entryPoints();

/// Puts the objects on the token that the table's calls look for.
void populate(mock::Module& module);
