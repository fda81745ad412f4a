#include <array>

#include "com_calvenhor_vork_utils_Smartcard.h"
#include "marshal.h"
#include "module.h"
#include "search.h"
#include "templates.h"

namespace {

constexpr std::size_t kMaxDeleted = 20;

CK_RV destroy(Session session, CK_OBJECT_HANDLE object) {
  return call(&CK_FUNCTION_LIST::C_DestroyObject, session, object);
}

/// Destroys the first object that matches, once the search has ended. No match is not a failure.
template <std::size_t N>
jlong destroyFirst(Session session, const std::array<CK_ATTRIBUTE, N>& wanted) {
  Search search(session, wanted);
  runTraced(search, "FindObjectsInit");
  if (search.found()) {
    destroy(session, search.object());
    trace("DestroyObject = %d", dec32(rv));
  }
  return asJava(rv);
}

/// deletePublicKeyDLL and deletePrivateKeyDLL.
template <CK_OBJECT_CLASS Class>
jlong deleteKey(JNIEnv* env, jlong slotIndex, jbyteArray jId) try {
  const TracedCall traced;
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  if (anyNull(jId)) return CKR_ARGUMENTS_BAD;
  ByteInput id(env, jId);
  id.take();

  return destroyFirst(sessionAt(slotIndex), tokenKeySearch<Class>(id));
} catch (...) {
  return CKR_HOST_MEMORY;
}

}  // namespace

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_deleteDLL(JNIEnv*, jclass, jlong slotIndex) {
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  const Session session = sessionAt(slotIndex);

  Search<kMaxDeleted> search(session);
  search.next();
  for (const CK_OBJECT_HANDLE object : search.objects()) destroy(session, object);
  return asJava(search.end());
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_deleteCertificateDLL(
    JNIEnv* env, jclass, jlong slotIndex, jbyteArray jSubject, jbyteArray jIssuer, jbyteArray jSerialNumber,
    jbyteArray jId, jbyteArray jLabel) try {
  const TracedCall traced;
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  if (anyNull(jSubject, jIssuer, jSerialNumber, jId, jLabel)) return CKR_ARGUMENTS_BAD;
  ByteInput id(env, jId);
  CertificateFields fields = {{env, jSubject}, {env, jIssuer}, {env, jSerialNumber}};
  ByteInput label(env, jLabel);
  takeAll(label, id, fields);

  const jlong result = destroyFirst(sessionAt(slotIndex), certificateSearch(fields, id, label));

  releaseAll(fields, id, label);
  discardAll(fields, id, label);
  return result;
} catch (...) {
  return CKR_HOST_MEMORY;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_deletePublicKeyDLL(JNIEnv* env, jclass,
                                                                                   jlong slotIndex,
                                                                                   jbyteArray jId) {
  return deleteKey<CKO_PUBLIC_KEY>(env, slotIndex, jId);
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_deletePrivateKeyDLL(JNIEnv* env, jclass,
                                                                                    jlong slotIndex,
                                                                                    jbyteArray jId) {
  return deleteKey<CKO_PRIVATE_KEY>(env, slotIndex, jId);
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_deleteAllCertificatesDLL(JNIEnv*, jclass,
                                                                                         jlong slotIndex) {
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  const Session session = sessionAt(slotIndex);

  for (;;) {
    Search search(session, std::array{objectClass<CKO_CERTIFICATE>(), x509(), flag(CKA_TOKEN, yes)});
    search.next();
    if (!search.found()) return asJava(search.end());
    // Without this return, the next search would find the same certificate again, endlessly.
    if (destroy(session, search.object()) != CKR_OK) return asJava(rv);
    search.end();
  }
}
