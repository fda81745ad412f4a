// A caller without a plan and a module that lies. The input chooses which entry points are called with what,
// which allocations of the virtual machine fail, and how each answer of the module is bent. Whatever comes of
// it: the sanitizers stay silent, inputs are given back, searches that were told to have begun are ended, and
// no object handle reaches the module but one that this call was told.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <tuple>

#include "entry_points.h"

namespace {

using List = CK_FUNCTION_LIST;

const std::uint8_t* input = nullptr;
std::size_t left = 0;
mock::Module* module = nullptr;
std::set<CK_SESSION_HANDLE> searching;  // as the library was told
std::set<CK_OBJECT_HANDLE> told;        // to the entry point that is running

/// The next choice among so many. An input that has ended chooses 0: the honest answer.
std::size_t choose(std::size_t among) {
  if (left == 0) return 0;
  --left;
  return *input++ % among;
}

template <class T, std::size_t N>
T chosen(const T (&values)[N]) {
  return values[choose(N)];
}

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

/// A count, a length or a handle that the module hands out.
void bend(CK_ULONG_PTR number) {
  if (number == nullptr) return;
  *number = chosen({*number, *number, *number, *number + 1, *number - 1, 0UL, 1UL, 40UL, 1UL << 31U,
                    (1UL << 31U) - 1, 1UL << 63U, ~0UL});
}
template <class Other>
void bend(Other) {}

template <auto Member, auto... Members>
constexpr bool isOneOf() {
  return (... || std::is_same_v<std::integral_constant<decltype(Member), Member>,
                                std::integral_constant<decltype(Members), Members>>);
}

/// A function of the module that lies.
template <auto Member>
struct Bent;
template <class... Parameter, CK_RV (*List::*Member)(Parameter...)>
struct Bent<Member> {
  static CK_RV call(Parameter... arguments) {
    const auto all = std::make_tuple(arguments...);
    if constexpr (isOneOf<Member, &List::C_GetAttributeValue, &List::C_SetAttributeValue,
                          &List::C_DestroyObject>()) {
      require(told.contains(std::get<1>(all)), "an object that the call was not told");
    }
    if constexpr (isOneOf<Member, &List::C_SignInit>()) {
      require(told.contains(std::get<2>(all)), "a key that the call was not told");
    }

    CK_RV result = (module->genuine.*Member)(arguments...);
    (..., bend(arguments));
    if constexpr (isOneOf<Member, &List::C_GetAttributeValue>()) {
      bend(&std::get<2>(all)[choose(std::get<3>(all))].ulValueLen);
    }
    result = chosen({result, result, result, result, CKR_OK, CKR_DEVICE_ERROR, CKR_BUFFER_TOO_SMALL,
                     CKR_FUNCTION_REJECTED, 0x1'8000'0001UL});

    if constexpr (isOneOf<Member, &List::C_FindObjectsInit>()) {
      const bool canEnd = module->functions.C_FindObjectsFinal != nullptr;
      const bool isFirst = result != CKR_OK || searching.insert(std::get<0>(all)).second;
      require(isFirst || !canEnd, "a search within a search");
      if (result != CKR_OK) module->genuine.C_FindObjectsFinal(std::get<0>(all));
    }
    if constexpr (isOneOf<Member, &List::C_FindObjects>()) {
      const CK_ULONG count = std::min(std::get<2>(all), *std::get<3>(all));
      if (result == CKR_OK && searching.contains(std::get<0>(all))) {
        told.insert(std::get<1>(all), std::get<1>(all) + count);
      }
    }
    if constexpr (isOneOf<Member, &List::C_FindObjectsFinal>()) searching.erase(std::get<0>(all));
    if constexpr (isOneOf<Member, &List::C_GenerateKeyPair>()) {
      if (result == CKR_OK) told.insert(*std::get<6>(all));
    }
    return result;
  }
};

template <auto... Members>
void bendAll() {
  (..., (module->functions.*Members = Bent<Members>::call));
  // One of them, if the input says so, is not there at all.
  std::size_t missing = choose(4 * sizeof...(Members));
  (..., (missing-- == 1 ? void(module->functions.*Members = nullptr) : void()));
}

void callOne(FakeJni& java, const EntryPoint& entry) {
  Arguments arguments = entry.arguments;
  for (auto& argument : arguments) {
    if (!argument.isReference) {
      argument.number =
          chosen({argument.number, argument.number, 1L, 2L, -1L, 1L << 32, INT64_MAX, INT64_MIN});
    } else if (const std::size_t choice = choose(6); choice > 2) {
      const std::optional<std::string> contents[] = {"", "id", std::nullopt};
      argument.content = contents[choice - 3];
    }
  }
  java.clear();
  module->log.clear();
  told.clear();
  if (const std::size_t nth = choose(64); nth > 48) java.refuse(nth - 48);
  entry.call(java, arguments);
  for (const auto& fault : java.faults) require(false, fault.c_str());
  require(java.balanced(), "an input was not given back");
  require(searching.empty() || module->functions.C_FindObjectsFinal == nullptr, "a search was not ended");
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
  searching.clear();
  module->freshListEachTime = choose(4) == 1;
  module->acceptsSecondInitialize = choose(4) == 1;
  if (choose(16) == 1) module->list = nullptr;
  // Most inputs begin where there is something to do.
  if (choose(4) != 1) {
    for (const char* name : {"init", "openSession", "login"}) {
      entryPoint(name).call(java, entryPoint(name).arguments);
    }
  }
  bendAll<&List::C_Initialize, &List::C_Finalize, &List::C_GetSlotList, &List::C_GetSlotInfo,
          &List::C_GetTokenInfo, &List::C_GetMechanismList, &List::C_GetMechanismInfo,
          &List::C_WaitForSlotEvent, &List::C_InitToken, &List::C_InitPIN, &List::C_SetPIN,
          &List::C_OpenSession, &List::C_CloseSession, &List::C_CloseAllSessions, &List::C_GetSessionInfo,
          &List::C_Login, &List::C_Logout, &List::C_CreateObject, &List::C_DestroyObject,
          &List::C_GetAttributeValue, &List::C_SetAttributeValue, &List::C_FindObjectsInit,
          &List::C_FindObjects, &List::C_FindObjectsFinal, &List::C_SignInit, &List::C_Sign,
          &List::C_GenerateKeyPair>();
  for (int calls = 0; left > 0 && calls < 32; ++calls)
    callOne(java, entryPoints()[choose(entryPoints().size())]);
  left = 0;
  entryPoint("finalize").call(java, {});
  return 0;
}
