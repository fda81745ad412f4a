// The mock PKCS#11 module: tokens in memory, as strict as the strictest real modules, so that whatever passes
// here passes there.
#include "mock_module.h"

#include <cstring>
#include <sstream>

#define EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

using mock::Attributes;
using mock::Bytes;
using mock::Object;
using mock::Session;
using mock::Slot;

mock::Module state([] {
  CK_FUNCTION_LIST list{};
  list.version = {2, 40};
  list.C_Initialize = C_Initialize;
  list.C_Finalize = C_Finalize;
  list.C_GetFunctionList = C_GetFunctionList;
  list.C_GetSlotList = C_GetSlotList;
  list.C_GetSlotInfo = C_GetSlotInfo;
  list.C_GetTokenInfo = C_GetTokenInfo;
  list.C_GetMechanismList = C_GetMechanismList;
  list.C_GetMechanismInfo = C_GetMechanismInfo;
  list.C_WaitForSlotEvent = C_WaitForSlotEvent;
  list.C_InitToken = C_InitToken;
  list.C_InitPIN = C_InitPIN;
  list.C_SetPIN = C_SetPIN;
  list.C_OpenSession = C_OpenSession;
  list.C_CloseSession = C_CloseSession;
  list.C_CloseAllSessions = C_CloseAllSessions;
  list.C_GetSessionInfo = C_GetSessionInfo;
  list.C_Login = C_Login;
  list.C_Logout = C_Logout;
  list.C_CreateObject = C_CreateObject;
  list.C_DestroyObject = C_DestroyObject;
  list.C_GetAttributeValue = C_GetAttributeValue;
  list.C_SetAttributeValue = C_SetAttributeValue;
  list.C_FindObjectsInit = C_FindObjectsInit;
  list.C_FindObjects = C_FindObjects;
  list.C_FindObjectsFinal = C_FindObjectsFinal;
  list.C_SignInit = C_SignInit;
  list.C_Sign = C_Sign;
  list.C_GenerateKeyPair = C_GenerateKeyPair;
  return list;
}());

// The text of the log.

template <class... Parts>
std::string text(const Parts&... parts) {
  std::ostringstream out;
  (out << ... << parts);
  return out.str();
}

std::string hex(CK_ULONG value) {
  std::ostringstream out;
  out << "0x" << std::hex << value;
  return out.str();
}

std::string hexBytes(const void* data, CK_ULONG length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const auto* bytes = static_cast<const CK_BYTE*>(data);
  std::string out;
  for (CK_ULONG i = 0; i < length; ++i) (out += kDigits[bytes[i] >> 4]) += kDigits[bytes[i] & 15];
  return out;
}

/// `null`, and after it a length that no null pointer should have.
std::string nullOf(CK_ULONG length) { return length == 0 ? "null" : text("null/", length); }

std::string quoted(const CK_UTF8CHAR* characters, CK_ULONG length) {
  return characters == nullptr ? nullOf(length) : '"' + std::string(characters, characters + length) + '"';
}

std::string room(const void* buffer, const CK_ULONG* length) {
  return buffer == nullptr || length == nullptr ? "null" : text("room ", *length);
}

std::string mechanismText(const CK_MECHANISM* mechanism) {
  if (mechanism == nullptr) return "mechanism null";
  const bool plain = mechanism->pParameter == nullptr && mechanism->ulParameterLen == 0;
  return text("mechanism ", hex(mechanism->mechanism), plain ? "" : " with a parameter");
}

