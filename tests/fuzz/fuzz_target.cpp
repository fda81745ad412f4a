// Calls entry points on a module that returns false results. The input chooses the entry points and their
// arguments, which allocations by JNI fail, and how each result of the module is falsified. The sanitizers
// must find nothing. Each call must release its inputs, end its searches, and pass only object handles that
// the module returned during the call.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "entry_points.h"

namespace {

const std::uint8_t* input = nullptr;
std::size_t left = 0;
mock::Module* module = nullptr;

/// The next choice from 0 to `count` - 1. At the end of the input it is 0, which falsifies nothing.
std::size_t choose(std::size_t count) {
  if (left == 0) return 0;
  --left;
  return *input++ % count;
}

template <class T, std::size_t N>
T chooseFrom(const T (&values)[N]) {
  return values[choose(N)];
}

void require(bool holds, const std::string& what) {
  if (holds) return;
  std::fprintf(stderr, "failed: %s\n", what.c_str());
  std::abort();
}

void falsify(const std::string&, CK_RV& result, const mock::Numbers& numbers) {
  for (CK_ULONG* number : numbers)
    *number = chooseFrom({*number, *number, *number, *number + 1, *number - 1, 0UL, 1UL, 40UL, 1UL << 31U,
                          (1UL << 31U) - 1, 1UL << 63U, ~0UL});
  result = chooseFrom({result, result, result, result, CKR_OK, CKR_DEVICE_ERROR, CKR_BUFFER_TOO_SMALL,
                       CKR_FUNCTION_REJECTED, 0x1'8000'0001UL});
}

void callOne(FakeJni& java, const EntryPoint& entry) {
  Arguments arguments = entry.arguments;
  for (auto& argument : arguments) {
    if (!argument.isReference) {
      argument.number =
          chooseFrom({argument.number, argument.number, 1L, 2L, -1L, 1L << 32, INT64_MAX, INT64_MIN});
    } else if (const std::size_t choice = choose(6); choice > 2) {
      const std::optional<std::string> contents[] = {"", "id", std::nullopt};
      argument.content = contents[choice - 3];
    }
  }
  java.clear();
  module->log.clear();
  module->returnedHandles.clear();
  if (const std::size_t nth = choose(64); nth > 48) java.refuse(nth - 48);
  entry.call(java, arguments);
  for (const auto& violation : java.violations) require(false, violation);
  for (const auto& violation : module->violations) require(false, violation);
  require(java.hasReleasedAll(), "an input was not released");
  require(module->searches.empty() || !module->functions.C_FindObjectsFinal, "a search was not ended");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  module = reinterpret_cast<decltype(&mockModule)>(dlsym(dlopen(MOCK_MODULE, RTLD_NOW), "mockModule"))();
  dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  input = data;
  left = size;
  FakeJni java;
  module->reset();
  populate(*module);
  module->freshListEachTime = choose(4) == 1;
  module->acceptsSecondInitialize = choose(4) == 1;
  if (choose(16) == 1) module->list = nullptr;
  // Most inputs begin with a user logged in.
  if (choose(4) != 1) {
    for (const char* name : {"init", "openSession", "login"}) {
      entryPoint(name).call(java, entryPoint(name).arguments);
    }
  }
  module->onReturn = falsify;
  // The input may remove one function from the list.
  constexpr std::size_t first = offsetof(CK_FUNCTION_LIST, C_Initialize);
  const std::size_t missing = first + (choose(256) - 1) * sizeof(void*);
  if (missing >= first && missing < sizeof(CK_FUNCTION_LIST))
    std::memset(reinterpret_cast<char*>(&module->functions) + missing, 0, sizeof(void*));

  for (int calls = 0; left > 0 && calls < 32; ++calls)
    callOne(java, entryPoints()[choose(entryPoints().size())]);
  left = 0;
  entryPoint("finalize").call(java, {});
  return 0;
}
