// A PKCS#11 module that takes almost no time, so that the benchmark measures the caller. Its token has a
// private key and BENCH_CERTIFICATES certificates. A search compares no values: a template that starts with
// CKA_CLASS finds the key, any other template finds the certificates.

#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>

namespace {

constexpr CK_OBJECT_HANDLE kPrivateKey = 1;  // the certificates have the next handles
constexpr CK_ULONG kSignatureLength = 256;

CK_OBJECT_HANDLE lastObject = 0;

// One search at a time is enough, because the implementations take turns.
CK_OBJECT_HANDLE nextFound = 0;
CK_OBJECT_HANDLE lastFound = 0;

CK_RV initialize(void*) {
  lastObject = kPrivateKey + std::strtoul(std::getenv("BENCH_CERTIFICATES"), nullptr, 10);
  return CKR_OK;
}

CK_RV findObjectsInit(CK_SESSION_HANDLE, CK_ATTRIBUTE* wanted, CK_ULONG) {
  const bool isKey = wanted->type == CKA_CLASS;
  nextFound = isKey ? kPrivateKey : kPrivateKey + 1;
  lastFound = isKey ? kPrivateKey : lastObject;
  return CKR_OK;
}

CK_RV findObjects(CK_SESSION_HANDLE, CK_OBJECT_HANDLE* objects, CK_ULONG capacity, CK_ULONG* count) {
  for (*count = 0; *count < capacity && nextFound <= lastFound; ++*count) objects[*count] = nextFound++;
  return CKR_OK;
}

CK_RV getAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* attributes, CK_ULONG size) {
  for (CK_ATTRIBUTE& wanted : std::span(attributes, size)) {
    wanted.ulValueLen = wanted.type == CKA_VALUE ? 800 : wanted.type == CKA_LABEL ? 17 : sizeof object;
    if (wanted.pValue == nullptr) continue;
    std::memset(wanted.pValue, 0, wanted.ulValueLen);
    std::memcpy(wanted.pValue, &object, sizeof object);  // makes each object different
  }
  return CKR_OK;
}

CK_RV sign(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE* signature, CK_ULONG* length) {
  *length = kSignatureLength;
  std::fill_n(signature, kSignatureLength, CK_BYTE{0});
  return CKR_OK;
}

}  // namespace

extern "C" [[gnu::visibility("default")]] CK_RV C_GetFunctionList(CK_FUNCTION_LIST** result) {
  static CK_FUNCTION_LIST list = {};
  list.C_Initialize = initialize;
  list.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID* slots, CK_ULONG* count) -> CK_RV {
    if (slots != nullptr) *slots = 0;
    *count = 1;
    return CKR_OK;
  };
  list.C_GetSlotInfo = [](CK_SLOT_ID, CK_SLOT_INFO* slot) -> CK_RV {
    slot->flags = CKF_TOKEN_PRESENT;
    return CKR_OK;
  };
  list.C_OpenSession = [](CK_SLOT_ID, CK_FLAGS, void*, CK_NOTIFY, CK_SESSION_HANDLE* session) -> CK_RV {
    *session = 1;
    return CKR_OK;
  };
  list.C_Login = [](CK_SESSION_HANDLE, CK_USER_TYPE, CK_BYTE*, CK_ULONG) -> CK_RV { return CKR_OK; };
  list.C_FindObjectsInit = findObjectsInit;
  list.C_FindObjects = findObjects;
  list.C_FindObjectsFinal = [](CK_SESSION_HANDLE) -> CK_RV { return CKR_OK; };
  list.C_GetAttributeValue = getAttributeValue;
  list.C_SignInit = [](CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE) -> CK_RV { return CKR_OK; };
  list.C_Sign = sign;
  *result = &list;
  return CKR_OK;
}
