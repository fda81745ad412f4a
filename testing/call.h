// One call of this module, from its beginning to the moment when the genuine module may be asked.
#pragma once

#include "faulty_module.h"

namespace faulty {

/// This copy's. It is never destroyed: a call may still hang while the process ends.
extern State& state;

/// Where every call begins: waits or crashes as ordered. The result is the failure ordered for it, or CKR_OK.
CK_RV begin(Function function);

/// Closes the sessions whose card was removed, and so ends the login, once their last call has returned.
void closeLostSessions();

CK_RV listSlots(CK_BBOOL tokenPresent, std::vector<CK_SLOT_ID>& ids);

/// The ID under which a genuine slot is shown: that of the slot whose place it takes. Under the mutex.
CK_SLOT_ID shownId(CK_SLOT_ID id);

/// A call under way, whose session is not closed meanwhile: its slot, by its place in the genuine module, and
/// its session, if it has them.
class Call {
 public:
  /// The function's first argument may name a slot or a session.
  Call(Function function, CK_ULONG first);
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call();

  /// What the removal of the card makes of it, or CKR_OK.
  CK_RV refusal() const;
  /// Whether the session may be in another thread's hands already, which closes it.
  bool hasLostSession() const;
  CK_SLOT_ID genuineId(CK_SLOT_ID shown) const;

  // Under the mutex.
  const std::optional<std::size_t>& slot() const { return slot_; }
  Slot& card() const { return state.slots[*slot_]; }
  bool passesForEmpty() const { return slot_ && card().removal == Removal::kEmpty; }

 private:
  Function function_;
  std::optional<std::size_t> slot_;
  std::shared_ptr<Session> session_;
};

}  // namespace faulty
