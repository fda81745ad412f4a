// The fixture of every native test: the library, the mock module, a fake JNIEnv, and the checks that every
// call must pass.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "entry_points.h"

class Fixture : public testing::Test {
 public:
  /// Runs before each dlopen and dlclose, with the call as text.
  static std::function<void(const std::string&)> onLoad;

 protected:
  static constexpr const char* kModule = MOCK_MODULE;

  Fixture();
  ~Fixture() override;

  /// Resets the library and the module and brings them to this state.
  void begin(State state, bool populated = false);

  /// Calls an entry point, named without DLL, and records it. Checks that inputs are released, searches ended
  /// and traces flushed. If `refusedAllocation` is n, JNI's nth allocation fails.
  std::string call(const std::string& name, const Arguments& arguments, std::size_t refusedAllocation = 0);
  std::string call(const EntryPoint& entry, std::size_t refusedAllocation = 0) {
    return call(entry.name, entry.arguments, refusedAllocation);
  }

  /// The events of the last call, in order: calls to the module, the loader and JNI, and traced lines in
  /// quotes. S is the session of slot 0; O1, O2, … are the objects in the order of their creation.
  std::vector<std::string> record;

  /// The module calls of the last entry point: the function, and the number of the call among those of that
  /// function, from 1.
  std::vector<std::pair<std::string, std::size_t>> moduleCalls() const;

  /// Whether the log line of a module call of the last entry point contains this text.
  bool called(const std::string& text) const;

 private:
  void add(std::string line);
  void addTraces();
  void addLeaving(const std::string& line);

  int output_;          // receives standard output during a call
  std::size_t traced_;  // the length of the part that is in the record
  void* handle_;        // keeps the module's state alive after the library's dlclose
  std::string buffer_;  // the address that signWithID traces

 protected:
  FakeJni java;
  mock::Module& module;
};
