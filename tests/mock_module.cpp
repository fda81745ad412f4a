// The mock PKCS#11 module: tokens in memory. It is strict, so that calls which it accepts also work with real
// modules.
#include "mock_module.h"

#include <array>
#include <cstring>
#include <sstream>

namespace mock {
namespace {

CK_FUNCTION_LIST functions();
Module state(functions());

// clang-format off
#define CKA(name) {CKA_##name, "CKA_" #name}
const std::map<CK_ATTRIBUTE_TYPE, const char*> attributeNames = {
    CKA(CLASS), CKA(TOKEN), CKA(PRIVATE), CKA(LABEL), CKA(VALUE), CKA(ISSUER), CKA(SERIAL_NUMBER), CKA(SUBJECT),
    CKA(CERTIFICATE_TYPE), CKA(ID), CKA(KEY_TYPE), CKA(SENSITIVE), CKA(EXTRACTABLE), CKA(ENCRYPT), CKA(DECRYPT),
    CKA(WRAP), CKA(UNWRAP), CKA(SIGN), CKA(VERIFY), CKA(MODULUS_BITS), CKA(MODULUS), CKA(PUBLIC_EXPONENT),
    CKA(PRIVATE_EXPONENT), CKA(PRIME_1), CKA(PRIME_2), CKA(EXPONENT_1), CKA(EXPONENT_2), CKA(COEFFICIENT)};
// clang-format on

std::string_view view(const void* first, CK_ULONG length) {
  return {static_cast<const char*>(first), length};
}

/// A call as text. The form has one directive for each argument: %x, %u and %o (an object) are numbers, %p a
/// pointer that should be null, %a the low half of a pointer, %r a pointer to a number, %m a mechanism, %l a
/// token's label with a NUL after it. %- is left out. Capital letters take two arguments, a pointer and a
/// length: %S characters, %B bytes, %T a template, %A attributes to be read, %R a buffer with a pointer to
/// its length.
std::string describe(std::string_view form, const CK_ULONG* words) {
  std::ostringstream out;
  for (std::size_t at = form.find('%'); at != form.npos; at = form.find('%')) {
    const char kind = form[at + 1];
    const CK_ULONG first = *words++;
    const CK_ULONG second = std::isupper(kind) ? *words++ : 0;
    const auto* pointer = reinterpret_cast<const void*>(first);
    out << form.substr(0, at);
    form.remove_prefix(at + 2);
    if (kind == 'x' || kind == 'o') out << "0x" << std::hex << first;
    if (kind == 'a') out << "0x" << std::hex << (first & 0xffff'ffff);
    if (kind == 'o' && !state.returnedHandles.contains(first))
      state.violations.push_back(out.str() + ": an object that was not returned to the caller");
    if (kind == 'u') out << std::dec << first;
    if (kind == 'p') out << (first == 0 ? "null" : "not null");
    if (kind == 'l') out << '"' << view(pointer, 32) << (view(pointer, 33).back() == 0 ? "\\0\"" : "\"");
    if (const auto* m = static_cast<const CK_MECHANISM*>(pointer); kind == 'm')
      out << "0x" << std::hex << m->mechanism
          << (m->pParameter == nullptr && m->ulParameterLen == 0 ? "" : " with a parameter");
    if (std::isupper(kind) && first == 0)
      out << "null" << (second == 0 || kind == 'R' ? "" : '/' + std::to_string(second));
    if (first == 0) continue;
    if (kind == 'S') out << '"' << view(pointer, second) << '"';
    if (kind == 'R') out << "room " << std::dec << *reinterpret_cast<const CK_ULONG*>(second);
    if (kind == 'r') out << std::dec << *static_cast<const CK_ULONG*>(pointer);
    if (kind == 'B')
      for (const char byte : view(pointer, second)) out << std::hex << (byte >> 4 & 0xf) << (byte & 0xf);
    if (kind != 'T' && kind != 'A') continue;
    const auto* const attributes = static_cast<const CK_ATTRIBUTE*>(pointer);
    for (const auto* a = attributes; a != attributes + second; ++a) {
      const CK_ULONG value[] = {reinterpret_cast<CK_ULONG>(a->pValue), a->ulValueLen};
      out << (a == attributes ? "" : " ") << attributeNames.at(a->type);
      out << describe(a->pValue == nullptr ? "/%B" : kind == 'T' ? "=%B" : "/%-%u", value);
    }
  }
  out << form;
  return out.str();
}

void require(bool holds, CK_RV otherwise) {
  if (!holds) throw otherwise;
}

/// Finds the element whose member has this value, or throws the code.
template <class Range, class Member, class Value>
auto& find(Range& range, Member member, Value value, CK_RV otherwise) {
  const auto found = std::ranges::find(range, value, member);
  require(found != range.end(), otherwise);
  return *found;
}

/// The first argument of a call, a slot ID or a session handle. It converts to whatever the function's body
/// takes.
struct FirstArgument {
  CK_ULONG value;

  operator CK_ULONG() const { return value; }
  operator Slot&() const {  // requires a token
    Slot& slot = find(state.slots, &Slot::id, value, CKR_SLOT_ID_INVALID);
    require((slot.info.flags & CKF_TOKEN_PRESENT) != 0, CKR_TOKEN_NOT_PRESENT);
    return slot;
  }
  operator Session&() const {
    return find(state.sessions, &Session::handle, value, CKR_SESSION_HANDLE_INVALID);
  }
};

bool hasSession(const Slot& slot) { return std::ranges::count(state.sessions, &slot, &Session::slot) > 0; }

/// Closing a token's last session logs it out.
template <class Member, class Value>
void closeSessions(Member member, Value value) {
  std::erase_if(state.sessions, [&](const Session& session) { return session.*member == value; });
  for (auto& slot : state.slots)
    if (!hasSession(slot)) slot.login.reset();
}

using Words = std::array<CK_ULONG, 8>;  // the arguments of a call

/// Updates the state after a call, according to the code that the caller got. C_FindObjectsFinal, C_Finalize
/// and C_Sign end their operation even if they failed, but see failAt() for C_Sign.
void updateState(const std::string& name, const Words& words, CK_RV actual, CK_RV returned,
                 const Numbers& numbers) {
  if (name == "C_FindObjectsInit" && returned == CKR_OK) state.searches.try_emplace(words[0]);
  const bool isRevoked = name == "C_FindObjectsInit" && actual == CKR_OK && returned != CKR_OK;
  if (isRevoked || name == "C_FindObjectsFinal") state.searches.erase(words[0]);
  if (name == "C_FindObjects" && returned == CKR_OK && state.searches.contains(words[0]))
    state.returnedHandles.insert(numbers[0], numbers[0] + std::min(words[2], *numbers[1]));
  if (name == "C_GenerateKeyPair" && returned == CKR_OK) state.returnedHandles.insert(*numbers[0]);
  if (name == "C_Sign" && returned != CKR_BUFFER_TOO_SMALL && returned != CKR_ARGUMENTS_BAD)
    for (auto& session : state.sessions)
      if (session.handle == words[0]) session.signingKey.reset();
  if (name == "C_Finalize" && state.initializations > 0 && --state.initializations == 0)
    for (auto& slot : state.slots) closeSessions(&Session::slot, &slot);
}

/// Defines a function: it logs the call, fails if failAt() says so or before C_Initialize, otherwise runs the
/// body, then lets onReturn change the results. The body is a lambda without captures, as in
/// FakeJni::define().
template <class First, class... Rest, class Body>
void define(CK_RV (*&function)(First, Rest...), const char* text, Body) {
  static const char* form;
  form = text;
  function = [](First first, Rest... rest) {
    const Words words = {(CK_ULONG)first, (CK_ULONG)rest...};
    const std::string call = describe(form, words.data());
    const std::string name = nameOf(call);
    state.log.push_back(call);
    if (state.onCall) state.onCall(call);
    CK_RV actual = CKR_OK;
    try {
      if (const auto fault = state.faults.extract({name, ++state.calls[name]})) throw fault.mapped();
      const bool mayComeFirst = name == "C_GetFunctionList" || name == "C_Initialize";
      require(state.initializations > 0 || mayComeFirst, CKR_CRYPTOKI_NOT_INITIALIZED);
      Body{}(FirstArgument{words[0]}, rest...);
    } catch (const CK_RV refusal) {
      actual = refusal;
    }

    Numbers numbers;
    const auto collect = [&](auto argument) {
      if constexpr (std::is_same_v<decltype(argument), CK_ULONG*>)
        if (argument != nullptr) numbers.push_back(argument);
    };
    (..., collect(rest));
    for (CK_ULONG i = 0; name == "C_GetAttributeValue" && i < words[3]; ++i)
      collect(&reinterpret_cast<CK_ATTRIBUTE*>(words[2])[i].ulValueLen);
    CK_RV returned = actual;
    if (state.onReturn) state.onReturn(call, returned, numbers);
    updateState(name, words, actual, returned, numbers);
    if (returned != CKR_OK) state.codes.insert(returned);
    return state.lastCode = returned;
  };
}

Object& objectOf(const Session& session, CK_OBJECT_HANDLE handle) {
  Object& object = find(session.slot->objects, &Object::handle, handle, CKR_OBJECT_HANDLE_INVALID);
  require(session.slot->isVisible(object), CKR_OBJECT_HANDLE_INVALID);
  return object;
}

Attributes attributesIn(const CK_ATTRIBUTE* attributes, CK_ULONG count) {
  Attributes all;
  for (const auto* a = attributes; a != attributes + count; ++a) {
    const Bytes& value = all[a->type] = view(a->pValue, a->ulValueLen);
    const bool isConstant = value == kTrue || value == kFalse || value.size() == sizeof(CK_ULONG);
    if (state.overwritesConstants && isConstant) std::memset(a->pValue, 0xff, a->ulValueLen);
  }
  return all;
}

CK_OBJECT_HANDLE create(const Session& session, const Attributes& attributes) {
  require(session.slot->isVisible({0, attributes}), CKR_USER_NOT_LOGGED_IN);
  return state.addObject(*session.slot, attributes);
}

/// Returns a result of variable length: only the length if there is no buffer, otherwise the whole result or
/// CKR_BUFFER_TOO_SMALL.
template <class Range, class T, class Member = std::identity>
void copyOut(const Range& range, T* buffer, CK_ULONG* length, Member member = {}) {
  const CK_ULONG capacity = std::exchange(*length, range.size());
  require(buffer == nullptr || capacity >= range.size(), CKR_BUFFER_TOO_SMALL);
  if (buffer != nullptr) std::ranges::transform(range, buffer, member);
}

CK_FUNCTION_LIST functions() {
  CK_FUNCTION_LIST list{};
#define FUNCTION(name, form, ...) define(list.C_##name, "C_" #name "(" form ")", __VA_ARGS__)
#define SESSION(name, form, ...) FUNCTION(name, "session %x" form, __VA_ARGS__)

  FUNCTION(GetFunctionList, "%-", [](CK_ULONG address) {
    if (state.list == nullptr) return;
    *reinterpret_cast<CK_FUNCTION_LIST**>(address) =
        state.freshListEachTime ? &state.freshLists.emplace_back(state.genuine) : state.list;
  });
  FUNCTION(Initialize, "%p", [](CK_ULONG) {
    require(state.initializations == 0 || state.acceptsSecondInitialize, CKR_CRYPTOKI_ALREADY_INITIALIZED);
    ++state.initializations;
  });
  FUNCTION(Finalize, "%p", [](CK_ULONG) {});

  FUNCTION(GetSlotList, "tokenPresent %u, %R",
           [](CK_ULONG, auto* ids, auto* count) { copyOut(state.slots, ids, count, &Slot::id); });
  FUNCTION(GetSlotInfo, "slot %x", [](CK_ULONG id, auto* info) {
    *info = find(state.slots, &Slot::id, id, CKR_SLOT_ID_INVALID).info;
  });
  FUNCTION(GetTokenInfo, "slot %x", [](Slot& slot, auto* info) { *info = slot.token; });
  FUNCTION(GetMechanismList, "slot %x, %R", [](Slot& slot, auto* types, auto* count) {
    copyOut(slot.mechanisms, types, count, [](auto& mechanism) { return mechanism.first; });
  });
  FUNCTION(GetMechanismInfo, "slot %x, mechanism %x", [](Slot& slot, auto type, auto* info) {
    require(slot.mechanisms.contains(type), CKR_MECHANISM_INVALID);
    *info = slot.mechanisms.at(type);
  });
  FUNCTION(WaitForSlotEvent, "flags %u, reserved %-%p",
           [](CK_ULONG, auto* slot, auto*) { *slot = state.slots.front().id; });
  FUNCTION(InitToken, "slot %x, PIN %S, label %l", [](Slot& slot, auto* pin, auto length, auto* label) {
    require(!hasSession(slot), CKR_SESSION_EXISTS);
    require(slot.soPin == view(pin, length), CKR_PIN_INCORRECT);
    std::copy_n(label, sizeof slot.token.label, slot.token.label);
    slot.objects.clear();
  });

  FUNCTION(OpenSession, "slot %x, flags %u, application %p, callback %p",
           [](Slot& slot, auto, auto*, auto*, auto* session) {
             *session = state.nextSession++;
             state.sessions.push_back({*session, &slot});
           });
  SESSION(CloseSession, "", [](Session& session) { closeSessions(&Session::handle, session.handle); });
  FUNCTION(CloseAllSessions, "slot %x", [](Slot& slot) { closeSessions(&Session::slot, &slot); });
  SESSION(GetSessionInfo, "", [](Session& session, auto* info) {
    const Slot& slot = *session.slot;
    const CK_STATE user = slot.login == CKU_SO ? CKS_RW_SO_FUNCTIONS : CKS_RW_USER_FUNCTIONS;
    *info = {slot.id, slot.login ? user : CKS_RW_PUBLIC_SESSION, CKF_SERIAL_SESSION | CKF_RW_SESSION,
             0x1'8000'0001};
  });
  SESSION(Login, ", user %u, PIN %S", [](Session& session, auto user, auto* pin, auto length) {
    Slot& slot = *session.slot;
    require(user == CKU_SO || user == CKU_USER, CKR_USER_TYPE_INVALID);
    require(!slot.login, CKR_USER_ALREADY_LOGGED_IN);
    const bool hasPinPad = (slot.token.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
    const std::string& right = user == CKU_SO ? slot.soPin : slot.userPin;
    require(pin == nullptr ? hasPinPad : right == view(pin, length), CKR_PIN_INCORRECT);
    slot.login = user;
  });
  SESSION(Logout, "", [](Session& session) {
    require(session.slot->login.has_value(), CKR_USER_NOT_LOGGED_IN);
    session.slot->login.reset();
  });
  SESSION(InitPIN, ", PIN %S", [](Session& session, auto* pin, auto length) {
    require(session.slot->login == CKU_SO, CKR_USER_NOT_LOGGED_IN);
    session.slot->userPin = view(pin, length);
  });
  SESSION(SetPIN, ", old PIN %S, new PIN %S",
          [](Session& session, auto* old, auto oldLength, auto* pin, auto length) {
            require(session.slot->userPin == view(old, oldLength), CKR_PIN_INCORRECT);
            session.slot->userPin = view(pin, length);
          });

  SESSION(CreateObject, ", %T", [](Session& session, auto* attributes, auto count, auto* object) {
    *object = create(session, attributesIn(attributes, count));
  });
  SESSION(DestroyObject, ", object %o", [](Session& session, auto object) {
    auto& objects = session.slot->objects;
    objects.erase(objects.begin() + (&objectOf(session, object) - objects.data()));
  });
  SESSION(GetAttributeValue, ", object %o, %A", [](Session& session, auto object, auto* wanted, auto count) {
    const Attributes& values = objectOf(session, object).attributes;
    CK_RV result = CKR_OK;
    for (auto* a = wanted; a != wanted + count; ++a) {  // continues after a failure
      try {
        require(values.contains(a->type), CKR_ATTRIBUTE_TYPE_INVALID);
        copyOut(values.at(a->type), static_cast<CK_BYTE*>(a->pValue), &a->ulValueLen);
      } catch (const CK_RV refusal) {
        a->ulValueLen = CK_UNAVAILABLE_INFORMATION;
        result = refusal;
      }
    }
    require(result == CKR_OK, result);
  });
  SESSION(SetAttributeValue, ", object %o, %T", [](Session& session, auto object, auto* values, auto count) {
    for (auto& [type, value] : attributesIn(values, count))
      objectOf(session, object).attributes[type] = value;
  });

  SESSION(FindObjectsInit, ", %T", [](Session& session, auto* attributes, auto count) {
    // Without C_FindObjectsFinal, a new search replaces the active one.
    const bool isFirst = !state.searches.contains(session.handle) || !state.functions.C_FindObjectsFinal;
    if (!isFirst) state.violations.push_back("C_FindObjectsInit: a search during a search");
    require(isFirst, CKR_OPERATION_ACTIVE);
    auto& matches = state.searches[session.handle] = {};
    const Attributes wanted = attributesIn(attributes, count);
    for (const auto& object : session.slot->objects)
      if (session.slot->isVisible(object) && std::ranges::includes(object.attributes, wanted))
        matches.push_back(object.handle);
  });
  SESSION(FindObjects, ", room %-%u", [](Session& session, auto* objects, auto capacity, auto* count) {
    const auto search = state.searches.find(session.handle);
    require(search != state.searches.end(), CKR_OPERATION_NOT_INITIALIZED);
    auto& left = search->second;
    for (*count = 0; *count < capacity && !left.empty(); left.pop_front()) objects[(*count)++] = left.front();
  });
  SESSION(FindObjectsFinal, "", [](Session& session) {
    require(state.searches.contains(session.handle), CKR_OPERATION_NOT_INITIALIZED);
  });

  SESSION(SignInit, ", mechanism %m, key %o", [](Session& session, auto*, auto key) {
    require(!session.signingKey, CKR_OPERATION_ACTIVE);
    session.signingKey = objectOf(session, key).handle;
  });
  SESSION(Sign, ", data %B, at %a, room %r",
          [](Session& session, auto* data, auto length, auto* signature, auto* capacity) {
            require(session.signingKey.has_value(), CKR_OPERATION_NOT_INITIALIZED);
            require(data != nullptr, CKR_ARGUMENTS_BAD);
            const Bytes value = objectOf(session, *session.signingKey).sign(Bytes(view(data, length)));
            require(length + 11 <= value.size(), CKR_DATA_LEN_RANGE);  // the shortest padding
            copyOut(value, signature, capacity);
          });
  SESSION(GenerateKeyPair, ", mechanism %m, public %T, private %T",
          [](Session& session, auto*, auto* publicTemplate, auto publicCount, auto* privateTemplate,
             auto privateCount, auto* publicKey, auto* privateKey) {
            require(session.slot->login == CKU_USER, CKR_USER_NOT_LOGGED_IN);
            CK_ULONG bits = 0;
            const Attributes publicHalf = attributesIn(publicTemplate, publicCount);
            const Bytes value = publicHalf.at(CKA_MODULUS_BITS);
            std::copy_n(value.data(), sizeof bits, reinterpret_cast<char*>(&bits));
            require(bits >= 1024 && bits <= 16384, CKR_KEY_SIZE_RANGE);
            const Bytes modulus(bits / 8, static_cast<char>(0xc5 ^ session.slot->objects.size()));
            const auto half = [&](CK_OBJECT_CLASS kind, Attributes all) {
              all.merge(Attributes{
                  {CKA_CLASS, number(kind)}, {CKA_KEY_TYPE, number(CKK_RSA)}, {CKA_MODULUS, modulus}});
              return create(session, all);
            };
            *publicKey = half(CKO_PUBLIC_KEY, publicHalf);
            *privateKey = half(CKO_PRIVATE_KEY, attributesIn(privateTemplate, privateCount));
          });
  return list;
}

}  // namespace
}  // namespace mock

extern "C" [[gnu::visibility("default")]] mock::Module* mockModule() { return &mock::state; }

extern "C" [[gnu::visibility("default")]] CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  return mockModule()->genuine.C_GetFunctionList(list);
}
