#include "module.h"

CK_FUNCTION_LIST_PTR p = nullptr;
CK_RV rv = CKR_OK;
CK_SLOT_ID_PTR pSlotList = nullptr;
CK_SESSION_HANDLE_PTR allSessions = nullptr;
CK_ULONG ulSlotCount = 0;
CK_BBOOL yes = CK_TRUE;
CK_BBOOL no = CK_FALSE;

bool isBound() { return allSessions != nullptr; }

bool inRange(jlong slotIndex) { return isBound() && static_cast<CK_ULONG>(slotIndex) < ulSlotCount; }

bool hasSession(jlong slotIndex) { return inRange(slotIndex) && allSessions[slotIndex] != 0; }

Slot slotAt(jlong slotIndex) { return inRange(slotIndex) ? Slot{pSlotList[slotIndex]} : Slot{}; }

Session sessionAt(jlong slotIndex) {
  return inRange(slotIndex) ? Session{allSessions[slotIndex]} : Session{};
}

void recordSession(jlong slotIndex, CK_SESSION_HANDLE session) { allSessions[slotIndex] = session; }