std::string attributeName(CK_ATTRIBUTE_TYPE type) {
#define NAMED(name) \
  { CKA_##name, "CKA_" #name }
  // clang-format off
  static const std::map<CK_ATTRIBUTE_TYPE, const char*> names = {
      NAMED(CLASS), NAMED(TOKEN), NAMED(PRIVATE), NAMED(LABEL), NAMED(APPLICATION), NAMED(VALUE),
      NAMED(OBJECT_ID), NAMED(ISSUER), NAMED(SERIAL_NUMBER), NAMED(KEY_TYPE), NAMED(CERTIFICATE_TYPE),
      NAMED(SUBJECT), NAMED(ID), NAMED(SENSITIVE), NAMED(ENCRYPT), NAMED(DECRYPT), NAMED(WRAP), NAMED(UNWRAP),
      NAMED(SIGN), NAMED(VERIFY), NAMED(MODULUS), NAMED(PUBLIC_EXPONENT), NAMED(PRIVATE_EXPONENT),
      NAMED(PRIME_1), NAMED(PRIME_2), NAMED(EXPONENT_1), NAMED(EXPONENT_2), NAMED(COEFFICIENT),
      NAMED(MODULUS_BITS), NAMED(EXTRACTABLE)};
  // clang-format on
#undef NAMED
  const auto found = names.find(type);
  return found == names.end() ? hex(type) : found->second;
}

/// A template with its values or, where the module is to fill them in, with the room for each.
std::string attributeList(const CK_ATTRIBUTE* attributes, CK_ULONG count, bool toFill = false) {
  if (attributes == nullptr) return nullOf(count);
  std::string out;
  for (const CK_ATTRIBUTE* a = attributes; a != attributes + count; ++a) {
    out += (out.empty() ? "" : " ") + attributeName(a->type);
    if (a->pValue == nullptr) {
      out += '/' + nullOf(a->ulValueLen);
    } else {
      out += toFill ? text('/', a->ulValueLen) : '=' + hexBytes(a->pValue, a->ulValueLen);
    }
  }
  return out;
}

// The road of every call: logged; failed if a test has ordered it; refused before C_Initialize; then done, on
// the token or in the session that it names.

struct Refusal {
  CK_RV code;
};

void require(bool condition, CK_RV otherwise) {
  if (!condition) throw Refusal{otherwise};
}

template <class Body>
CK_RV answer(const char* name, const std::string& arguments, Body body) {
  if (const CK_RV fault = state.enter(name, arguments); fault != CKR_OK) return fault;
  if (state.initializations == 0) return CKR_CRYPTOKI_NOT_INITIALIZED;
  try {
    body();
  } catch (const Refusal& refusal) {
    return refusal.code;
  }
  return CKR_OK;
}

Slot& slotOf(CK_SLOT_ID id) {
  for (auto& slot : state.slots)
    if (slot.id == id) return slot;
  throw Refusal{CKR_SLOT_ID_INVALID};
}

template <class Body>
CK_RV answerOnToken(const char* name, CK_SLOT_ID id, const std::string& arguments, Body body) {
  return answer(name, text("slot ", hex(id), arguments), [&] {
    Slot& slot = slotOf(id);
    require((slot.info.flags & CKF_TOKEN_PRESENT) != 0, CKR_TOKEN_NOT_PRESENT);
    body(slot);
  });
}

template <class Body>
CK_RV answerInSession(const char* name, CK_SESSION_HANDLE handle, const std::string& arguments, Body body) {
  return answer(name, text("session ", hex(handle), arguments), [&] {
    const auto found = state.sessions.find(handle);
    require(found != state.sessions.end(), CKR_SESSION_HANDLE_INVALID);
    body(slotOf(found->second.slot), found->second);
  });
}

// What a call works with.

bool canSee(const Slot& slot, const Object& object) { return !object.isPrivate() || slot.login == CKU_USER; }

Object& objectOf(Slot& slot, CK_OBJECT_HANDLE handle, CK_RV otherwise = CKR_OBJECT_HANDLE_INVALID) {
  for (auto& object : slot.objects)
    if (object.handle == handle && canSee(slot, object)) return object;
  throw Refusal{otherwise};
}

const CK_MECHANISM_INFO& mechanismOf(const Slot& slot, CK_MECHANISM_TYPE type) {
  for (const auto& mechanism : slot.mechanisms)
    if (mechanism.type == type) return mechanism.info;
  throw Refusal{CKR_MECHANISM_INVALID};
}

std::string pinOf(const CK_UTF8CHAR* pin, CK_ULONG length) {
  require(pin != nullptr, CKR_ARGUMENTS_BAD);
  return {pin, pin + length};
}

bool hasSessions(const Slot& slot) {
  return std::any_of(state.sessions.begin(), state.sessions.end(),
                     [&](const auto& entry) { return entry.second.slot == slot.id; });
}

Attributes attributesIn(const CK_ATTRIBUTE* attributes, CK_ULONG count) {
  require(attributes != nullptr || count == 0, CKR_ARGUMENTS_BAD);
  Attributes result;
  for (const CK_ATTRIBUTE* a = attributes; a != attributes + count; ++a) {
    require(a->pValue != nullptr || a->ulValueLen == 0, CKR_ATTRIBUTE_VALUE_INVALID);
    const auto* first = static_cast<const CK_BYTE*>(a->pValue);
    const bool isNew = result.try_emplace(a->type, first, first + a->ulValueLen).second;
    require(isNew, CKR_TEMPLATE_INCONSISTENT);
  }
  return result;
}

bool isSecret(const Object& object, CK_ATTRIBUTE_TYPE type) {
  return type >= CKA_PRIVATE_EXPONENT && type <= CKA_COEFFICIENT &&
         (object.has(CKA_SENSITIVE, mock::kTrue) || object.has(CKA_EXTRACTABLE, mock::kFalse));
}

CK_RV readAttribute(const Object& object, CK_ATTRIBUTE& wanted) {
  const auto found = object.attributes.find(wanted.type);
  const CK_ULONG capacity = std::exchange(wanted.ulValueLen, CK_UNAVAILABLE_INFORMATION);
  if (isSecret(object, wanted.type)) return CKR_ATTRIBUTE_SENSITIVE;
  if (found == object.attributes.end()) return CKR_ATTRIBUTE_TYPE_INVALID;
  const Bytes& value = found->second;
  if (wanted.pValue != nullptr && capacity < value.size()) return CKR_BUFFER_TOO_SMALL;
  if (wanted.pValue != nullptr) std::copy(value.begin(), value.end(), static_cast<CK_BYTE*>(wanted.pValue));
  wanted.ulValueLen = value.size();
  return CKR_OK;
}

/// The protocol for a result of unknown length: only the length without a buffer, else all or nothing.
template <class T>
void handOut(const std::vector<T>& values, T* buffer, CK_ULONG* length) {
  require(length != nullptr, CKR_ARGUMENTS_BAD);
  const CK_ULONG capacity = std::exchange(*length, values.size());
  if (buffer == nullptr) return;
  require(capacity >= values.size(), CKR_BUFFER_TOO_SMALL);
  std::copy(values.begin(), values.end(), buffer);
}

}  // namespace

