// The control surface of the mock PKCS#11 module, shared by the module and the tests.
//
// The library loads the module by path, like any vendor's. A test opens the same file with dlopen first,
// which keeps this state alive over the library's dlclose, and reaches it through the exported mockModule().
// All members are inline, so a test has nothing to link against.
#pragma once

#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mock {

using Bytes = std::vector<CK_BYTE>;
using Attributes = std::map<CK_ATTRIBUTE_TYPE, Bytes>;

// Real modules use heap addresses as handles: none of ours fits 32 bits, none is used twice.
inline constexpr CK_SESSION_HANDLE kFirstSession = 0x7e0000000501;
inline constexpr CK_OBJECT_HANDLE kFirstObject = 0x7f0000000010;

inline Bytes bytes(std::string_view text) { return {text.begin(), text.end()}; }
inline Bytes number(CK_ULONG value) {
  const auto* first = reinterpret_cast<const CK_BYTE*>(&value);
  return {first, first + sizeof value};
}
inline const Bytes kTrue{CK_TRUE};
inline const Bytes kFalse{CK_FALSE};

inline Attributes certificate(std::string_view id, std::string_view label, std::string_view value) {
  return {{CKA_CLASS, number(CKO_CERTIFICATE)},
          {CKA_CERTIFICATE_TYPE, number(CKC_X_509)},
          {CKA_ID, bytes(id)},
          {CKA_LABEL, bytes(label)},
          {CKA_VALUE, bytes(value)}};
}
inline Attributes publicKey(std::string_view id, std::string_view label, Bytes modulus = Bytes(256, 0xc1)) {
  return {{CKA_CLASS, number(CKO_PUBLIC_KEY)},
          {CKA_KEY_TYPE, number(CKK_RSA)},
          {CKA_ID, bytes(id)},
          {CKA_LABEL, bytes(label)},
          {CKA_MODULUS, std::move(modulus)},
          {CKA_PUBLIC_EXPONENT, {1, 0, 1}}};
}
inline Attributes privateKey(std::string_view id, std::string_view label, Bytes modulus = Bytes(256, 0xc1)) {
  Attributes key = publicKey(id, label, std::move(modulus));
  key[CKA_CLASS] = number(CKO_PRIVATE_KEY);
  key[CKA_SENSITIVE] = kTrue;
  return key;
}
inline Attributes data(std::string_view value) {
  return {{CKA_CLASS, number(CKO_DATA)}, {CKA_VALUE, bytes(value)}};
}

struct Object {
  CK_OBJECT_HANDLE handle;
  Attributes attributes;

  bool has(CK_ATTRIBUTE_TYPE type, const Bytes& value) const {
    const auto found = attributes.find(type);
    return found != attributes.end() && found->second == value;
  }
  bool isPrivate() const { return has(CKA_PRIVATE, kTrue); }
  std::size_t signatureLength() const {
    const auto modulus = attributes.find(CKA_MODULUS);
    return modulus == attributes.end() ? 256 : modulus->second.size();
  }
  /// What C_Sign answers for this key: no cryptography, but another key or other data give another signature.
  Bytes sign(const Bytes& data) const {
    Bytes signature(signatureLength());
    for (std::size_t i = 0; i < signature.size(); ++i) {
      const std::size_t mixed = 0x51 ^ i ^ handle ^ data.size() ^ (data.empty() ? 0 : data[i % data.size()]);
      signature[i] = static_cast<CK_BYTE>(mixed);
    }
    return signature;
  }
};

struct Mechanism {
  CK_MECHANISM_TYPE type;
  CK_MECHANISM_INFO info;
};

struct Slot {
  CK_SLOT_ID id = 0;
  CK_SLOT_INFO info{};    // without CKF_TOKEN_PRESENT in its flags, the slot is empty
  CK_TOKEN_INFO token{};  // with CKF_PROTECTED_AUTHENTICATION_PATH, C_Login takes a null PIN
  std::vector<Mechanism> mechanisms;
  std::string userPin = "1234";
  std::string soPin = "12345678";
  std::vector<Object> objects;  // searches yield them in this order
  std::optional<CK_USER_TYPE> login;
  CK_ULONG deviceError = 0;  // for C_GetSessionInfo
};

struct Session {
  CK_SLOT_ID slot = 0;
  CK_FLAGS flags = 0;
  std::optional<std::deque<CK_OBJECT_HANDLE>> search;  // what the active search has not yielded yet
  std::optional<CK_OBJECT_HANDLE> signingKey;
};

class Module {
 public:
  explicit Module(const CK_FUNCTION_LIST& genuineFunctions) : genuine(genuineFunctions) { reset(); }

  /// The module as it is when freshly loaded. Not while the library has it bound.
  void reset() {
    functions = genuine;
    list = &functions;
    freshListEachTime = acceptsSecondInitialize = false;
    freshLists.clear();
    initializations = 0;
    slots = {tokenSlot(0x11), emptySlot(0x22)};
    sessions.clear();
    yielded.clear();
    slotEvents.clear();
    log.clear();
    onCall = nullptr;
    faults_.clear();
    nextSession = kFirstSession;
    nextObject_ = kFirstObject;
  }

  // What C_GetFunctionList hands out. A test makes one function odd by swapping its pointer for a lambda
  // (which reaches the true one in `genuine`) or for null; functions that the library has no use for are null
  // anyway.
  const CK_FUNCTION_LIST genuine;
  CK_FUNCTION_LIST functions;
  CK_FUNCTION_LIST_PTR list;  // may be null
  bool freshListEachTime;     // every C_GetFunctionList hands out another copy of `functions`
  std::deque<CK_FUNCTION_LIST> freshLists;

