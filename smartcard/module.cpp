#include "module.h"

#include <dlfcn.h>

#include <algorithm>

#include "com_calvenhor_vork_utils_Smartcard.h"
#include "marshal.h"
#include "memory.h"

CK_FUNCTION_LIST_PTR p = nullptr;
CK_RV rv = CKR_OK;
CK_SLOT_ID_PTR pSlotList = nullptr;
CK_ULONG ulSlotCount = 0;
CK_BBOOL yes = CK_TRUE;
CK_BBOOL no = CK_FALSE;

namespace {

void* hModule = nullptr;
CK_SESSION_HANDLE_PTR allSessions = nullptr;  // exists exactly while the library is bound

constexpr jlong kNotLoadable = -1;
constexpr jlong kNoFunctionList = -2;
constexpr jlong kNoSlots = -3;

/// A module as the dynamic loader holds it: unloaded when its scope is left, unless it is kept. Code of the
/// module may run while it is loaded or unloaded, hence the flushes.
class LoadedModule {
 public:
  LoadedModule() = default;
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;
  ~LoadedModule() { unload(); }

  void load(const char* path) {
    flushTraces();
    handle_ = dlopen(path, RTLD_LAZY);
  }
  void* handle() const { return handle_; }
  CK_C_GetFunctionList functionListGetter() const {
    return reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle_, "C_GetFunctionList"));
  }
  void keep() { handle_ = nullptr; }
  void unload() {
    if (handle_ == nullptr) return;
    flushTraces();
    dlclose(handle_);
    handle_ = nullptr;
  }

 private:
  void* handle_ = nullptr;
};

/// Takes the module's function list and initialises the module through it.
CK_RV initialise(CK_C_GetFunctionList getFunctionList, CK_FUNCTION_LIST_PTR& list) {
  list = nullptr;
  rv = getFunctionList(&list);
  if (rv != CKR_OK) return rv;
  trace("Got fuction list\n");

  if (call(list, &CK_FUNCTION_LIST::C_Initialize, nullptr) != CKR_OK) return rv;
  trace("Initialized=0x%x\n", hex32(rv));
  return rv;
}

/// initDLL while bound: whatever the answer, everything stays as it is.
CK_RV initialiseAgain(const LoadedModule& module, CK_C_GetFunctionList getFunctionList) {
  if (module.handle() != hModule) return CKR_CRYPTOKI_ALREADY_INITIALIZED;

  CK_FUNCTION_LIST_PTR list = nullptr;
  const CK_RV answer = initialise(getFunctionList, list);
  // Some modules give out another list every time, each initialised on its own; p stays the earlier one.
  if (answer == CKR_OK && list != p) call(list, &CK_FUNCTION_LIST::C_Finalize, nullptr);
  return answer;
}

void freeSlotList() {
  std::free(pSlotList);
  pSlotList = nullptr;
}

/// Undoes a binding that failed after C_Initialize; the result of C_Finalize stays in `rv`.
jlong givenUp(LoadedModule& module, CK_RV failure) {
  call(p, &CK_FUNCTION_LIST::C_Finalize, nullptr);
  freeSlotList();
  module.unload();
  return asJava(failure);
}

jlong givenUpWithoutSlots(LoadedModule& module) {
  call(p, &CK_FUNCTION_LIST::C_Finalize, nullptr);
  trace("finalized (no slots)=0x%x\n", hex32(rv));
  if (pSlotList != nullptr) {
    trace("Freeing pSlotList...\n");
    freeSlotList();
    trace("Freed pSlotList...\n");
  }
  trace("Checked pSlotList...\n");
  module.unload();
  trace("Freed library...\n");
  return kNoSlots;
}

}  // namespace

bool isBound() { return allSessions != nullptr; }

bool inRange(jlong slotIndex) { return isBound() && static_cast<CK_ULONG>(slotIndex) < ulSlotCount; }

bool hasSession(jlong slotIndex) { return inRange(slotIndex) && allSessions[slotIndex] != 0; }

Slot slotAt(jlong slotIndex) { return inRange(slotIndex) ? Slot{pSlotList[slotIndex]} : Slot{}; }

Session sessionAt(jlong slotIndex) {
  return inRange(slotIndex) ? Session{allSessions[slotIndex]} : Session{};
}

void recordSession(jlong slotIndex, CK_SESSION_HANDLE session) { allSessions[slotIndex] = session; }

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_initDLL(JNIEnv* env, jclass,
                                                                        jstring jPath) try {
  const TracedCall traced;
  if (anyNull(jPath)) return CKR_ARGUMENTS_BAD;
  trace("INITIALIZE start\n");
  LoadedModule module;
  const StringInput path(env, jPath);
  trace("%s\n", path.characters());

  module.load(path.characters());
  if (!isBound()) hModule = module.handle();
  if (module.handle() == nullptr) {
    trace("Error: DLL not found");
    return kNotLoadable;
  }
  const CK_C_GetFunctionList getFunctionList = module.functionListGetter();
  if (getFunctionList == nullptr) {
    trace("Error: C_GetFunctionList not found in DLL ");
    return kNoFunctionList;
  }

  if (isBound()) return asJava(initialiseAgain(module, getFunctionList));
  if (initialise(getFunctionList, p) != CKR_OK) return asJava(rv);

  if (call(p, &CK_FUNCTION_LIST::C_GetSlotList, CK_FALSE, nullptr, &ulSlotCount) != CKR_OK) {
    const CK_RV failure = rv;
    call(p, &CK_FUNCTION_LIST::C_Finalize, nullptr);
    trace("finalized (getslotlist err)=0x%x\n", hex32(rv));
    module.unload();
    return asJava(failure);
  }
  trace("Slot_count = %d\n", dec32(ulSlotCount));
  if (ulSlotCount == 0) return givenUpWithoutSlots(module);

  trace("Before slots malloc\n");
  const CK_ULONG room = ulSlotCount;
  pSlotList = tryZeroed<CK_SLOT_ID>(room).release();
  if (pSlotList == nullptr) return givenUp(module, CKR_HOST_MEMORY);
  trace("After slots malloc\n");

  call(p, &CK_FUNCTION_LIST::C_GetSlotList, CK_FALSE, pSlotList, &ulSlotCount);
  trace("Get Slot List = 0x%x\n", hex32(rv));
  if (rv != CKR_OK) return givenUp(module, rv);
  ulSlotCount = std::min(ulSlotCount, room);
  if (ulSlotCount == 0) return givenUpWithoutSlots(module);

  allSessions = tryZeroed<CK_SESSION_HANDLE>(ulSlotCount).release();
  if (allSessions == nullptr) return givenUp(module, CKR_HOST_MEMORY);
  module.keep();
  return asJava(rv);
} catch (...) {
  return CKR_HOST_MEMORY;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_getSlotCountDLL(JNIEnv*, jclass) {
  return asJava(ulSlotCount);
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_finalizeDLL(JNIEnv*, jclass) {
  if (!isBound()) return CKR_CRYPTOKI_NOT_INITIALIZED;

  std::free(allSessions);
  allSessions = nullptr;
  call(p, &CK_FUNCTION_LIST::C_Finalize, nullptr);
  freeSlotList();
  if (hModule != nullptr) dlclose(hModule);
  return asJava(rv);
}
