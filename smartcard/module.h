#pragma once

#include <jni.h>
#include <p11-kit/pkcs11.h>

#include <optional>
#include <type_traits>

#include "trace.h"

// The process-wide state. It has no lock, because the caller serialises all entry points.

extern CK_FUNCTION_LIST_PTR p;             // the module's function list; keeps its value after an unload
extern CK_RV rv;                           // the code of the most recent PKCS#11 call of any entry point
extern CK_SLOT_ID_PTR pSlotList;           // the module's slots, in its own order
extern CK_SESSION_HANDLE_PTR allSessions;  // the session table; null unless the library is bound
extern CK_ULONG ulSlotCount;               // the length of pSlotList and of allSessions
extern CK_BBOOL yes;                       // the value of every true attribute in templates
extern CK_BBOOL no;                        // the value of every false one

/// The result for a slot index out of range, or for a slot without a session if one is needed.
inline constexpr jlong kBadSlotIndex = -1;

/// A code as a Java long.
constexpr jlong asJava(CK_RV code) { return static_cast<jlong>(code); }

/// Whether a module is loaded and initialised: true from a successful initDLL to finalizeDLL.
bool isBound();

// The two guards for slot indexes. They compare unsigned numbers, so a negative index is out of range.

bool inRange(jlong slotIndex);
bool hasSession(jlong slotIndex);  // in range, and a session is recorded

/// An entry of the slot list or of the session table. For an index beyond the table the entry has no value:
/// call() then returns `CodeIfMissing`, as the module would, without calling the module.
template <CK_RV CodeIfMissing>
struct TableEntry {
  std::optional<CK_ULONG> value;
};
using Slot = TableEntry<CKR_SLOT_ID_INVALID>;
using Session = TableEntry<CKR_SESSION_HANDLE_INVALID>;

Slot slotAt(jlong slotIndex);
Session sessionAt(jlong slotIndex);  // handle 0 if none was opened
void recordSession(jlong slotIndex, CK_SESSION_HANDLE session);

/// A function of the PKCS#11 function list.
template <class... Parameter>
using Function = CK_RV (*CK_FUNCTION_LIST::*)(Parameter...);

/// Calls a function of the module's list. Stores the code in `rv` and returns it. If the list or the function
/// is missing, the code is the one that a module would return. The list is used here only.
template <class... Parameter>
CK_RV call(CK_FUNCTION_LIST_PTR list, Function<Parameter...> function,
           std::type_identity_t<Parameter>... arguments) {
  if (list == nullptr) return rv = CKR_CRYPTOKI_NOT_INITIALIZED;
  if (list->*function == nullptr) return rv = CKR_FUNCTION_NOT_SUPPORTED;
  flushTraces();
  return rv = (list->*function)(arguments...);
}

/// The same for the bound module.
template <class... Parameter>
CK_RV call(Function<Parameter...> function, std::type_identity_t<Parameter>... arguments) {
  return call(isBound() ? p : nullptr, function, arguments...);
}

/// The same for a function whose first parameter is a slot ID or a session handle.
template <CK_RV CodeIfMissing, class... Parameter>
CK_RV call(Function<CK_ULONG, Parameter...> function, TableEntry<CodeIfMissing> entry,
           std::type_identity_t<Parameter>... arguments) {
  if (isBound() && !entry.value) return rv = CodeIfMissing;
  return call(function, entry.value.value_or(0), arguments...);
}
