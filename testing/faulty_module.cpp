// The PKCS#11 module: each function waits, fails or crashes as requested, or calls the genuine module.
#include "faulty_module.h"

#include <dlfcn.h>

#include <algorithm>
#include <type_traits>

#include "call.h"

namespace faulty {
namespace {

// ---- Functions that do more than call the genuine module ----

bool contains(const auto& range, const auto& value) { return std::ranges::find(range, value) != range.end(); }

template <Function F>
using Of = std::integral_constant<Function, F>;

CK_RV invoke(Of<kC_Initialize>, const Call&, void* arguments) {
  CK_RV result = state.genuine->C_Initialize(arguments);
  if (result != CKR_OK) return result;
  std::vector<CK_SLOT_ID> ids;
  listSlots(CK_FALSE, ids);
  const std::lock_guard lock(state.mutex);
  state.ids = std::move(ids);
  state.order.clear();
  for (const std::size_t slot : state.wantedOrder)
    if (slot < state.ids.size()) state.order.push_back(slot);
  for (std::size_t slot = 0; slot < state.ids.size(); ++slot)
    if (!contains(state.wantedOrder, slot)) state.order.push_back(slot);
  for (auto& [index, slot] : state.slots) slot.removal = Removal::kStandard;
  return CKR_OK;
}

CK_RV invoke(Of<kC_Finalize>, const Call&, void* reserved) {
  const CK_RV result = state.genuine->C_Finalize(reserved);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK) state.sessions.clear();
  return result;
}

CK_RV invoke(Of<kC_GetFunctionList>, const Call&, CK_FUNCTION_LIST** list) {
  if (list == nullptr) return CKR_ARGUMENTS_BAD;
  *list = &state.list;
  return CKR_OK;
}

CK_RV invoke(Of<kC_GetSlotList>, const Call&, CK_BBOOL tokenPresent, CK_SLOT_ID* ids, CK_ULONG* count) {
  if (count == nullptr) return CKR_ARGUMENTS_BAD;
  std::vector<CK_SLOT_ID> all;
  std::vector<CK_SLOT_ID> listed;
  CK_RV result = listSlots(CK_FALSE, all);
  if (result == CKR_OK) result = listSlots(tokenPresent, listed);
  if (result != CKR_OK) return result;

  const std::lock_guard lock(state.mutex);
  state.ids = all;
  std::vector<CK_SLOT_ID> visible;
  for (std::size_t index = 0; index < all.size(); ++index) {
    const std::size_t slot = state.genuineSlot(index);
    if (slot >= all.size() || !contains(listed, all[slot])) continue;
    if (tokenPresent == CK_FALSE || !state.slots[slot].isReportedEmpty()) visible.push_back(all[index]);
  }
  const CK_ULONG capacity = std::exchange(*count, visible.size());
  if (ids == nullptr) return CKR_OK;
  if (capacity < visible.size()) return CKR_BUFFER_TOO_SMALL;
  std::ranges::copy(visible, ids);
  return CKR_OK;
}

CK_RV invoke(Of<kC_WaitForSlotEvent>, const Call&, CK_FLAGS flags, CK_SLOT_ID* slot, void* reserved) {
  const CK_RV result = state.genuine->C_WaitForSlotEvent(flags, slot, reserved);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK) *slot = applicationId(*slot);
  return result;
}

CK_RV invoke(Of<kC_GetSlotInfo>, const Call& call, CK_SLOT_ID id, CK_SLOT_INFO* info) {
  const CK_RV result = state.genuine->C_GetSlotInfo(id, info);
  const std::lock_guard lock(state.mutex);
  if (result != CKR_OK || !call.slot()) return result;
  if (call.settings().isRemovable) info->flags |= CKF_REMOVABLE_DEVICE;
  if (call.settings().isReportedEmpty()) info->flags &= ~CKF_TOKEN_PRESENT;
  return result;
}

