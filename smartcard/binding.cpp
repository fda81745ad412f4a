#include <dlfcn.h>

#include <algorithm>

#include "com_calvenhor_vork_utils_Smartcard.h"
#include "marshal.h"
#include "memory.h"
#include "module.h"

namespace {

void* boundModule = nullptr;

constexpr jlong kNotLoadable = -1;
constexpr jlong kNotAPkcs11Module = -2;
constexpr jlong kNoSlots = -3;

/// A module loaded with dlopen. The destructor unloads it unless keep() was called. Traces are flushed first,
/// because dlopen and dlclose may run code of the module.
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

/// Gets the module's function list and initialises the module with it.
CK_RV initialise(CK_C_GetFunctionList getFunctionList, CK_FUNCTION_LIST_PTR& list) {
  list = nullptr;
  rv = getFunctionList(&list);
  if (rv != CKR_OK) return rv;
  trace("Got fuction list\n");

  if (call(list, &CK_FUNCTION_LIST::C_Initialize, nullptr) != CKR_OK) return rv;
  trace("Initialized=0x%x\n", hex32(rv));
  return rv;
}

/// initDLL while bound. The binding stays as it is, whatever the module returns.
CK_RV initialiseAgain(const LoadedModule& module, CK_C_GetFunctionList getFunctionList) {
  if (module.handle() != boundModule) return CKR_CRYPTOKI_ALREADY_INITIALIZED;

  CK_FUNCTION_LIST_PTR list = nullptr;
  const CK_RV result = initialise(getFunctionList, list);
  // Some modules return a new list every time and initialise each separately. The library keeps the first
  // list, so it finalises the new one.
  if (result == CKR_OK && list != p) call(list, &CK_FUNCTION_LIST::C_Finalize, nullptr);
  return result;
}

void freeSlotList() {
  std::free(pSlotList);
  pSlotList = nullptr;
}

/// Undoes a binding after C_Initialize. The reason is `failure`, or that there are no slots if `failure` is
/// CKR_OK. C_Finalize is traced if `cause` is given, the other steps only if there are no slots. The code of
/// C_Finalize stays in `rv`.
jlong abandonBinding(LoadedModule& module, CK_RV failure, const char* cause = nullptr) {
  const bool noSlots = failure == CKR_OK;
  const auto traceStep = [noSlots](const char* step) {
    if (noSlots) trace("%s...\n", step);
  };
  call(p, &CK_FUNCTION_LIST::C_Finalize, nullptr);
  if (cause != nullptr) trace("finalized (%s)=0x%x\n", cause, hex32(rv));
  if (pSlotList != nullptr) {
    traceStep("Freeing pSlotList");
    freeSlotList();
    traceStep("Freed pSlotList");
  }
  traceStep("Checked pSlotList");
  module.unload();
  traceStep("Freed library");
  return noSlots ? kNoSlots : asJava(failure);
}

}  // namespace

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_initDLL(JNIEnv* env, jclass,
                                                                        jstring jPath) try {
  const TracedCall traced;
  if (anyNull(jPath)) return CKR_ARGUMENTS_BAD;
  trace("INITIALIZE start\n");
  LoadedModule module;
  const StringInput path(env, jPath);
  trace("%s\n", path.characters());

  module.load(path.characters());
  if (!isBound()) boundModule = module.handle();
  if (module.handle() == nullptr) {
    trace("Error: DLL not found");
    return kNotLoadable;
  }
  const CK_C_GetFunctionList getFunctionList = module.functionListGetter();
  if (getFunctionList == nullptr) {
    trace("Error: C_GetFunctionList not found in DLL ");
    return kNotAPkcs11Module;
  }

  if (isBound()) return asJava(initialiseAgain(module, getFunctionList));
  if (initialise(getFunctionList, p) != CKR_OK) return asJava(rv);

  if (call(p, &CK_FUNCTION_LIST::C_GetSlotList, CK_FALSE, nullptr, &ulSlotCount) != CKR_OK) {
    return abandonBinding(module, rv, "getslotlist err");
  }
  trace("Slot_count = %d\n", dec32(ulSlotCount));
  if (ulSlotCount == 0) return abandonBinding(module, rv, "no slots");

  trace("Before slots malloc\n");
  const CK_ULONG capacity = ulSlotCount;
  pSlotList = tryZeroed<CK_SLOT_ID>(capacity).release();
  if (pSlotList == nullptr) return abandonBinding(module, CKR_HOST_MEMORY);
  trace("After slots malloc\n");

  call(p, &CK_FUNCTION_LIST::C_GetSlotList, CK_FALSE, pSlotList, &ulSlotCount);
  trace("Get Slot List = 0x%x\n", hex32(rv));
  if (rv != CKR_OK) return abandonBinding(module, rv);
  ulSlotCount = std::min(ulSlotCount, capacity);
  if (ulSlotCount == 0) return abandonBinding(module, rv, "no slots");

  allSessions = tryZeroed<CK_SESSION_HANDLE>(ulSlotCount).release();
  if (allSessions == nullptr) return abandonBinding(module, CKR_HOST_MEMORY);
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
  if (boundModule != nullptr) dlclose(boundModule);
  return asJava(rv);
}