  bool acceptsSecondInitialize;  // answers CKR_OK; the module ends at the C_Finalize that matches the first
  int initializations;

  std::vector<Slot> slots;  // [0]: ID 0x11, holds a token; [1]: ID 0x22, empty
  std::map<CK_SESSION_HANDLE, Session> sessions;
  CK_SESSION_HANDLE nextSession;
  std::set<CK_OBJECT_HANDLE> yielded;  // by searches and key generation, until a test clears it
  std::deque<CK_SLOT_ID> slotEvents;   // for C_WaitForSlotEvent; with none left it is not supported

  /// Every call in order, as text with its arguments. Bytes are hexadecimal, PINs and labels are in quotes, a
  /// null pointer is `null`; `CKA_ID/16` in a template is a buffer of 16 bytes, `CKA_ID/null` a length query.
  std::vector<std::string> log;
  std::function<void(const std::string& name)> onCall;  // runs at each call, once it is logged

  /// The names alone, with a blank between two.
  std::string names() const {
    std::string all;
    for (const auto& line : log) all += (all.empty() ? "" : " ") + line.substr(0, line.find('('));
    return all;
  }
  std::size_t callsOf(const std::string& name) const {
    return static_cast<std::size_t>(std::count_if(
        log.begin(), log.end(), [&](const auto& line) { return line.starts_with(name + "("); }));
  }

  /// The nth call of the function from now, the next one being 1, answers `code` and does nothing else. What
  /// ends an operation ends it all the same: C_FindObjectsFinal, C_Finalize and, but for a buffer that is too
  /// small, C_Sign.
  void failAt(const std::string& name, std::size_t nth, CK_RV code) { faults_.push_back({name, nth, code}); }

  /// For the module itself: logs a call and answers the failure that a test has ordered for it, or CKR_OK.
  CK_RV enter(const std::string& name, const std::string& arguments) {
    log.push_back(name + "(" + arguments + ")");
    if (const auto hook = onCall) hook(log.back());
    CK_RV code = CKR_OK;
    for (auto& fault : faults_)
      if (fault.name == name && fault.callsLeft != 0 && --fault.callsLeft == 0) code = fault.code;
    return code;
  }

  /// Puts an object on the slot's token; what the attributes leave out is as a card would set it.
  CK_OBJECT_HANDLE addObject(std::size_t slotIndex, Attributes attributes) {
    attributes.try_emplace(CKA_TOKEN, kTrue);
    return store(slots.at(slotIndex), std::move(attributes));
  }
  CK_OBJECT_HANDLE store(Slot& slot, Attributes attributes) {
    const bool isPrivateKey = attributes[CKA_CLASS] == number(CKO_PRIVATE_KEY);
    attributes.try_emplace(CKA_PRIVATE, isPrivateKey ? kTrue : kFalse);
    attributes.try_emplace(CKA_TOKEN, kFalse);
    slot.objects.push_back({nextObject_, std::move(attributes)});
    return std::exchange(nextObject_, nextObject_ + 0x10);
  }
  Object* find(CK_OBJECT_HANDLE handle) {
    for (auto& slot : slots)
      for (auto& object : slot.objects)
        if (object.handle == handle) return &object;
    return nullptr;
  }

  std::size_t openSessions() const { return sessions.size(); }
  std::size_t activeSearches() const {
    return static_cast<std::size_t>(std::count_if(
        sessions.begin(), sessions.end(), [](const auto& entry) { return entry.second.search.has_value(); }));
  }

 private:
  struct Fault {
    std::string name;
    std::size_t callsLeft;
    CK_RV code;
  };

  template <std::size_t N>
  static void fill(CK_UTF8CHAR (&field)[N], std::string_view text) {
    std::fill(std::begin(field), std::end(field), CK_UTF8CHAR{' '});
    std::copy(text.begin(), text.end(), field);
  }
  static Slot emptySlot(CK_SLOT_ID id) {
    Slot slot;
    slot.id = id;
    fill(slot.info.slotDescription, "Mock reader with a description of more than 32 bytes");
    fill(slot.info.manufacturerID, "Mock");
    slot.info.flags = CKF_REMOVABLE_DEVICE;
    return slot;
  }
  static Slot tokenSlot(CK_SLOT_ID id) {
    Slot slot = emptySlot(id);
    slot.info.flags |= CKF_TOKEN_PRESENT;
    fill(slot.token.label, "Mock token");
    fill(slot.token.manufacturerID, "Mock");
    fill(slot.token.model, "Mock model");
    fill(slot.token.serialNumber, "0123456789abcdef");
    slot.token.flags = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
    slot.mechanisms = {
        {CKM_RSA_PKCS_KEY_PAIR_GEN, {1024, 16384, CKF_HW | CKF_GENERATE_KEY_PAIR}},
        {CKM_RSA_PKCS, {1024, 16384, CKF_HW | CKF_ENCRYPT | CKF_DECRYPT | CKF_SIGN | CKF_VERIFY}},
        {CKM_SHA1_RSA_PKCS, {1024, 16384, CKF_SIGN | CKF_VERIFY}},
        {CKM_VENDOR_DEFINED | 0x7, {0, 0, CKF_HW}}};
    return slot;
  }

  std::vector<Fault> faults_;
  CK_OBJECT_HANDLE nextObject_;
};

}  // namespace mock

/// Exported by the module; found with dlsym.
extern "C" mock::Module* mockModule();
