// The PKCS#11 module: each function waits, fails or crashes as ordered, and otherwise goes to the genuine
// module.
#include "faulty_module.h"

#include <dlfcn.h>

#include <algorithm>
#include <new>
#include <thread>
#include <type_traits>

namespace faulty {
namespace {

// Never destroyed: a call may still hang while the process ends.
State& state = *new State;

// ---- What was ordered ----

/// Where every call begins. The result is the failure ordered for it, or CKR_OK.
CK_RV begin(Function function) {
  std::unique_lock lock(state.mutex);
  state.calls.push_back(function);
  Orders& orders = state.orders[function];
  const auto failure = orders.failures.extract(++orders.calls);
  if (orders.crashes) {
    int* volatile nowhere = nullptr;
    *nowhere = 0;  // a signal of which a virtual machine reports this place
  }
  const auto delay = orders.delay;
  if (orders.hangs) state.released.wait(lock, [seen = state.releases] { return state.releases != seen; });
  lock.unlock();
  std::this_thread::sleep_for(delay);
  return failure ? failure.mapped() : CKR_OK;
}

/// Passes for any argument after the session: no data, and room for a result.
struct AnyArgument {
  CK_BYTE bytes[65536];
  CK_ULONG room = sizeof bytes;

  operator CK_BYTE*() { return bytes; }
  operator CK_ULONG() const { return 0; }
  operator CK_ULONG*() { return &room; }
};

/// Ends the operation in the genuine module, which does not know that the call has failed.
template <class... P>
void endOperation(CK_RV (*ender)(CK_SESSION_HANDLE, P...), CK_SESSION_HANDLE session) {
  if (ender == nullptr) return;
  const auto argument = std::make_unique<AnyArgument>();
  ender(session, static_cast<P>(*argument)...);
}

#define FAULTY_NO_ENDING(name, ...)
#define FAULTY_ENDING(name, traits, ender) \
  if (function == k##name) endOperation(state.genuine->ender, session);
void endOperation(Function function, CK_SESSION_HANDLE session) {
  FAULTY_FUNCTIONS(FAULTY_NO_ENDING, FAULTY_ENDING)
}

// ---- Slots and sessions ----

/// Closes the sessions whose card was removed, and so ends the login, once their last call has returned.
void closeLostSessions() {
  std::map<CK_SESSION_HANDLE, std::shared_ptr<Session>> lost;
  {
    const std::lock_guard lock(state.mutex);
    for (auto& [handle, session] : state.sessions)
      if (session->isLost && !session->isClosed && session->calls == 0) lost.emplace(handle, session);
    for (auto& [handle, session] : lost) ++session->calls;
  }
  if (lost.empty()) return;
  for (auto& [handle, session] : lost) state.genuine->C_CloseSession(handle);
  const std::lock_guard lock(state.mutex);
  for (auto& [handle, session] : lost) session->isClosed = true;
}

CK_RV listSlots(CK_BBOOL tokenPresent, std::vector<CK_SLOT_ID>& ids) {
  CK_ULONG count = 0;
  CK_RV result = state.genuine->C_GetSlotList(tokenPresent, nullptr, &count);
  if (result != CKR_OK) return result;
  count += 16;  // readers that are plugged in between the two calls
  ids.resize(count);
  result = state.genuine->C_GetSlotList(tokenPresent, ids.data(), &count);
  ids.resize(result == CKR_OK ? count : 0);
  return result;
}

bool contains(const auto& range, const auto& value) { return std::ranges::find(range, value) != range.end(); }

// The rest of this part is called under the mutex.

/// The place of an ID in the genuine module's list; behind its end for one that is not there.
std::size_t placeOf(CK_SLOT_ID id) {
  return static_cast<std::size_t>(std::ranges::find(state.ids, id) - state.ids.begin());
}

/// The ID under which a genuine slot is shown: that of the slot whose place it takes.
CK_SLOT_ID shownId(CK_SLOT_ID id) {
  for (std::size_t place = 0; place < state.ids.size(); ++place)
    if (state.genuineSlot(place) == placeOf(id)) return state.ids[place];
  return id;
}

/// A call's slot, by its place in the genuine module, and its session, if it has them.
struct Subject {
  Function function;
  std::optional<std::size_t> slot{};
  std::shared_ptr<Session> session{};

  Subject(Function f, CK_ULONG first) : function(f) {
    const unsigned traits = kRows[f].traits;
    if ((traits & kSlot) != 0 && placeOf(first) < state.ids.size()) slot = state.genuineSlot(placeOf(first));
    const auto known = state.sessions.find(first);
    if ((traits & kSession) == 0 || known == state.sessions.end()) return;
    session = known->second;
    slot = session->slot;
  }

  Slot& card() const { return state.slots[*slot]; }
  bool passesForEmpty() const { return slot && card().removal == Removal::kEmpty; }

  /// What the removal of the card makes of the call, or CKR_OK.
  CK_RV refusal() const {
    if (!slot) return CKR_OK;
    const bool asksForCard = function == kC_GetSlotInfo;
    if (asksForCard && card().removal == Removal::kCached) state.loseSessions(*slot);
    if (session && session->isLost) return card().hasCard ? CKR_SESSION_HANDLE_INVALID : CKR_DEVICE_REMOVED;
    if (passesForEmpty()) return kRows[function].whenEmpty;
    if (card().removal == Removal::kCached && (kRows[function].traits & kCard) != 0)
      return CKR_DEVICE_REMOVED;
    return card().isSeenEmpty() && !asksForCard ? CKR_TOKEN_NOT_PRESENT : CKR_OK;
  }
};

// ---- The functions that do more than pass the call on ----

template <Function F>
using Of = std::integral_constant<Function, F>;

CK_RV answer(Of<kC_Initialize>, const Subject&, void* arguments) {
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
  for (auto& [place, slot] : state.slots) slot.removal = Removal::kStandard;
  return CKR_OK;
}

CK_RV answer(Of<kC_Finalize>, const Subject&, void* reserved) {
  const CK_RV result = state.genuine->C_Finalize(reserved);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK) state.sessions.clear();
  return result;
}

CK_RV answer(Of<kC_GetFunctionList>, const Subject&, CK_FUNCTION_LIST** list) {
  if (list == nullptr) return CKR_ARGUMENTS_BAD;
  *list = &state.list;
  return CKR_OK;
}

CK_RV answer(Of<kC_GetSlotList>, const Subject&, CK_BBOOL tokenPresent, CK_SLOT_ID* ids, CK_ULONG* count) {
  if (count == nullptr) return CKR_ARGUMENTS_BAD;
  std::vector<CK_SLOT_ID> all;
  std::vector<CK_SLOT_ID> listed;
  CK_RV result = listSlots(CK_FALSE, all);
  if (result == CKR_OK) result = listSlots(tokenPresent, listed);
  if (result != CKR_OK) return result;

  const std::lock_guard lock(state.mutex);
  state.ids = all;
  std::vector<CK_SLOT_ID> shown;
  for (std::size_t place = 0; place < all.size(); ++place) {
    const std::size_t slot = state.genuineSlot(place);
    if (slot >= all.size() || !contains(listed, all[slot])) continue;
    if (tokenPresent == CK_FALSE || !state.slots[slot].isSeenEmpty()) shown.push_back(all[place]);
  }
  const CK_ULONG room = std::exchange(*count, shown.size());
  if (ids == nullptr) return CKR_OK;
  if (room < shown.size()) return CKR_BUFFER_TOO_SMALL;
  std::ranges::copy(shown, ids);
  return CKR_OK;
}

CK_RV answer(Of<kC_WaitForSlotEvent>, const Subject&, CK_FLAGS flags, CK_SLOT_ID* slot, void* reserved) {
  const CK_RV result = state.genuine->C_WaitForSlotEvent(flags, slot, reserved);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK) *slot = shownId(*slot);
  return result;
}

CK_RV answer(Of<kC_GetSlotInfo>, const Subject& subject, CK_SLOT_ID id, CK_SLOT_INFO* info) {
  const CK_RV result = state.genuine->C_GetSlotInfo(id, info);
  const std::lock_guard lock(state.mutex);
  if (result != CKR_OK || !subject.slot) return result;
  if (subject.card().isRemovable) info->flags |= CKF_REMOVABLE_DEVICE;
  if (subject.card().isSeenEmpty()) info->flags &= ~CKF_TOKEN_PRESENT;
  return result;
}

CK_RV answer(Of<kC_GetTokenInfo>, const Subject& subject, CK_SLOT_ID id, CK_TOKEN_INFO* info) {
  const CK_RV result = state.genuine->C_GetTokenInfo(id, info);
  const std::lock_guard lock(state.mutex);
  if (result != CKR_OK || !subject.slot) return result;
  const Slot& slot = subject.card();
  if (slot.hasPinPad) info->flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
  if (slot.tries > 0) {
    info->flags &= ~(CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_LOCKED);
    if (slot.wrongPins > 0) info->flags |= CKF_USER_PIN_COUNT_LOW;
    if (slot.wrongPins + 1 == slot.tries) info->flags |= CKF_USER_PIN_FINAL_TRY;
    if (slot.isLocked()) info->flags |= CKF_USER_PIN_LOCKED;
  }
  return result;
}

CK_RV answer(Of<kC_InitToken>, const Subject& subject, CK_SLOT_ID id, CK_UTF8CHAR* pin, CK_ULONG length,
             CK_UTF8CHAR* label) {
  const CK_RV result = state.genuine->C_InitToken(id, pin, length, label);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK && subject.slot) subject.card().wrongPins = 0;
  return result;
}

