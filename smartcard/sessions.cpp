#include <algorithm>
#include <array>

#include "com_calvenhor_vork_utils_Smartcard.h"
#include "marshal.h"
#include "module.h"

namespace {

/// The label that initTokenDLL gives every token: 32 characters, padded with spaces as PKCS#11 requires, and
/// a NUL, because some modules read the label as a C string.
using TokenLabel = std::array<CK_UTF8CHAR, 33>;

TokenLabel tokenLabel() {
  constexpr std::array<CK_UTF8CHAR, 8> name = {'Y', 'E', 'N', 'I', 'K', 'A', 'R', 'T'};
  TokenLabel label;
  label.fill(' ');
  label.back() = '\0';
  std::copy(name.begin(), name.end(), label.begin());
  return label;
}

}  // namespace

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_openSessionDLL(JNIEnv*, jclass,
                                                                               jlong slotIndex) {
  const TracedCall traced;
  if (!inRange(slotIndex)) return kBadSlotIndex;

  trace("Slot %d deneniyor...", dec32(static_cast<CK_ULONG>(slotIndex)));
  CK_SESSION_HANDLE session = 0;
  call(&CK_FUNCTION_LIST::C_OpenSession, slotAt(slotIndex), CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr,
       nullptr, &session);
  trace("Open sessþon result = 0x%x\n", hex32(rv));

  // An earlier session of this slot stays open in the module until closeSessionDLL closes all sessions.
  if (rv == CKR_OK) recordSession(slotIndex, session);
  return asJava(rv);
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_closeSessionDLL(JNIEnv*, jclass,
                                                                                jlong slotIndex) {
  if (!hasSession(slotIndex)) return kBadSlotIndex;

  call(&CK_FUNCTION_LIST::C_CloseSession, sessionAt(slotIndex));
  for (CK_ULONG k = 0; k < ulSlotCount; ++k) {
    call(&CK_FUNCTION_LIST::C_CloseAllSessions, slotAt(static_cast<jlong>(k)));
  }
  return asJava(rv);
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_isSessionOpenDLL(JNIEnv*, jclass,
                                                                                 jlong slotIndex) {
  if (!hasSession(slotIndex)) return kBadSlotIndex;

  CK_SESSION_INFO information = {};
  return asJava(call(&CK_FUNCTION_LIST::C_GetSessionInfo, sessionAt(slotIndex), &information));
}

JNIEXPORT jintArray JNICALL Java_com_calvenhor_vork_utils_Smartcard_getSessionInfoDLL(JNIEnv* env, jclass,
                                                                                      jlong slotIndex) try {
  CK_SESSION_INFO information = {};
  std::array<jint, 4> result = {};
  if (call(&CK_FUNCTION_LIST::C_GetSessionInfo, sessionAt(slotIndex), &information) == CKR_OK) {
    result = {low32(information.state), low32(information.flags), low32(information.slotID),
              low32(information.ulDeviceError)};
  } else {
    result = {low32(rv), -1, -1, -1};
  }
  return intArray(env, result);
} catch (...) {
  return nullptr;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_loginDLL(JNIEnv* env, jclass, jlong slotIndex,
                                                                         jstring jPin, jlong userType) try {
  const TracedCall traced;
  trace("Login started...\n");
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  const Session session = sessionAt(slotIndex);
  const auto user = static_cast<CK_USER_TYPE>(userType);

  if (jPin == nullptr) return asJava(call(&CK_FUNCTION_LIST::C_Login, session, user, nullptr, 0));

  const StringInput pin(env, jPin);
  call(&CK_FUNCTION_LIST::C_Login, session, user, pin.pin(), pin.length());
  trace("Login result = 0x%x\n", hex32(rv));
  return asJava(rv);
} catch (...) {
  return CKR_HOST_MEMORY;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_logoutDLL(JNIEnv*, jclass, jlong slotIndex) {
  if (!hasSession(slotIndex)) return kBadSlotIndex;

  return asJava(call(&CK_FUNCTION_LIST::C_Logout, sessionAt(slotIndex)));
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_changePINDLL(JNIEnv* env, jclass,
                                                                             jlong slotIndex, jstring jOldPin,
                                                                             jlong oldLength, jstring jNewPin,
                                                                             jlong newLength) try {
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  if (anyNull(jOldPin, jNewPin)) return CKR_ARGUMENTS_BAD;

  const StringInput oldPin(env, jOldPin);
  const StringInput newPin(env, jNewPin);
  if (!oldPin.hasAtLeast(oldLength) || !newPin.hasAtLeast(newLength)) return CKR_PIN_LEN_RANGE;
  return asJava(call(&CK_FUNCTION_LIST::C_SetPIN, sessionAt(slotIndex), oldPin.pin(),
                     static_cast<CK_ULONG>(oldLength), newPin.pin(), static_cast<CK_ULONG>(newLength)));
} catch (...) {
  return CKR_HOST_MEMORY;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_initTokenDLL(JNIEnv* env, jclass,
                                                                             jlong slotIndex, jstring jPin,
                                                                             jlong length) try {
  if (!inRange(slotIndex)) return kBadSlotIndex;
  if (anyNull(jPin)) return CKR_ARGUMENTS_BAD;

  const StringInput pin(env, jPin);
  if (!pin.hasAtLeast(length)) return CKR_PIN_LEN_RANGE;
  TokenLabel label = tokenLabel();
  return asJava(call(&CK_FUNCTION_LIST::C_InitToken, slotAt(slotIndex), pin.pin(),
                     static_cast<CK_ULONG>(length), label.data()));
} catch (...) {
  return CKR_HOST_MEMORY;
}

JNIEXPORT jlong JNICALL Java_com_calvenhor_vork_utils_Smartcard_initUserPINDLL(JNIEnv* env, jclass,
                                                                               jlong slotIndex, jstring jPin,
                                                                               jlong length) try {
  if (!hasSession(slotIndex)) return kBadSlotIndex;
  if (anyNull(jPin)) return CKR_ARGUMENTS_BAD;

  const StringInput pin(env, jPin);
  if (!pin.hasAtLeast(length)) return CKR_PIN_LEN_RANGE;
  return asJava(
      call(&CK_FUNCTION_LIST::C_InitPIN, sessionAt(slotIndex), pin.pin(), static_cast<CK_ULONG>(length)));
} catch (...) {
  return CKR_HOST_MEMORY;
}