CK_RV invoke(Of<kC_GetTokenInfo>, const Call& call, CK_SLOT_ID id, CK_TOKEN_INFO* info) {
  const CK_RV result = state.genuine->C_GetTokenInfo(id, info);
  const std::lock_guard lock(state.mutex);
  if (result != CKR_OK || !call.slot()) return result;
  const Slot& slot = call.settings();
  if (slot.hasPinPad) info->flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
  if (slot.tries > 0) {
    info->flags &= ~(CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_LOCKED);
    if (slot.wrongPins > 0) info->flags |= CKF_USER_PIN_COUNT_LOW;
    if (slot.wrongPins + 1 == slot.tries) info->flags |= CKF_USER_PIN_FINAL_TRY;
    if (slot.isLocked()) info->flags |= CKF_USER_PIN_LOCKED;
  }
  return result;
}

CK_RV invoke(Of<kC_InitToken>, const Call& call, CK_SLOT_ID id, CK_UTF8CHAR* pin, CK_ULONG length,
             CK_UTF8CHAR* label) {
  const CK_RV result = state.genuine->C_InitToken(id, pin, length, label);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK && call.slot()) call.settings().wrongPins = 0;
  return result;
}

CK_RV invoke(Of<kC_OpenSession>, const Call& call, CK_SLOT_ID id, CK_FLAGS flags, void* application,
             CK_NOTIFY notify, CK_SESSION_HANDLE* session) {
  const CK_RV result = state.genuine->C_OpenSession(id, flags, application, notify, session);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK && call.slot())
    state.sessions[*session] =
        std::make_shared<Session>(Session{*call.slot(), call.settings().isReportedEmpty()});
  return result;
}

CK_RV invoke(Of<kC_CloseSession>, const Call&, CK_SESSION_HANDLE session) {
  const CK_RV result = state.genuine->C_CloseSession(session);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK) state.sessions.erase(session);
  return result;
}

CK_RV invoke(Of<kC_CloseAllSessions>, const Call& call, CK_SLOT_ID id) {
  const CK_RV result = state.genuine->C_CloseAllSessions(id);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK)
    std::erase_if(state.sessions, [&](const auto& entry) { return entry.second->slot == call.slot(); });
  return result;
}

CK_RV invoke(Of<kC_GetSessionInfo>, const Call&, CK_SESSION_HANDLE session, CK_SESSION_INFO* info) {
  const CK_RV result = state.genuine->C_GetSessionInfo(session, info);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK) info->slotID = applicationId(info->slotID);
  return result;
}

CK_RV invoke(Of<kC_Login>, const Call& call, CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR* pin,
             CK_ULONG length) {
  const bool isUser = user != CKU_SO;
  std::string entered;
  std::unique_lock lock(state.mutex);
  if (call.slot() && call.settings().removal != Removal::kStandard) {
    // A second login never reaches the card.
    const CK_RV refusal = call.isTreatedAsEmpty() ? CKR_GENERAL_ERROR : CKR_DEVICE_REMOVED;
    lock.unlock();
    CK_SESSION_INFO info{};
    state.genuine->C_GetSessionInfo(session, &info);
    const bool isPublic = info.state == CKS_RO_PUBLIC_SESSION || info.state == CKS_RW_PUBLIC_SESSION;
    return isPublic ? refusal : CKR_USER_ALREADY_LOGGED_IN;
  }
  if (call.slot()) {
    const Slot& slot = call.settings();
    if (isUser && slot.isLocked()) return CKR_PIN_LOCKED;
    if (pin == nullptr && slot.hasPinPad) {
      if (!slot.padPin) return CKR_FUNCTION_CANCELED;
      entered = *slot.padPin;
      pin = reinterpret_cast<CK_UTF8CHAR*>(entered.data());
      length = entered.size();
    }
  }
  lock.unlock();
  const CK_RV result = state.genuine->C_Login(session, user, pin, length);
  lock.lock();
  if (isUser && call.slot() && result == CKR_OK) call.settings().wrongPins = 0;
  if (isUser && call.slot() && result == CKR_PIN_INCORRECT) ++call.settings().wrongPins;
  return result;
}

CK_RV invoke(Of<kC_InitPIN>, const Call& call, CK_SESSION_HANDLE session, CK_UTF8CHAR* pin, CK_ULONG length) {
  const CK_RV result = state.genuine->C_InitPIN(session, pin, length);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK && call.slot()) call.settings().wrongPins = 0;
  return result;
}