CK_RV answer(Of<kC_OpenSession>, const Subject& subject, CK_SLOT_ID id, CK_FLAGS flags, void* application,
             CK_NOTIFY notify, CK_SESSION_HANDLE* session) {
  const CK_RV result = state.genuine->C_OpenSession(id, flags, application, notify, session);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK && subject.slot)
    state.sessions[*session] =
        std::make_shared<Session>(Session{*subject.slot, subject.card().isSeenEmpty()});
  return result;
}

CK_RV answer(Of<kC_CloseSession>, const Subject&, CK_SESSION_HANDLE session) {
  const CK_RV result = state.genuine->C_CloseSession(session);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK) state.sessions.erase(session);
  return result;
}

CK_RV answer(Of<kC_CloseAllSessions>, const Subject& subject, CK_SLOT_ID id) {
  const CK_RV result = state.genuine->C_CloseAllSessions(id);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK)
    std::erase_if(state.sessions, [&](const auto& known) { return known.second->slot == subject.slot; });
  return result;
}

CK_RV answer(Of<kC_GetSessionInfo>, const Subject&, CK_SESSION_HANDLE session, CK_SESSION_INFO* info) {
  const CK_RV result = state.genuine->C_GetSessionInfo(session, info);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK) info->slotID = shownId(info->slotID);
  return result;
}

