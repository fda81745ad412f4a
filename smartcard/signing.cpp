#include <array>

#include "com_calvenhor_vork_utils_Smartcard.h"
#include "marshal.h"
#include "module.h"
#include "search.h"
#include "templates.h"

namespace {

constexpr CK_ULONG kSignatureCapacity = 1024;
constexpr CK_ULONG kSignatureWithIdCapacity = 1025;

}  // namespace

JNIEXPORT jbyteArray JNICALL Java_com_calvenhor_vork_utils_Smartcard_signDLL(JNIEnv* env, jclass,
                                                                             jlong slotIndex,
                                                                             jbyteArray jData) try {
  const TracedCall traced;
  if (anyNull(jData)) return StatusArray(env).set(CKR_ARGUMENTS_BAD);
  const Session session = sessionAt(slotIndex);
  ByteInput data(env, jData);
  data.take();
  const StatusArray status(env);

  Search search(session, std::array{objectClass<CKO_PRIVATE_KEY>()});
  search.next();
  search.end();
  if (!search.found()) return status.set(0);

  std::array<CK_BYTE, kSignatureCapacity> signature = {};
  CK_ULONG length = signature.size();
  CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
  if (call(&CK_FUNCTION_LIST::C_SignInit, session, &mechanism, search.object()) != CKR_OK) {
    trace("C_SignInit = 0x%x\n", hex32(rv));
    return status.set(rv);
  }
  call(&CK_FUNCTION_LIST::C_Sign, session, data.data(), data.size(), signature.data(), &length);
  trace("*** JNI *** C_Sign = %d\n", dec32(rv));
  trace("*** JNI *** resultLen = %ld\n", static_cast<long>(length));
  if (rv != CKR_OK) {
    trace("C_Sign rv = %d\n", dec32(rv));
    trace("ResultLen = %ld\n", static_cast<long>(length));
    return status.set(rv);
  }
  if (length > signature.size()) return status.set(CKR_GENERAL_ERROR);

  data.release();
  trace("*** JNI ***  dataTemp released\n");
  const jbyteArray result = byteArray(env, std::span(signature).first(length));
  trace("*** JNI ***  Result set to environment\n");
  data.discard();
  trace("*** JNI ***  data deleted\n");
  return result;
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jbyteArray JNICALL Java_com_calvenhor_vork_utils_Smartcard_signWithIDDLL(JNIEnv* env, jclass,
                                                                                   jlong slotIndex,
                                                                                   jbyteArray jData,
                                                                                   jbyteArray jId) try {
  const TracedCall traced;
  if (anyNull(jData, jId)) return StatusArray(env).set(CKR_ARGUMENTS_BAD);
  const Session session = sessionAt(slotIndex);
  ByteInput id(env, jId);
  trace("Query ID Len = %d\n", id.length());
  id.take();
  ByteInput data(env, jData);
  data.take();
  const StatusArray status(env);

  Search search(session, std::array{objectClass<CKO_PRIVATE_KEY>(), bytes(CKA_ID, id)});
  trace("C_FindObjectsInit = 0x%x\n", hex32(rv));
  search.next();
  trace("C_FindObjects = 0x%x\n", hex32(rv));
  trace("ObjectCount = %d\n", dec32(search.count()));
  if (rv != CKR_OK) {
    trace("FindObjects failed\n");
    return status.set(rv);
  }
  search.end();
  trace("C_FindObjectsFinal = 0x%x\n", hex32(rv));
  id.release();
  id.discard();
  if (!search.found()) return status.set(0);

  Buffer<CK_BYTE> signature = tryZeroed<CK_BYTE>(kSignatureWithIdCapacity);
  trace("once result = 0x%x\n", hex32(reinterpret_cast<CK_ULONG>(signature.get())));
  if (signature == nullptr) {
    signature = tryZeroed<CK_BYTE>(kSignatureWithIdCapacity);
    if (signature == nullptr) trace("new for result returns null\n");
  }
  trace("sonra result = 0x%x\n", hex32(reinterpret_cast<CK_ULONG>(signature.get())));
  if (signature == nullptr) return status.set(CKR_HOST_MEMORY);

  CK_ULONG length = kSignatureWithIdCapacity;
  CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
  call(&CK_FUNCTION_LIST::C_SignInit, session, &mechanism, search.object());
  trace("C_SignInit = 0x%x\n", hex32(rv));
  call(&CK_FUNCTION_LIST::C_Sign, session, data.data(), data.size(), signature.get(), &length);
  trace("C_Sign = 0x%x\n", hex32(rv));
  trace("resultLen = %d\n", dec32(length));
  if (rv != CKR_OK) return status.set(rv);
  if (length > kSignatureWithIdCapacity) return status.set(CKR_GENERAL_ERROR);

  data.release();
  return byteArray(env, std::span(signature.get(), length));
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jbyteArray JNICALL Java_com_calvenhor_vork_utils_Smartcard_generateKeyPairDLL(
    JNIEnv* env, jclass, jlong slotIndex, jlong modulusBits, jbyteArray jPublicExponent, jbyteArray jId,
    jbyteArray jLabel) try {
  if (anyNull(jPublicExponent, jId, jLabel)) return StatusArray(env).set(CKR_ARGUMENTS_BAD);
  const Session session = sessionAt(slotIndex);
  ByteInput label(env, jLabel);
  label.take();
  ByteInput id(env, jId);
  id.take();
  ByteInput publicExponent(env, jPublicExponent);
  publicExponent.take();

  CK_MECHANISM mechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
  auto bits = static_cast<CK_ULONG>(modulusBits);
  std::array publicTemplate = {
      bytes(CKA_ID, id),
      bytes(CKA_LABEL, label),
      flag(CKA_ENCRYPT, yes),
      flag(CKA_VERIFY, yes),
      flag(CKA_WRAP, yes),
      flag(CKA_TOKEN, yes),
      CK_ATTRIBUTE{CKA_MODULUS_BITS, &bits, sizeof bits},
      bytes(CKA_PUBLIC_EXPONENT, publicExponent),
  };
  // clang-format off
  std::array privateTemplate = {
      bytes(CKA_ID, id),
      bytes(CKA_LABEL, label),
      flag(CKA_TOKEN, yes),
      flag(CKA_DECRYPT, yes),
      flag(CKA_SIGN, yes),
      flag(CKA_UNWRAP, yes),
      flag(CKA_PRIVATE, yes),
      flag(CKA_SENSITIVE, yes),
      flag(CKA_EXTRACTABLE, no),
  };
  // clang-format on
  CK_OBJECT_HANDLE publicKey = 0;
  CK_OBJECT_HANDLE privateKey = 0;
  if (call(&CK_FUNCTION_LIST::C_GenerateKeyPair, session, &mechanism, publicTemplate.data(),
           publicTemplate.size(), privateTemplate.data(), privateTemplate.size(), &publicKey,
           &privateKey) != CKR_OK) {
    return StatusArray(env).set(rv);
  }

  AttributeRead<1> modulus(session, publicKey, {CKA_MODULUS});
  if (modulus.readLengths() != CKR_OK) return StatusArray(env).set(rv);
  if (const CK_RV result = modulus.readValues(); result != CKR_OK) return StatusArray(env).set(result);
  const jbyteArray result = byteArray(env, modulus[0]);
  releaseAll(id, label, publicExponent);
  return result;
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_decryptDLL(JNIEnv*, jclass) { return 1; }
