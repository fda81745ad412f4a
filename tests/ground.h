// The ground that every native test stands on: the library, the mock module, a fake virtual machine, and what
// must hold after each call whatever was asked and answered.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "ckr.h"
#include "com_calvenhor_vork_utils_Smartcard.h"
#include "entry_points.h"
#include "fake_jni.h"
#include "mock_module.h"

#define ENTRY(name) Java_com_calvenhor_vork_utils_Smartcard_##name##DLL

using Bytes = std::vector<std::uint8_t>;

/// The bytes of a text, for IDs and labels.
inline Bytes text(std::string_view characters) { return {characters.begin(), characters.end()}; }

/// Runs something and returns what it wrote to standard output; `written` tells how much has left the
/// process.
class Output {
 public:
  Output();
  ~Output();
  static std::string of(const std::function<void()>& run);
  std::string written() const;

 private:
  int file_;
  int before_;
};

class Ground : public testing::Test {
 private:
  void* handle_;  // keeps the module's state alive over the library's dlclose

 protected:
  static constexpr const char* kModule = MOCK_MODULE;
  Ground();
  ~Ground() override;

  /// Calls an entry point, keeps what it traced in `traces`, and checks what no call may leave behind.
  template <class Result, class... Parameter>
  Result call(Result (*entry)(JNIEnv*, jclass, Parameter...), std::type_identity_t<Parameter>... arguments) {
    Result result = {};
    observe([&] { result = entry(java.env(), nullptr, arguments...); });
    return result;
  }
  void observe(const std::function<void()>& run);

  // The same by the table of entry points: in a new life of the library, with a populated token and all that
  // the entry point needs before it can succeed; then the call itself, with an allocation of the virtual
  // machine refused, if one is named.
  void prepare(const EntryPoint& entry);
  std::string run(const EntryPoint& entry, const Arguments& arguments, std::size_t refusedAllocation = 0);
  std::string run(const EntryPoint& entry) { return run(entry, entry.arguments); }

  jstring string(const std::string& characters) { return java.string("string", characters); }
  jbyteArray bytes(const std::string& name, const Bytes& elements) { return java.bytes(name, elements); }
  jbyteArray bytes(const std::string& name) { return java.bytes(name, text(name)); }

  jlong bind(const char* path = kModule) { return call(ENTRY(init), string(path)); }
  void bindAndOpen();
  void bindAndLogin();

  /// The module's log of the last call, a line each, with S for the session of slot 0 and O1, O2, … for the
  /// objects in the order in which they were made.
  std::string calls() const;

  /// The virtual machine's log of the last call, with a blank between two.
  std::string jniCalls() const;

  template <class Result>
  std::string shown(Result result) {
    return ::shown(java, result);
  }

  FakeJni java;
  mock::Module& module;
  std::string traces;
};