CK_RV answer(Of<kC_Login>, const Subject& subject, CK_SESSION_HANDLE session, CK_USER_TYPE user,
             CK_UTF8CHAR* pin, CK_ULONG length) {
  const bool isUser = user != CKU_SO;
  std::string entered;
  std::unique_lock lock(state.mutex);
  if (subject.passesForEmpty()) {
    lock.unlock();
    CK_SESSION_INFO info{};
    state.genuine->C_GetSessionInfo(session, &info);
    const bool isPublic = info.state == CKS_RO_PUBLIC_SESSION || info.state == CKS_RW_PUBLIC_SESSION;
    return isPublic ? CKR_GENERAL_ERROR : CKR_USER_ALREADY_LOGGED_IN;
  }
  if (subject.slot) {
    const Slot& slot = subject.card();
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
  if (isUser && subject.slot && result == CKR_OK) subject.card().wrongPins = 0;
  if (isUser && subject.slot && result == CKR_PIN_INCORRECT) ++subject.card().wrongPins;
  return result;
}

CK_RV answer(Of<kC_InitPIN>, const Subject& subject, CK_SESSION_HANDLE session, CK_UTF8CHAR* pin,
             CK_ULONG length) {
  const CK_RV result = state.genuine->C_InitPIN(session, pin, length);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK && subject.slot) subject.card().wrongPins = 0;
  return result;
}