CK_RV invoke(Of<kC_FindObjects>, const Call& call, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects,
             CK_ULONG capacity, CK_ULONG* count) {
  const CK_RV result = state.genuine->C_FindObjects(session, objects, capacity, count);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK && call.isTreatedAsEmpty()) *count = 0;
  return result;
}

// ---- The functions of the function list ----

/// Stands for every argument after the session: input data of length 0, and an output buffer.
struct AnyArgument {
  CK_BYTE bytes[65536];
  CK_ULONG capacity = sizeof bytes;

  operator CK_BYTE*() { return bytes; }
  operator CK_ULONG() const { return 0; }
  operator CK_ULONG*() { return &capacity; }
};

/// Ends an operation in the genuine module, which has not seen the failing call.
template <class... P>
void endOperation(CK_RV (*ender)(CK_SESSION_HANDLE, P...), CK_SESSION_HANDLE session) {
  if (ender == nullptr) return;
  const auto argument = std::make_unique<AnyArgument>();
  ender(session, static_cast<P>(*argument)...);
}

/// If a failing call of F ends an operation, ends it in the genuine module too.
#define FAULTY_NO_ENDING(name, ...)
#define FAULTY_ENDING(name, traits, ender) \
  if constexpr (F == k##name) endOperation(state.genuine->ender, session);
template <Function F>
void endOperationOf([[maybe_unused]] CK_SESSION_HANDLE session) {
  FAULTY_FUNCTIONS(FAULTY_NO_ENDING, FAULTY_ENDING)
}

template <Function F, auto Member>
struct Forward;

template <Function F, class First, class... Rest, CK_RV (*CK_FUNCTION_LIST::*Member)(First, Rest...)>
struct Forward<F, Member> {
  static CK_RV function(First first, Rest... rest) try {
    CK_RV failure = begin(F);
    closeLostSessions();
    CK_ULONG slotOrSession = 0;
    if constexpr ((kRows[F].traits & (kSlot | kSession)) != 0) slotOrSession = first;
    const Call call(F, slotOrSession);
    if (failure == CKR_OK) failure = call.checkRemoval();
    if (failure != CKR_OK) {
      if (failure != CKR_BUFFER_TOO_SMALL && !call.hasLostSession()) endOperationOf<F>(slotOrSession);
      return failure;
    }
    if constexpr ((kRows[F].traits & kSlot) != 0) first = call.genuineId(first);
    CK_RV result;
    if constexpr (requires { invoke(Of<F>(), call, first, rest...); })
      result = invoke(Of<F>(), call, first, rest...);
    else
      result = (state.genuine->*Member)(first, rest...);
    failure = call.checkRemoval();  // the card may have been removed during the call
    return failure != CKR_OK ? failure : result;
  } catch (...) {
    return CKR_HOST_MEMORY;
  }
};

}  // namespace
}  // namespace faulty

faulty::State* wrapModule(const char* path, const char** loadError) {
  using namespace faulty;
  void* const module = dlopen(path, RTLD_LAZY | RTLD_LOCAL);
  if (module == nullptr) {
    *loadError = dlerror();
    return nullptr;
  }
  const auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"));
  CK_FUNCTION_LIST* genuine = nullptr;
  if (get == nullptr || get(&genuine) != CKR_OK || genuine == nullptr) {
    dlclose(module);
    return nullptr;
  }
  state.genuine = genuine;
  state.genuineLibrary = module;
  state.list.version = genuine->version;
  static_assert(sizeof state.list == offsetof(CK_FUNCTION_LIST, C_Initialize) + kFunctions * sizeof(void*),
                "each function of the list needs a row");
  // A function that the genuine module lacks is missing here too.
#define FAULTY_DEFINE(name, ...) \
  if (genuine->name != nullptr) state.list.name = Forward<k##name, &CK_FUNCTION_LIST::name>::function;
  FAULTY_FUNCTIONS(FAULTY_DEFINE, FAULTY_DEFINE)
  return &state;
}

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  using namespace faulty;
  if (state.genuine == nullptr) return CKR_GENERAL_ERROR;
  return Forward<kC_GetFunctionList, &CK_FUNCTION_LIST::C_GetFunctionList>::function(list);
}