EXPORTED mock::Module* mockModule() { return &state; }

// Module binding

EXPORTED CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  if (const CK_RV fault = state.enter(__func__, ""); fault != CKR_OK) return fault;
  *list = state.freshListEachTime ? &state.freshLists.emplace_back(state.functions) : state.list;
  return CKR_OK;
}

CK_RV C_Initialize(void* arguments) {
  const CK_RV fault = state.enter(__func__, arguments == nullptr ? "null" : "arguments");
  if (fault != CKR_OK) return fault;
  if (state.initializations > 0 && !state.acceptsSecondInitialize) return CKR_CRYPTOKI_ALREADY_INITIALIZED;
  ++state.initializations;
  return CKR_OK;
}

CK_RV C_Finalize(void* reserved) {
  const CK_RV fault = state.enter(__func__, reserved == nullptr ? "null" : "reserved");
  if (state.initializations == 0) return fault == CKR_OK ? CKR_CRYPTOKI_NOT_INITIALIZED : fault;
  if (--state.initializations == 0) {
    state.sessions.clear();
    for (auto& slot : state.slots) slot.login.reset();
  }
  return fault;
}

// Slots and tokens

CK_RV C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) {
  const std::string arguments = text("tokenPresent ", int{tokenPresent}, ", ", room(list, count));
  return answer(__func__, arguments, [&] {
    std::vector<CK_SLOT_ID> ids;
    for (const auto& slot : state.slots)
      if (tokenPresent == CK_FALSE || (slot.info.flags & CKF_TOKEN_PRESENT) != 0) ids.push_back(slot.id);
    handOut(ids, list, count);
  });
}