CK_RV answer(Of<kC_FindObjects>, const Subject& subject, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects,
             CK_ULONG room, CK_ULONG* count) {
  const CK_RV result = state.genuine->C_FindObjects(session, objects, room, count);
  const std::lock_guard lock(state.mutex);
  if (result == CKR_OK && subject.passesForEmpty()) *count = 0;
  return result;
}

// ---- The function list ----

/// A call under way, whose session is not closed meanwhile.
class Visit {
 public:
  Visit(Function function, CK_ULONG first) : lock_(state.mutex), subject_(function, first) {
    if (subject_.session) ++subject_.session->calls;
    lock_.unlock();
  }
  Visit(const Visit&) = delete;
  Visit& operator=(const Visit&) = delete;
  ~Visit() {
    if (!subject_.session) return;
    lock_.lock();
    --subject_.session->calls;
  }

  const Subject& subject() const { return subject_; }
  CK_RV refusal() {
    const std::lock_guard lock(state.mutex);
    return subject_.refusal();
  }
  CK_SLOT_ID genuineId(CK_SLOT_ID shown) {
    const std::lock_guard lock(state.mutex);
    return subject_.slot && *subject_.slot < state.ids.size() ? state.ids[*subject_.slot] : shown;
  }

 private:
  std::unique_lock<std::mutex> lock_;
  Subject subject_;
};

template <Function F, auto Member>
struct Forward;

template <Function F, class First, class... Rest, CK_RV (*CK_FUNCTION_LIST::*Member)(First, Rest...)>
struct Forward<F, Member> {
  static CK_RV call(First first, Rest... rest) try {
    CK_RV failure = begin(F);
    closeLostSessions();
    CK_ULONG named = 0;
    if constexpr ((kRows[F].traits & (kSlot | kSession)) != 0) named = first;
    Visit visit(F, named);
    if (failure == CKR_OK) failure = visit.refusal();
    if (failure != CKR_OK) {
      if (failure != CKR_BUFFER_TOO_SMALL) endOperation(F, named);
      return failure;
    }
    if constexpr ((kRows[F].traits & kSlot) != 0) first = visit.genuineId(first);
    CK_RV result;
    if constexpr (requires { answer(Of<F>(), visit.subject(), first, rest...); })
      result = answer(Of<F>(), visit.subject(), first, rest...);
    else
      result = (state.genuine->*Member)(first, rest...);
    failure = visit.refusal();  // of a call during which the card was removed
    return failure != CKR_OK ? failure : result;
  } catch (...) {
    return CKR_HOST_MEMORY;
  }
};

/// Puts this module before the one of a path; says why not, if it cannot.
const char* load(const char* path) {
  void* const module = dlopen(path, RTLD_LAZY | RTLD_LOCAL);
  if (module == nullptr) return dlerror();
  const auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"));
  CK_FUNCTION_LIST* genuine = nullptr;
  if (get == nullptr || get(&genuine) != CKR_OK || genuine == nullptr) return "not a PKCS#11 module";
  state.genuine = genuine;
  state.list.version = genuine->version;
  // A function that is missing there is missing here.
#define FAULTY_DEFINE(name, ...) \
  if (genuine->name != nullptr) state.list.name = Forward<k##name, &CK_FUNCTION_LIST::name>::call;
  FAULTY_FUNCTIONS(FAULTY_DEFINE, FAULTY_DEFINE)
  return nullptr;
}

}  // namespace
}  // namespace faulty

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  const auto get = faulty::state.list.C_GetFunctionList;
  return get != nullptr ? get(list) : CKR_GENERAL_ERROR;
}

faulty::State* faultyModuleBefore(const char* path, const char** problem) {
  *problem = faulty::load(path);
  return *problem == nullptr ? &faulty::state : nullptr;
}
