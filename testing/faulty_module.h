// The state of one faulty module: what was ordered of it, and what it knows of the module behind it.
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

constexpr unsigned kCard = 1;     // works on the card: no cached answer serves
constexpr unsigned kSlot = 2;     // its first argument is a slot
constexpr unsigned kSession = 4;  // its first argument is a session

/// All functions. F(name, traits, answer while a removed card passes for an empty one, or CKR_OK where that
/// is the genuine module's); E(name, traits, function that ends the operation which this one ends when it
/// fails).
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
  CK_RV whenEmpty;
};
#define FAULTY_ROW(name, traits, whenEmpty) {#name, traits, whenEmpty},
#define FAULTY_ENDING_ROW(name, traits, ender) {#name, traits, CKR_OK},
constexpr Row kRows[] = {FAULTY_FUNCTIONS(FAULTY_ROW, FAULTY_ENDING_ROW)};
#undef FAULTY_ROW
#undef FAULTY_ENDING_ROW

/// How the module takes the removal of a card, until it has noticed; in the order of FaultyModule.Removal.
enum class Removal { kStandard, kEmpty, kCached };

/// A slot of the genuine module, by its place there.
struct Slot {
  bool hasCard = true;
  bool isRemovable = false;
  Removal removal = Removal::kStandard;  // anything else: not noticed yet
  bool hasPinPad = false;
  std::optional<std::string> padPin;
  unsigned tries = 0;  // 0: no end of them
  unsigned wrongPins = 0;

  bool isSeenEmpty() const { return !hasCard && removal == Removal::kStandard; }
  bool isLocked() const { return tries > 0 && wrongPins >= tries; }
};

struct Session {
  std::size_t slot;
  bool isLost = false;    // its card is gone
  bool isClosed = false;  // in the genuine module
  unsigned calls = 0;     // under way
};

struct Orders {
  std::map<std::uint64_t, CK_RV> failures;  // by the number of the call
  std::uint64_t calls = 0;
  std::chrono::nanoseconds delay{};
  bool hangs = false;
  bool crashes = false;
};

/// Each copy of the library has one. The mutex guards all but the genuine function list, and is never held
/// while the genuine module runs.
struct State {
  CK_FUNCTION_LIST* genuine = nullptr;
  CK_FUNCTION_LIST list{};
  void* library = nullptr;  // the copy, which the controlling one has loaded
  void* genuineLibrary = nullptr;

  std::mutex mutex;
  std::condition_variable released;
  std::uint64_t releases = 0;
  std::array<Orders, kFunctions> orders;
  std::vector<Function> calls;
  std::map<std::size_t, Slot> slots;
  std::map<CK_SESSION_HANDLE, std::shared_ptr<Session>> sessions;
  std::vector<CK_SLOT_ID> ids;           // as the genuine module last listed them
  std::vector<std::size_t> order;        // the genuine module's slot in each place; none: its own order
  std::vector<std::size_t> wantedOrder;  // from the next C_Initialize on

  std::size_t genuineSlot(std::size_t place) const { return place < order.size() ? order[place] : place; }

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

  /// Of closed sessions nothing more is to be known: the genuine module refuses their handles itself.
  void insertCard(std::size_t slot) {
    slots[slot].hasCard = true;
    std::erase_if(sessions,
                  [&](const auto& known) { return known.second->slot == slot && known.second->isClosed; });
  }
};

}  // namespace faulty

/// Puts this copy of the library before the module of a path. Null if that cannot be loaded, with the reason,
/// or is no PKCS#11 module.
extern "C" __attribute__((visibility("default"))) faulty::State* faultyModuleBefore(const char* path,
                                                                                    const char** unloadable);
