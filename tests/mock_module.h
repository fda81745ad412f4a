// The state of the mock PKCS#11 module, which tests read and change.
//
// The library loads the module by path, like any vendor's module. A test first opens the same file with
// dlopen, so that the state survives the library's dlclose, and gets it from the exported mockModule(). All
// members are inline, so tests need not link with the module.
#pragma once

#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace mock {

using Bytes = std::string;
using Attributes = std::map<CK_ATTRIBUTE_TYPE, Bytes>;

inline Bytes number(CK_ULONG value) { return {reinterpret_cast<const char*>(&value), sizeof value}; }
const Bytes kTrue{CK_TRUE};
const Bytes kFalse{CK_FALSE};

/// The function's name in a logged call.
inline std::string nameOf(const std::string& call) { return call.substr(0, call.find('(')); }

struct Object {
  CK_OBJECT_HANDLE handle;
  Attributes attributes;

  bool has(CK_ATTRIBUTE_TYPE type, const Bytes& value) const {
    return attributes.contains(type) && attributes.at(type) == value;
  }
  /// The result of C_Sign: not cryptography, but different for each key and each data.
  Bytes sign(const Bytes& data) const {
    const Bytes mixed = data + static_cast<char>(handle);
    Bytes signature = attributes.at(CKA_MODULUS);
    for (std::size_t i = 0; i < signature.size(); ++i) signature[i] ^= mixed[i % mixed.size()];
    return signature;
  }
};

struct Slot {
  CK_SLOT_ID id;
  CK_SLOT_INFO info;      // without CKF_TOKEN_PRESENT in its flags, the slot is empty
  CK_TOKEN_INFO token{};  // with CKF_PROTECTED_AUTHENTICATION_PATH, C_Login takes a null PIN
  std::map<CK_MECHANISM_TYPE, CK_MECHANISM_INFO> mechanisms = {
      {CKM_RSA_PKCS_KEY_PAIR_GEN, {1024, 16384, CKF_HW | CKF_GENERATE_KEY_PAIR}},
      {CKM_RSA_PKCS, {1024, 16384, CKF_HW | CKF_ENCRYPT | CKF_DECRYPT | CKF_SIGN | CKF_VERIFY}},
      {CKM_SHA1_RSA_PKCS, {1024, 16384, CKF_SIGN | CKF_VERIFY}},
      {CKM_VENDOR_DEFINED | 0x7, {0, 0, CKF_HW}}};
  std::string userPin = "1234";
  std::string soPin = "12345678";
  std::vector<Object> objects;  // searches return them in this order
  std::optional<CK_USER_TYPE> login;

  explicit Slot(CK_SLOT_ID number = 0, CK_FLAGS flags = 0)
      : id(number), info{"Mock reader with a description of more than 32 bytes", "", flags, {}, {}} {
    std::copy_n("Mock token                      ", sizeof token.label, token.label);
    std::copy_n("0123456789abcdef", sizeof token.serialNumber, token.serialNumber);
    token.flags = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
  }
  bool isVisible(const Object& object) const { return login == CKU_USER || !object.has(CKA_PRIVATE, kTrue); }
};

struct Session {
  CK_SESSION_HANDLE handle;
  Slot* slot;
  std::optional<CK_OBJECT_HANDLE> signingKey = {};
};

/// The numbers that a call returns through pointers: counts, lengths and handles; for an array, its first
/// element.
using Numbers = std::vector<CK_ULONG*>;

struct Module {
  explicit Module(const CK_FUNCTION_LIST& all) : genuine(all), functions(all) {}

  /// Resets the module to its state after loading. Must not be called while the library has it bound.
  void reset() {
    *this = Module(genuine);
    list = &functions;
  }

  // C_GetFunctionList returns `functions`. A test removes a function by setting its pointer to null.
  // Functions that the library does not use are always null.
  CK_FUNCTION_LIST genuine;
  CK_FUNCTION_LIST functions;
  CK_FUNCTION_LIST* list = &functions;  // if null, C_GetFunctionList returns no list
  bool freshListEachTime = false;       // each C_GetFunctionList returns a new copy of `genuine`
  std::deque<CK_FUNCTION_LIST> freshLists;

