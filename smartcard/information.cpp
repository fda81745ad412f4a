#include <algorithm>
#include <span>

#include "com_calvenhor_vork_utils_Smartcard.h"
#include "marshal.h"
#include "memory.h"
#include "module.h"

namespace {

constexpr jlong kQueryFailed = -1;

/// A text field of a slot or token, including its padding, or the low 8 bits of `rv` if the query failed.
jbyteArray field(JNIEnv* env, std::span<const CK_UTF8CHAR> characters) {
  return rv == CKR_OK ? byteArray(env, characters) : StatusArray(env).set(rv);
}

}  // namespace

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_getSlotInfoDLL(JNIEnv*, jclass,
                                                                               jlong slotIndex) {
  if (!inRange(slotIndex)) return kBadSlotIndex;

  CK_SLOT_INFO slot;
  slot.flags = 0;  // the only field that is read
  if (call(&CK_FUNCTION_LIST::C_GetSlotInfo, slotAt(slotIndex), &slot) != CKR_OK) return kQueryFailed;
  return low32(slot.flags);
}

JNIEXPORT jbyteArray JNICALL
Java_com_calvenhor_vork_utils_Smartcard_readSlotDescriptionDLL(JNIEnv* env, jclass, jlong slotIndex) try {
  if (!inRange(slotIndex)) return StatusArray(env).set(rv);

  CK_SLOT_INFO slot = {};
  call(&CK_FUNCTION_LIST::C_GetSlotInfo, slotAt(slotIndex), &slot);
  return field(env, std::span(slot.slotDescription).first<32>());
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_getTokenInfoDLL(JNIEnv*, jclass,
                                                                                jlong slotIndex) {
  if (!inRange(slotIndex)) return kBadSlotIndex;

  // A failed query returns 0; in getSlotInfoDLL it returns -1.
  CK_TOKEN_INFO token;
  token.flags = 0;  // the only field that is read
  return call(&CK_FUNCTION_LIST::C_GetTokenInfo, slotAt(slotIndex), &token) == CKR_OK ? asJava(token.flags)
                                                                                      : 0;
}

JNIEXPORT jbyteArray JNICALL Java_com_calvenhor_vork_utils_Smartcard_readCardLabelDLL(JNIEnv* env, jclass,
                                                                                      jlong slotIndex) try {
  CK_TOKEN_INFO token = {};
  call(&CK_FUNCTION_LIST::C_GetTokenInfo, slotAt(slotIndex), &token);
  return field(env, token.label);
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jbyteArray JNICALL
Java_com_calvenhor_vork_utils_Smartcard_readCardSerialNumberDLL(JNIEnv* env, jclass, jlong slotIndex) try {
  CK_TOKEN_INFO token = {};
  call(&CK_FUNCTION_LIST::C_GetTokenInfo, slotAt(slotIndex), &token);
  return field(env, token.serialNumber);
} catch (...) {
  return outOfMemoryStatus(env);
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_waitForSlotEventDLL(JNIEnv*, jclass, jlong) {
  CK_SLOT_ID slot = 0;
  return asJava(call(&CK_FUNCTION_LIST::C_WaitForSlotEvent, 0, &slot, nullptr));
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_getMechanismInfoDLL(JNIEnv*, jclass,
                                                                                    jlong slotIndex,
                                                                                    jlong mechanismType) {
  if (!inRange(slotIndex)) return kBadSlotIndex;

  CK_MECHANISM_INFO mechanism = {};
  if (call(&CK_FUNCTION_LIST::C_GetMechanismInfo, slotAt(slotIndex),
           static_cast<CK_MECHANISM_TYPE>(mechanismType), &mechanism) != CKR_OK) {
    return kQueryFailed;
  }
  return asJava(mechanism.flags);
}

JNIEXPORT jintArray JNICALL Java_com_calvenhor_vork_utils_Smartcard_getSupportedMechanismListDLL(
    JNIEnv* env, jclass, jlong slotIndex) try {
  const Slot slot = slotAt(slotIndex);
  CK_ULONG count = 0;
  if (call(&CK_FUNCTION_LIST::C_GetMechanismList, slot, nullptr, &count) != CKR_OK) return intArray(env, {});
  if (count > kLongestArray) return intArray(env, {});

  const CK_ULONG capacity = count;
  const auto types = zeroed<CK_MECHANISM_TYPE>(capacity);
  call(&CK_FUNCTION_LIST::C_GetMechanismList, slot, types.get(), &count);
  count = std::min(count, capacity);

  const auto numbers = zeroed<jint>(count);
  for (CK_ULONG k = 0; k < count; ++k) {
    // Zeros are not written: that would commit memory for entries that a module only claims to have.
    if (types[k] != 0) numbers[k] = low32(types[k]);
  }
  return intArray(env, std::span(numbers.get(), count));
} catch (...) {
  return outOfMemoryNumbers(env);
}