CK_RV C_GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO_PTR info) {
  return answer(__func__, text("slot ", hex(slot)), [&] { *info = slotOf(slot).info; });
}

CK_RV C_GetTokenInfo(CK_SLOT_ID id, CK_TOKEN_INFO_PTR info) {
  return answerOnToken(__func__, id, "", [&](Slot& slot) { *info = slot.token; });
}

CK_RV C_GetMechanismList(CK_SLOT_ID id, CK_MECHANISM_TYPE_PTR list, CK_ULONG_PTR count) {
  return answerOnToken(__func__, id, ", " + room(list, count), [&](Slot& slot) {
    std::vector<CK_MECHANISM_TYPE> types;
    for (const auto& mechanism : slot.mechanisms) types.push_back(mechanism.type);
    handOut(types, list, count);
  });
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID id, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR info) {
  return answerOnToken(__func__, id, ", mechanism " + hex(type),
                       [&](Slot& slot) { *info = mechanismOf(slot, type); });
}

CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, void* reserved) {
  return answer(__func__, text("flags ", flags, reserved == nullptr ? "" : ", reserved"), [&] {
    require(!state.slotEvents.empty(), CKR_FUNCTION_NOT_SUPPORTED);
    *slot = state.slotEvents.front();
    state.slotEvents.pop_front();
  });
}

CK_RV C_InitToken(CK_SLOT_ID id, CK_UTF8CHAR_PTR pin, CK_ULONG length, CK_UTF8CHAR_PTR label) {
  const std::string arguments =
      text(", PIN ", quoted(pin, length), ", label ", quoted(label, label ? 32 : 0));
  return answerOnToken(__func__, id, arguments, [&](Slot& slot) {
    require(label != nullptr, CKR_ARGUMENTS_BAD);
    require(!hasSessions(slot), CKR_SESSION_EXISTS);
    const bool isBlank = (slot.token.flags & CKF_TOKEN_INITIALIZED) == 0;
    require(isBlank || pinOf(pin, length) == slot.soPin, CKR_PIN_INCORRECT);
    slot.soPin = pinOf(pin, length);
    slot.objects.clear();
    std::memcpy(slot.token.label, label, sizeof slot.token.label);
    slot.token.flags |= CKF_TOKEN_INITIALIZED;
    slot.token.flags &= ~CKF_USER_PIN_INITIALIZED;
  });
}

// Sessions, login and PINs

