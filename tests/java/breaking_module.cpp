// The software token's module, but that it crashes on a document that is the path of a file, which it
// removes, and hangs on another one.

#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

CK_FUNCTION_LIST* genuine;
CK_FUNCTION_LIST functions;

CK_RV sign(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length, CK_BYTE* signature, CK_ULONG* room) {
  const std::string document(reinterpret_cast<const char*>(data), length);
  if (unlink(document.c_str()) == 0) std::abort();
  while (document == "hang") pause();
  return genuine->C_Sign(session, data, length, signature, room);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  void* const module = dlopen(SOFTHSM2_MODULE, RTLD_NOW);
  if (module == nullptr) return CKR_GENERAL_ERROR;
  const auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"));
  const CK_RV result = get(&genuine);
  if (result != CKR_OK) return result;
  functions = *genuine;
  functions.C_Sign = sign;
  *list = &functions;
  return CKR_OK;
}