  bool acceptsSecondInitialize = false;  // with CKR_OK; each C_Initialize then needs its own C_Finalize
  int initializations = 0;

  bool overwritesConstants = false;  // the flags and numbers in every template

  // The first has a token, the second is empty. Must not be resized while a session is open.
  std::vector<Slot> slots = {Slot(0x11, CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE),
                             Slot(0x22, CKF_REMOVABLE_DEVICE)};
  std::vector<Session> sessions;

  // The results that the caller got. onReturn may make them differ from what the module did.
  std::map<CK_SESSION_HANDLE, std::deque<CK_OBJECT_HANDLE>> searches;  // active ones, with the objects left
  CK_RV lastCode = CKR_OK;                                             // of any call
  std::set<CK_RV> codes;  // of failed calls, since a test last cleared the set
  /// By searches and key generation, since a test last cleared the set.
  std::set<CK_OBJECT_HANDLE> returnedHandles;

  /// Every call in order, as text with its arguments. Bytes are hexadecimal; PINs and labels are in quotes; a
  /// null pointer is `null`. `CKA_ID/16` in a template is a buffer of 16 bytes, `CKA_ID/null` a length query.
  std::vector<std::string> log;
  std::vector<std::string> violations;  // an object that was not returned, or a search during a search
  std::function<void(const std::string& line)> onCall;  // runs at each call, after it is logged
  /// Runs after each call, and may change what it returns.
  std::function<void(const std::string& line, CK_RV& result, const Numbers& numbers)> onReturn;

  std::map<std::string, std::size_t> calls;  // of each function, since the last reset
  std::map<std::pair<std::string, std::size_t>, CK_RV> faults;
  // Real modules use heap addresses as handles. These handles also exceed 32 bits, and none is used twice.
  CK_SESSION_HANDLE nextSession = 0x7e0000000501;
  CK_OBJECT_HANDLE nextObject = 0x7f0000000010;

  /// Makes the nth call of the function from now, counted from 1, return `code` without running the function.
  /// The code may be CKR_OK. C_FindObjectsFinal, C_Finalize and C_Sign end their operation nevertheless.
  /// C_Sign does not if the code is CKR_BUFFER_TOO_SMALL or CKR_ARGUMENTS_BAD.
  void failAt(const std::string& name, std::size_t nth, CK_RV code) {
    faults[{name, calls[name] + nth}] = code;
  }

  CK_OBJECT_HANDLE addObject(Slot& slot, Attributes attributes) {
    attributes.try_emplace(CKA_TOKEN, kTrue);
    slot.objects.push_back({nextObject, std::move(attributes)});
    return std::exchange(nextObject, nextObject + 0x10);
  }
  /// Adds a certificate, a data object, or one key of an RSA pair. `content` is its value or modulus.
  void addObject(CK_OBJECT_CLASS kind, const Bytes& id, const Bytes& label, const Bytes& content) {
    Attributes all = {{CKA_CLASS, number(kind)}, {CKA_ID, id}, {CKA_LABEL, label}};
    const bool isKey = kind == CKO_PUBLIC_KEY || kind == CKO_PRIVATE_KEY;
    all[isKey ? CKA_MODULUS : CKA_VALUE] = content;
    if (isKey)
      all.merge(Attributes{{CKA_KEY_TYPE, number(CKK_RSA)}, {CKA_PUBLIC_EXPONENT, Bytes("\1\0\1", 3)}});
    if (kind == CKO_CERTIFICATE) all[CKA_CERTIFICATE_TYPE] = number(CKC_X_509);
    if (kind == CKO_PRIVATE_KEY) all[CKA_PRIVATE] = kTrue;
    addObject(slots.at(0), all);
  }
};

}  // namespace mock

extern "C" mock::Module* mockModule();
