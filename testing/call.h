// One call to this module: the steps before the genuine module is called.
#pragma once

#include "faulty_module.h"

namespace faulty {

/// The state of this copy of the library. Never destroyed: a call may still hang while the process ends.
extern State& state;

/// Begins every call: counts it, and hangs, waits or crashes as requested. Returns the requested code.
CK_RV begin(Function function);

/// Closes the sessions whose card was removed and whose calls have all returned. This also ends the login.
void closeLostSessions();

CK_RV listSlots(CK_BBOOL tokenPresent, std::vector<CK_SLOT_ID>& ids);

/// The ID by which the application knows the genuine slot with this ID. They differ if the test has reordered
/// the slots. Needs the mutex.
CK_SLOT_ID applicationId(CK_SLOT_ID id);

/// A call that has begun, with its slot (as an index of the genuine module) and its session, if it has them.
/// closeLostSessions does not close the session during the call.
class Call {
 public:
  /// `first` is the first argument of the function: a slot, a session, or neither.
  Call(Function function, CK_ULONG first);
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call();

  /// Returns the code for a call whose card was removed, otherwise CKR_OK. In C_GetSlotInfo, first lets a
  /// module that caches notice the removal.
  CK_RV checkRemoval() const;
  /// Whether the card of the session was removed. Another thread may be closing the session.
  bool hasLostSession() const;
  CK_SLOT_ID genuineId(CK_SLOT_ID id) const;

  // These need the mutex.
  const std::optional<std::size_t>& slot() const { return slot_; }
  Slot& settings() const { return state.slots[*slot_]; }
  bool isTreatedAsEmpty() const { return slot_ && settings().removal == Removal::kEmpty; }

 private:
  Function function_;
  std::optional<std::size_t> slot_;
  std::shared_ptr<Session> session_;
};

}  // namespace faulty
