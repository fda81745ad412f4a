#include "call.h"

#include <algorithm>
#include <new>
#include <thread>

namespace faulty {
namespace {

alignas(State) unsigned char memory[sizeof(State)];

/// The index of an ID in the genuine module's list, or the length of that list. Needs the mutex.
std::size_t indexOf(CK_SLOT_ID id) {
  return static_cast<std::size_t>(std::ranges::find(state.ids, id) - state.ids.begin());
}

}  // namespace

State& state = *new (memory) State;

CK_RV begin(Function function) {
  std::unique_lock lock(state.mutex);
  state.calls.push_back(function);
  Faults& faults = state.faults[function];
  const auto failure = faults.failures.extract(++faults.calls);
  if (faults.crashes) {
    int* volatile nowhere = nullptr;
    *nowhere = 0;  // SIGSEGV, so that the JVM's crash report names this library
  }
  const auto delay = faults.delay;
  if (faults.hangs) state.released.wait(lock, [seen = state.releases] { return state.releases != seen; });
  lock.unlock();
  std::this_thread::sleep_for(delay);
  return failure ? failure.mapped() : CKR_OK;
}

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
  count += 16;  // for readers that are plugged in between the two calls
  ids.resize(count);
  result = state.genuine->C_GetSlotList(tokenPresent, ids.data(), &count);
  ids.resize(result == CKR_OK ? count : 0);
  return result;
}

CK_SLOT_ID applicationId(CK_SLOT_ID id) {
  for (std::size_t index = 0; index < state.ids.size(); ++index)
    if (state.genuineSlot(index) == indexOf(id)) return state.ids[index];
  return id;
}

Call::Call(Function function, CK_ULONG first) : function_(function) {
  const unsigned traits = kRows[function].traits;
  const std::lock_guard lock(state.mutex);
  if ((traits & kSlot) != 0 && indexOf(first) < state.ids.size()) slot_ = state.genuineSlot(indexOf(first));
  const auto known = state.sessions.find(first);
  if ((traits & kSession) == 0 || known == state.sessions.end()) return;
  session_ = known->second;
  slot_ = session_->slot;
  ++session_->calls;
}

Call::~Call() {
  if (!session_) return;
  const std::lock_guard lock(state.mutex);
  --session_->calls;
}

CK_RV Call::checkRemoval() const {
  if (!slot_) return CKR_OK;
  const std::lock_guard lock(state.mutex);
  const bool isGetSlotInfo = function_ == kC_GetSlotInfo;
  if (isGetSlotInfo && settings().removal == Removal::kCached) state.loseSessions(*slot_);
  if (session_ && session_->isLost)
    return settings().hasCard ? CKR_SESSION_HANDLE_INVALID : CKR_DEVICE_REMOVED;
  if (isTreatedAsEmpty()) return kRows[function_].codeWhenEmpty;
  const bool needsCard = (kRows[function_].traits & kCard) != 0;
  if (settings().removal == Removal::kCached) return needsCard ? CKR_DEVICE_REMOVED : CKR_OK;
  return settings().isReportedEmpty() && !isGetSlotInfo ? CKR_TOKEN_NOT_PRESENT : CKR_OK;
}

bool Call::hasLostSession() const {
  const std::lock_guard lock(state.mutex);
  return session_ && session_->isLost;
}

CK_SLOT_ID Call::genuineId(CK_SLOT_ID id) const {
  const std::lock_guard lock(state.mutex);
  return slot_ && *slot_ < state.ids.size() ? state.ids[*slot_] : id;
}

}  // namespace faulty
