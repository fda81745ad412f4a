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

#include "entry_points.h"

namespace {

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

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

CK_ULONG bent(CK_ULONG number) {
  const CK_ULONG answers[] = {number, number,     number + 1, number - 1,       0,   1,
                              40,     1UL << 31U, 1UL << 63U, (1UL << 31U) - 1, ~0UL};
  return answers[choose(std::size(answers))];
}

CK_RV bentResult(CK_RV result) {
  const CK_RV answers[] = {result,
                           result,
                           result,
                           result,
                           CKR_OK,
                           CKR_DEVICE_ERROR,
                           CKR_BUFFER_TOO_SMALL,
                           CKR_FUNCTION_REJECTED,
                           0x1'8000'0001UL};
  return answers[choose(std::size(answers))];
}

/// A function whose result alone is bent.
template <auto Member>
struct Bent;
template <class... Parameter, CK_RV (*CK_FUNCTION_LIST::*Member)(Parameter...)>
struct Bent<Member> {
  static CK_RV call(Parameter... arguments) { return bentResult((module->genuine.*Member)(arguments...)); }
};

CK_RV getSlotList(CK_BBOOL present, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) {
  const CK_RV result = module->genuine.C_GetSlotList(present, list, count);
  *count = bent(*count);
  return bentResult(result);
}

CK_RV getMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE_PTR list, CK_ULONG_PTR count) {
  const CK_RV result = module->genuine.C_GetMechanismList(slot, list, count);
  *count = bent(*count);
  return bentResult(result);
}

CK_RV findObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count) {
  const CK_RV result = bentResult(module->genuine.C_FindObjectsInit(session, attributes, count));
  if (result == CKR_OK) {
    const bool canEnd = module->functions.C_FindObjectsFinal != nullptr;
    require(searching.insert(session).second || !canEnd, "a search within a search");
  } else {
    module->genuine.C_FindObjectsFinal(session);
  }
  return result;
}

CK_RV findObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG room,
                  CK_ULONG_PTR count) {
  CK_RV result = module->genuine.C_FindObjects(session, objects, room, count);
  *count = bent(*count);
  result = bentResult(result);
  if (result == CKR_OK && searching.contains(session)) told.insert(objects, objects + std::min(room, *count));
  return result;
}

CK_RV findObjectsFinal(CK_SESSION_HANDLE session) {
  searching.erase(session);
  return bentResult(module->genuine.C_FindObjectsFinal(session));
}

CK_RV getAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes,
                        CK_ULONG count) {
  require(told.contains(object), "an object was read that the call was not told");
  const CK_RV result = module->genuine.C_GetAttributeValue(session, object, attributes, count);
  CK_ULONG& length = attributes[choose(count)].ulValueLen;
  length = bent(length);
  return bentResult(result);
}

CK_RV setAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes,
                        CK_ULONG count) {
  require(told.contains(object), "an object was changed that the call was not told");
  return bentResult(module->genuine.C_SetAttributeValue(session, object, attributes, count));
}

CK_RV destroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
  require(told.contains(object), "an object was destroyed that the call was not told");
  return bentResult(module->genuine.C_DestroyObject(session, object));
}

CK_RV signInit(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key) {
  require(told.contains(key), "a key was used that the call was not told");
  return bentResult(module->genuine.C_SignInit(session, mechanism, key));
}

CK_RV sign(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG length, CK_BYTE_PTR signature,
           CK_ULONG_PTR room) {
  const CK_RV result = module->genuine.C_Sign(session, data, length, signature, room);
  *room = bent(*room);
  return bentResult(result);
}

CK_RV generateKeyPair(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR publicTemplate,
                      CK_ULONG publicCount, CK_ATTRIBUTE_PTR privateTemplate, CK_ULONG privateCount,
                      CK_OBJECT_HANDLE_PTR publicKey, CK_OBJECT_HANDLE_PTR privateKey) {
  const CK_RV result = bentResult(module->genuine.C_GenerateKeyPair(
      session, mechanism, publicTemplate, publicCount, privateTemplate, privateCount, publicKey, privateKey));
  if (result == CKR_OK) told.insert(*publicKey);
  return result;
}

template <auto... Member>
void bend(CK_FUNCTION_LIST& functions) {
  (..., (functions.*Member = Bent<Member>::call));
}

void bendAll(CK_FUNCTION_LIST& functions) {
  using List = CK_FUNCTION_LIST;
  bend<&List::C_Initialize, &List::C_Finalize, &List::C_GetSlotInfo, &List::C_GetTokenInfo,
       &List::C_GetMechanismInfo, &List::C_WaitForSlotEvent, &List::C_InitToken, &List::C_InitPIN,
       &List::C_SetPIN, &List::C_OpenSession, &List::C_CloseSession, &List::C_CloseAllSessions,
       &List::C_GetSessionInfo, &List::C_Login, &List::C_Logout, &List::C_CreateObject>(functions);
  functions.C_GetSlotList = getSlotList;
  functions.C_GetMechanismList = getMechanismList;
  functions.C_FindObjectsInit = findObjectsInit;
  functions.C_FindObjects = findObjects;
  functions.C_FindObjectsFinal = findObjectsFinal;
  functions.C_GetAttributeValue = getAttributeValue;
  functions.C_SetAttributeValue = setAttributeValue;
  functions.C_DestroyObject = destroyObject;
  functions.C_SignInit = signInit;
  functions.C_Sign = sign;
  functions.C_GenerateKeyPair = generateKeyPair;
}

/// One function of the list, if the input says so, is not there.
void dropOne(CK_FUNCTION_LIST& functions) {
  switch (choose(16)) {
    case 1:
      functions.C_FindObjectsFinal = nullptr;
      searching.clear();
      break;
    case 2:
      functions.C_GetAttributeValue = nullptr;
      break;
    case 3:
      functions.C_GetSlotList = nullptr;
      break;
    case 4:
      functions.C_Finalize = nullptr;
      break;
    case 5:
      functions.C_Sign = nullptr;
      break;
    default:
      break;
  }
}

void callOne(FakeJni& java, const EntryPoint& entry) {
  Arguments arguments = entry.arguments;
  for (auto& argument : arguments) {
    const jlong numbers[] = {argument.number, argument.number, 1, 2, -1, 1L << 32, INT64_MAX, INT64_MIN};
    const char* texts[] = {argument.text, argument.text, argument.text, "", "id", nullptr};
    if (argument.isReference) {
      argument.text = texts[choose(std::size(texts))];
    } else {
      argument.number = numbers[choose(std::size(numbers))];
    }
  }
  java.clear();
  told.clear();
  module->log.clear();
  if (const std::size_t nth = choose(64); nth > 48) java.refuse(nth - 48);
  entry.call(java, arguments);
  for (const auto& fault : java.faults) require(false, fault.c_str());
  require(java.balanced(), "an input was not given back");
  require(searching.empty() || module->functions.C_FindObjectsFinal == nullptr, "a search was not ended");
}

const EntryPoint& entryPoint(const std::string& name) {
  return *std::find_if(entryPoints().begin(), entryPoints().end(),
                       [&](const auto& e) { return e.name == name; });
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
    for (const char* name : {"init", "openSession", "login"})
      entryPoint(name).call(java, entryPoint(name).arguments);
  }
  bendAll(module->functions);
  dropOne(module->functions);
  for (int calls = 0; left > 0 && calls < 32; ++calls)
    callOne(java, entryPoints()[choose(entryPoints().size())]);
  left = 0;
  entryPoint("finalize").call(java, {});
  return 0;
}