CK_RV C_OpenSession(CK_SLOT_ID id, CK_FLAGS flags, void* application, CK_NOTIFY notify,
                    CK_SESSION_HANDLE_PTR session) {
  const bool plain = application == nullptr && notify == nullptr;
  return answerOnToken(__func__, id, text(", flags ", flags, plain ? "" : ", notify"), [&](Slot& slot) {
    require((flags & CKF_SERIAL_SESSION) != 0, CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    *session = state.nextSession++;
    state.sessions[*session] = {slot.id, flags, {}, {}};
  });
}

CK_RV C_CloseSession(CK_SESSION_HANDLE handle) {
  return answerInSession(__func__, handle, "", [&](Slot& slot, Session&) {
    state.sessions.erase(handle);
    if (!hasSessions(slot)) slot.login.reset();
  });
}

CK_RV C_CloseAllSessions(CK_SLOT_ID id) {
  return answerOnToken(__func__, id, "", [&](Slot& slot) {
    std::erase_if(state.sessions, [&](const auto& entry) { return entry.second.slot == id; });
    slot.login.reset();
  });
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE handle, CK_SESSION_INFO_PTR info) {
  return answerInSession(__func__, handle, "", [&](Slot& slot, Session& session) {
    const bool writable = (session.flags & CKF_RW_SESSION) != 0;
    CK_STATE login = writable ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
    if (slot.login == CKU_SO) login = CKS_RW_SO_FUNCTIONS;
    if (slot.login == CKU_USER) login = writable ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
    *info = {slot.id, login, session.flags, slot.deviceError};
  });
}

CK_RV C_Login(CK_SESSION_HANDLE handle, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin, CK_ULONG length) {
  const std::string arguments = text(", user ", user, ", PIN ", quoted(pin, length));
  return answerInSession(__func__, handle, arguments, [&](Slot& slot, Session&) {
    require(user != CKU_CONTEXT_SPECIFIC, CKR_OPERATION_NOT_INITIALIZED);
    require(user == CKU_SO || user == CKU_USER, CKR_USER_TYPE_INVALID);
    require(slot.login != user, CKR_USER_ALREADY_LOGGED_IN);
    require(!slot.login, CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
    const bool hasPin = user == CKU_SO || (slot.token.flags & CKF_USER_PIN_INITIALIZED) != 0;
    require(hasPin, CKR_USER_PIN_NOT_INITIALIZED);
    const bool onPinPad = pin == nullptr && (slot.token.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
    const std::string& right = user == CKU_SO ? slot.soPin : slot.userPin;
    require(onPinPad || pinOf(pin, length) == right, CKR_PIN_INCORRECT);
    slot.login = user;
  });
}

CK_RV C_Logout(CK_SESSION_HANDLE handle) {
  return answerInSession(__func__, handle, "", [&](Slot& slot, Session&) {
    require(slot.login.has_value(), CKR_USER_NOT_LOGGED_IN);
    slot.login.reset();
  });
}

CK_RV C_InitPIN(CK_SESSION_HANDLE handle, CK_UTF8CHAR_PTR pin, CK_ULONG length) {
  return answerInSession(__func__, handle, ", PIN " + quoted(pin, length), [&](Slot& slot, Session&) {
    require(slot.login == CKU_SO, CKR_USER_NOT_LOGGED_IN);
    slot.userPin = pinOf(pin, length);
    slot.token.flags |= CKF_USER_PIN_INITIALIZED;
  });
}

CK_RV C_SetPIN(CK_SESSION_HANDLE handle, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldLength, CK_UTF8CHAR_PTR newPin,
               CK_ULONG newLength) {
  const std::string arguments =
      text(", old PIN ", quoted(oldPin, oldLength), ", new PIN ", quoted(newPin, newLength));
  return answerInSession(__func__, handle, arguments, [&](Slot& slot, Session&) {
    std::string& pin = slot.login == CKU_SO ? slot.soPin : slot.userPin;
    require(pinOf(oldPin, oldLength) == pin, CKR_PIN_INCORRECT);
    pin = pinOf(newPin, newLength);
  });
}

// Objects

CK_RV C_CreateObject(CK_SESSION_HANDLE handle, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,
                     CK_OBJECT_HANDLE_PTR object) {
  const std::string arguments = ", " + attributeList(attributes, count);
  return answerInSession(__func__, handle, arguments, [&](Slot& slot, Session&) {
    const Attributes created = attributesIn(attributes, count);
    require(created.contains(CKA_CLASS), CKR_TEMPLATE_INCOMPLETE);
    const CK_OBJECT_HANDLE stored = state.store(slot, created);
    if (!canSee(slot, slot.objects.back())) {
      slot.objects.pop_back();
      throw Refusal{CKR_USER_NOT_LOGGED_IN};
    }
    *object = stored;
  });
}

CK_RV C_DestroyObject(CK_SESSION_HANDLE handle, CK_OBJECT_HANDLE object) {
  return answerInSession(__func__, handle, ", object " + hex(object), [&](Slot& slot, Session&) {
    slot.objects.erase(slot.objects.begin() + (&objectOf(slot, object) - slot.objects.data()));
  });
}

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE handle, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes,
                          CK_ULONG count) {
  const std::string arguments = text(", object ", hex(object), ", ", attributeList(attributes, count, true));
  return answerInSession(__func__, handle, arguments, [&](Slot& slot, Session&) {
    const Object& source = objectOf(slot, object);
    require(attributes != nullptr && count != 0, CKR_ARGUMENTS_BAD);
    CK_RV result = CKR_OK;
    for (CK_ATTRIBUTE* a = attributes; a != attributes + count; ++a)  // to the end, even past a failure
      if (const CK_RV code = readAttribute(source, *a); code != CKR_OK) result = code;
    require(result == CKR_OK, result);
  });
}

CK_RV C_SetAttributeValue(CK_SESSION_HANDLE handle, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes,
                          CK_ULONG count) {
  const std::string arguments = text(", object ", hex(object), ", ", attributeList(attributes, count));
  return answerInSession(__func__, handle, arguments, [&](Slot& slot, Session&) {
    Object& target = objectOf(slot, object);
    const Attributes changes = attributesIn(attributes, count);
    require(!changes.contains(CKA_CLASS), CKR_ATTRIBUTE_READ_ONLY);
    for (const auto& [type, value] : changes) target.attributes[type] = value;
  });
}

// Searches

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE handle, CK_ATTRIBUTE_PTR attributes, CK_ULONG count) {
  const std::string arguments = ", " + attributeList(attributes, count);
  return answerInSession(__func__, handle, arguments, [&](Slot& slot, Session& session) {
    require(!session.search, CKR_OPERATION_ACTIVE);
    const Attributes wanted = attributesIn(attributes, count);
    session.search.emplace();
    for (const auto& object : slot.objects) {
      const bool matches = std::all_of(wanted.begin(), wanted.end(), [&](const auto& attribute) {
        return object.has(attribute.first, attribute.second);
      });
      if (matches && canSee(slot, object)) session.search->push_back(object.handle);
    }
  });
}

CK_RV C_FindObjects(CK_SESSION_HANDLE handle, CK_OBJECT_HANDLE_PTR objects, CK_ULONG room,
                    CK_ULONG_PTR count) {
  return answerInSession(__func__, handle, text(", room ", room), [&](Slot&, Session& session) {
    require(session.search.has_value(), CKR_OPERATION_NOT_INITIALIZED);
    *count = 0;
    for (; *count < room && !session.search->empty(); session.search->pop_front())
      state.yielded.insert(objects[(*count)++] = session.search->front());
  });
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE handle) {
  const CK_RV result = answerInSession(__func__, handle, "", [&](Slot&, Session& session) {
    require(session.search.has_value(), CKR_OPERATION_NOT_INITIALIZED);
  });
  if (const auto found = state.sessions.find(handle); found != state.sessions.end())
    found->second.search.reset();
  return result;
}

// Signing and key generation

CK_RV C_SignInit(CK_SESSION_HANDLE handle, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key) {
  const std::string arguments = text(", ", mechanismText(mechanism), ", key ", hex(key));
  return answerInSession(__func__, handle, arguments, [&](Slot& slot, Session& session) {
    require(!session.signingKey, CKR_OPERATION_ACTIVE);
    require((mechanismOf(slot, mechanism->mechanism).flags & CKF_SIGN) != 0, CKR_MECHANISM_INVALID);
    const Object& object = objectOf(slot, key, CKR_KEY_HANDLE_INVALID);
    require(object.has(CKA_CLASS, mock::number(CKO_PRIVATE_KEY)), CKR_KEY_TYPE_INCONSISTENT);
    require(object.has(CKA_KEY_TYPE, mock::number(CKK_RSA)), CKR_KEY_TYPE_INCONSISTENT);
    require(!object.has(CKA_SIGN, mock::kFalse), CKR_KEY_FUNCTION_NOT_PERMITTED);
    session.signingKey = key;
  });
}

CK_RV C_Sign(CK_SESSION_HANDLE handle, CK_BYTE_PTR data, CK_ULONG length, CK_BYTE_PTR signature,
             CK_ULONG_PTR signatureLength) {
  const std::string arguments = text(", data ", data == nullptr ? nullOf(length) : hexBytes(data, length),
                                     ", ", room(signature, signatureLength));
  const CK_RV result = answerInSession(__func__, handle, arguments, [&](Slot& slot, Session& session) {
    require(session.signingKey.has_value(), CKR_OPERATION_NOT_INITIALIZED);
    require(data != nullptr, CKR_ARGUMENTS_BAD);
    const Object& key = objectOf(slot, *session.signingKey, CKR_KEY_HANDLE_INVALID);
    require(length + 11 <= key.signatureLength(), CKR_DATA_LEN_RANGE);
    handOut(key.sign({data, data + length}), signature, signatureLength);
  });
  // A null pointer for the data, a length query and a buffer that is too small leave the operation active.
  const bool goesOn = data == nullptr || result == CKR_BUFFER_TOO_SMALL || (result == CKR_OK && !signature);
  const auto found = state.sessions.find(handle);
  if (!goesOn && found != state.sessions.end()) found->second.signingKey.reset();
  return result;
}

CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE handle, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR publicTemplate,
                        CK_ULONG publicCount, CK_ATTRIBUTE_PTR privateTemplate, CK_ULONG privateCount,
                        CK_OBJECT_HANDLE_PTR publicKey, CK_OBJECT_HANDLE_PTR privateKey) {
  const std::string arguments =
      text(", ", mechanismText(mechanism), ", public ", attributeList(publicTemplate, publicCount),
           ", private ", attributeList(privateTemplate, privateCount));
  return answerInSession(__func__, handle, arguments, [&](Slot& slot, Session&) {
    const CK_MECHANISM_INFO& limits = mechanismOf(slot, mechanism->mechanism);
    require((limits.flags & CKF_GENERATE_KEY_PAIR) != 0, CKR_MECHANISM_INVALID);
    require(slot.login == CKU_USER, CKR_USER_NOT_LOGGED_IN);
    Attributes publicHalf = attributesIn(publicTemplate, publicCount);
    Attributes privateHalf = attributesIn(privateTemplate, privateCount);

    CK_ULONG bits = 0;
    const Bytes& size = publicHalf[CKA_MODULUS_BITS];
    require(size.size() == sizeof bits, CKR_TEMPLATE_INCOMPLETE);
    std::memcpy(&bits, size.data(), sizeof bits);
    require(bits >= limits.ulMinKeySize && bits <= limits.ulMaxKeySize, CKR_KEY_SIZE_RANGE);

    Bytes modulus(bits / 8, static_cast<CK_BYTE>(slot.objects.size()));  // differs from pair to pair
    modulus.front() = 0xc5;
    publicHalf[CKA_CLASS] = mock::number(CKO_PUBLIC_KEY);
    privateHalf[CKA_CLASS] = mock::number(CKO_PRIVATE_KEY);
    for (Attributes* half : {&publicHalf, &privateHalf}) {
      (*half)[CKA_KEY_TYPE] = mock::number(CKK_RSA);
      (*half)[CKA_MODULUS] = modulus;
    }
    state.yielded.insert(*publicKey = state.store(slot, publicHalf));
    state.yielded.insert(*privateKey = state.store(slot, privateHalf));
  });
}
