// The state of one faulty module: the requested faults, and the slots and sessions of the genuine module.
#pragma once

#include <p11-kit/pkcs11.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace faulty {

constexpr unsigned kCard = 1;     // needs the card, even if the module caches token data
constexpr unsigned kSlot = 2;     // its first argument is a slot
constexpr unsigned kSession = 4;  // its first argument is a session

/// All functions. F(name, traits, code): the code that the function returns while a removed card is treated
/// as empty; CKR_OK calls the genuine module. E(name, traits, ender): a function whose failure ends its
/// operation; `ender` is the function that ends the operation in the genuine module.
#define FAULTY_FUNCTIONS(F, E)                                        \
  F(C_Initialize, 0, CKR_OK)                                          \
  F(C_Finalize, 0, CKR_OK)                                            \
  F(C_GetInfo, 0, CKR_OK)                                             \
  F(C_GetFunctionList, 0, CKR_OK)                                     \
  F(C_GetSlotList, 0, CKR_OK)                                         \
  F(C_WaitForSlotEvent, 0, CKR_OK)                                    \
  F(C_GetSlotInfo, kSlot, CKR_OK)                                     \
  F(C_GetTokenInfo, kSlot, CKR_GENERAL_ERROR)                         \
  F(C_GetMechanismList, kSlot, CKR_OK)                                \
  F(C_GetMechanismInfo, kSlot, CKR_OK)                                \
  F(C_InitToken, kSlot | kCard, CKR_GENERAL_ERROR)                    \
  F(C_OpenSession, kSlot, CKR_OK)                                     \
  F(C_CloseAllSessions, kSlot, CKR_OK)                                \
  F(C_CloseSession, kSession, CKR_OK)                                 \
  F(C_GetSessionInfo, kSession, CKR_OK)                               \
  F(C_GetOperationState, kSession, CKR_OK)                            \
  F(C_SetOperationState, kSession, CKR_OK)                            \
  F(C_InitPIN, kSession | kCard, CKR_GENERAL_ERROR)                   \
  F(C_SetPIN, kSession | kCard, CKR_GENERAL_ERROR)                    \
  F(C_Login, kSession, CKR_OK)                                        \
  F(C_Logout, kSession | kCard, CKR_OK)                               \
  F(C_CreateObject, kSession | kCard, CKR_GENERAL_ERROR)              \
  F(C_CopyObject, kSession | kCard, CKR_OBJECT_HANDLE_INVALID)        \
  F(C_DestroyObject, kSession | kCard, CKR_OBJECT_HANDLE_INVALID)     \
  F(C_GetObjectSize, kSession, CKR_OBJECT_HANDLE_INVALID)             \
  F(C_GetAttributeValue, kSession, CKR_OBJECT_HANDLE_INVALID)         \
  F(C_SetAttributeValue, kSession | kCard, CKR_OBJECT_HANDLE_INVALID) \
  F(C_FindObjectsInit, kSession, CKR_OK)                              \
  F(C_FindObjects, kSession, CKR_OK)                                  \
  E(C_FindObjectsFinal, kSession, C_FindObjectsFinal)                 \
  F(C_EncryptInit, kSession, CKR_OBJECT_HANDLE_INVALID)               \
  E(C_Encrypt, kSession | kCard, C_Encrypt)                           \
  E(C_EncryptUpdate, kSession | kCard, C_EncryptFinal)                \
  E(C_EncryptFinal, kSession | kCard, C_EncryptFinal)                 \
  F(C_DecryptInit, kSession, CKR_OBJECT_HANDLE_INVALID)               \
  E(C_Decrypt, kSession | kCard, C_Decrypt)                           \
  E(C_DecryptUpdate, kSession | kCard, C_DecryptFinal)                \
  E(C_DecryptFinal, kSession | kCard, C_DecryptFinal)                 \
  F(C_DigestInit, kSession, CKR_OK)                                   \
  E(C_Digest, kSession, C_Digest)                                     \
  E(C_DigestUpdate, kSession, C_DigestFinal)                          \
  E(C_DigestKey, kSession, C_DigestFinal)                             \
  E(C_DigestFinal, kSession, C_DigestFinal)                           \
  F(C_SignInit, kSession, CKR_OBJECT_HANDLE_INVALID)                  \
  E(C_Sign, kSession | kCard, C_Sign)                                 \
  E(C_SignUpdate, kSession | kCard, C_SignFinal)                      \
  E(C_SignFinal, kSession | kCard, C_SignFinal)                       \
  F(C_SignRecoverInit, kSession, CKR_OBJECT_HANDLE_INVALID)           \
  E(C_SignRecover, kSession | kCard, C_SignRecover)                   \
  F(C_VerifyInit, kSession, CKR_OBJECT_HANDLE_INVALID)                \
  E(C_Verify, kSession | kCard, C_Verify)                             \
  E(C_VerifyUpdate, kSession | kCard, C_VerifyFinal)                  \
  E(C_VerifyFinal, kSession | kCard, C_VerifyFinal)                   \
  F(C_VerifyRecoverInit, kSession, CKR_OBJECT_HANDLE_INVALID)         \
  E(C_VerifyRecover, kSession | kCard, C_VerifyRecover)               \
  E(C_DigestEncryptUpdate, kSession | kCard, C_EncryptFinal)          \
  E(C_DecryptDigestUpdate, kSession | kCard, C_DecryptFinal)          \
  E(C_SignEncryptUpdate, kSession | kCard, C_EncryptFinal)            \
  E(C_DecryptVerifyUpdate, kSession | kCard, C_DecryptFinal)          \
  F(C_GenerateKey, kSession | kCard, CKR_GENERAL_ERROR)               \
  F(C_GenerateKeyPair, kSession | kCard, CKR_GENERAL_ERROR)           \
  F(C_WrapKey, kSession | kCard, CKR_OBJECT_HANDLE_INVALID)           \
  F(C_UnwrapKey, kSession | kCard, CKR_OBJECT_HANDLE_INVALID)         \
  F(C_DeriveKey, kSession | kCard, CKR_OBJECT_HANDLE_INVALID)         \
  F(C_SeedRandom, kSession | kCard, CKR_OK)                           \
  F(C_GenerateRandom, kSession | kCard, CKR_OK)                       \
  F(C_GetFunctionStatus, kSession, CKR_OK)                            \
  F(C_CancelFunction, kSession, CKR_OK)

