// The fixture of every native test: the library, the mock module, a fake virtual machine, and what must hold
// after each call whatever was asked and answered.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "entry_points.h"

class Fixture : public testing::Test {
 public:
  /// Told what the library asks of the loader, before it is done.
  static std::function<void(const std::string&)> onLoad;

 protected:
  static constexpr const char* kModule = MOCK_MODULE;

  Fixture();
  ~Fixture() override;

  /// A new life of the library and the module, as far as this state; with a populated token, if so wished.
  void begin(State state, bool populated = false);

  /// Calls an entry point (without the DLL of its name), keeps the record of the call, and checks what no
  /// call may leave behind. An allocation of the virtual machine is refused if one is named.
  std::string call(const std::string& name, const Arguments& arguments, std::size_t refusedAllocation = 0);
  std::string call(const EntryPoint& entry, std::size_t refusedAllocation = 0) {
    return call(entry.name, entry.arguments, refusedAllocation);
  }

  /// All that the last call did, in order: the module's and the virtual machine's logs, and each line traced,
  /// in quotes. S is the session of slot 0; O1, O2, … are the objects in the order in which they were made.
  std::vector<std::string> record;

  /// The calls that the last one made to the module: the function, and the how manieth of it this is.
  std::vector<std::pair<std::string, std::size_t>> moduleCalls() const;

  /// Whether the last call made one of the module's that holds this text.
  bool called(const std::string& text) const;

 private:
  void add(std::string line);
  void addTraces();
  void addOutside(const std::string& line);

  int output_;          // where standard output goes during a call
  std::size_t traced_;  // how much of it is in the record
  void* handle_;        // keeps the module's state alive over the library's dlclose
  std::string buffer_;  // the address that signWithID traces

 protected:
  FakeJni java;
  mock::Module& module;
};
