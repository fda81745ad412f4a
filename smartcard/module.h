#pragma once

#include <jni.h>
#include <p11-kit/pkcs11.h>

#include <optional>
#include <type_traits>

#include "trace.h"

// The process-wide state. The caller serialises all entry points, so nothing here is guarded.

extern CK_FUNCTION_LIST_PTR p;             // the module's function list; keeps its last value after an unload
extern CK_RV rv;                           // the result of the most recent PKCS#11 call of any entry point
extern CK_SLOT_ID_PTR pSlotList;           // the module's slots, in its own order
extern CK_SESSION_HANDLE_PTR allSessions;  // the session table; exists exactly while the library is bound
extern CK_ULONG ulSlotCount;               // entries of pSlotList and of allSessions
extern CK_BBOOL yes;                       // what templates point to for a true boolean attribute
extern CK_BBOOL no;                        // and for a false one

/// What an entry point answers to a slot index out of range, or without a session where it needs one.
inline constexpr jlong kBadSlotIndex = -1;

/// A CK_RV as the Java caller gets it.
constexpr jlong asJava(CK_RV code) { return static_cast<jlong>(code); }

/// Whether a module is loaded and initialised. It is from a successful initDLL to finalizeDLL.
bool isBound();

// The two checks of the slot-index guard. Indexes compare as unsigned numbers: a negative one is out of
// range.

bool inRange(jlong slotIndex);
bool hasSession(jlong slotIndex);  // in range, and a session is recorded

/// An entry of the slot list or of the session table. Without a value it stands for an index beyond the
/// table: a call addressed to it answers `Unknown`, as the module would, and does not reach the module.
template <CK_RV Unknown>
struct TableEntry {
  std::optional<CK_ULONG> value;
};
using Slot = TableEntry<CKR_SLOT_ID_INVALID>;
using Session = TableEntry<CKR_SESSION_HANDLE_INVALID>;

Slot slotAt(jlong slotIndex);
Session sessionAt(jlong slotIndex);  // handle 0 where none was opened
void recordSession(jlong slotIndex, CK_SESSION_HANDLE session);

/// A function of the PKCS#11 function list.
template <class... Parameter>
using Function = CK_RV (*CK_FUNCTION_LIST::*)(Parameter...);

/// The one place that calls the module once its function list is known: every result goes to `rv` before
/// anyone looks at it. Without a function list, or a function in it, the answer is an error code like the
/// module's own.
template <class... Parameter>
CK_RV call(CK_FUNCTION_LIST_PTR list, Function<Parameter...> function,
           std::type_identity_t<Parameter>... arguments) {
  if (list == nullptr) return rv = CKR_CRYPTOKI_NOT_INITIALIZED;
  if (list->*function == nullptr) return rv = CKR_FUNCTION_NOT_SUPPORTED;
  flushTraces();
  return rv = (list->*function)(arguments...);
}

/// The same through the bound module. `p` outlives its module, so a null test of it would not do.
template <class... Parameter>
CK_RV call(Function<Parameter...> function, std::type_identity_t<Parameter>... arguments) {
  return call(isBound() ? p : nullptr, function, arguments...);
}

/// The same for a function whose first parameter is a slot ID or a session handle.
template <CK_RV Unknown, class... Parameter>
CK_RV call(Function<CK_ULONG, Parameter...> function, TableEntry<Unknown> addressee,
           std::type_identity_t<Parameter>... arguments) {
  if (isBound() && !addressee.value) return rv = Unknown;
  return call(function, addressee.value.value_or(0), arguments...);
}