#define FAULTY_NUMBER(name, ...) k##name,
enum Function : std::size_t { FAULTY_FUNCTIONS(FAULTY_NUMBER, FAULTY_NUMBER) kFunctions };
#undef FAULTY_NUMBER

struct Row {
  const char* name;
  unsigned traits;
  CK_RV codeWhenEmpty;
};
#define FAULTY_ROW(name, traits, codeWhenEmpty) {#name, traits, codeWhenEmpty},
#define FAULTY_ENDING_ROW(name, traits, ender) {#name, traits, CKR_OK},
constexpr Row kRows[] = {FAULTY_FUNCTIONS(FAULTY_ROW, FAULTY_ENDING_ROW)};
#undef FAULTY_ROW
#undef FAULTY_ENDING_ROW

/// How the module behaves after a removal. Java passes the ordinal of FaultyModule.Removal, so the order must
/// be the same.
enum class Removal { kStandard, kEmpty, kCached };

/// The settings of a slot of the genuine module.
struct Slot {
  bool hasCard = true;
  bool isRemovable = false;
  Removal removal = Removal::kStandard;  // other values while their behaviour lasts
  bool hasPinPad = false;
  std::optional<std::string> padPin;
  unsigned tries = 0;  // 0: no limit
  unsigned wrongPins = 0;

  bool isReportedEmpty() const { return !hasCard && removal == Removal::kStandard; }
  bool isLocked() const { return tries > 0 && wrongPins >= tries; }
};

struct Session {
  std::size_t slot;
  bool isLost = false;    // the card was removed
  bool isClosed = false;  // the genuine module has closed it
  unsigned calls = 0;     // calls in progress
};

/// The requested faults of one function.
struct Faults {
  std::map<std::uint64_t, CK_RV> failures;  // by the number of the call
  std::uint64_t calls = 0;
  std::chrono::nanoseconds delay{};
  bool hangs = false;
  bool crashes = false;
};

/// Each copy of the library has one. The mutex guards the members below it. The mutex is never held during a
/// call to the genuine module.
struct State {
  CK_FUNCTION_LIST* genuine = nullptr;
  CK_FUNCTION_LIST list{};
  void* library = nullptr;  // this copy, loaded by the copy whose native methods the JVM calls
  void* genuineLibrary = nullptr;

  std::mutex mutex;
  std::condition_variable released;
  std::uint64_t releases = 0;
  std::array<Faults, kFunctions> faults;
  std::vector<Function> calls;
  std::map<std::size_t, Slot> slots;  // by the index in the genuine module
  std::map<CK_SESSION_HANDLE, std::shared_ptr<Session>> sessions;
  std::vector<CK_SLOT_ID> ids;           // as the genuine module last listed them
  std::vector<std::size_t> order;        // the genuine index of each slot; empty: the genuine order
  std::vector<std::size_t> wantedOrder;  // for the next C_Initialize

  std::size_t genuineSlot(std::size_t index) const { return index < order.size() ? order[index] : index; }

  void removeCard(std::size_t slot, Removal removal) {
    slots[slot].hasCard = false;
    slots[slot].isRemovable = true;
    slots[slot].removal = removal;
    if (removal == Removal::kStandard) loseSessions(slot);
  }

  void loseSessions(std::size_t slot) {
    slots[slot].removal = Removal::kStandard;
    for (auto& [handle, session] : sessions)
      if (session->slot == slot) session->isLost = true;
  }

  /// Forgets sessions that are closed: from now on the genuine module refuses their handles itself.
  void insertCard(std::size_t slot) {
    slots[slot].hasCard = true;
    std::erase_if(sessions,
                  [&](const auto& entry) { return entry.second->slot == slot && entry.second->isClosed; });
  }
};

}  // namespace faulty

/// Makes this copy of the library wrap the module at a path. Returns null if the module cannot be loaded,
/// with the reason in `loadError`, or if it is not a PKCS#11 module.
extern "C" __attribute__((visibility("default"))) faulty::State* wrapModule(const char* path,
                                                                            const char** loadError);
