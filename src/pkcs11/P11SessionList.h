#pragma once
// The token's ordered list of open sessions. It does not lock: the token
// mutex guards it.

#include "pkcs11/cryptoki.h"

struct P11Session;
struct P11SessionList;

typedef CK_ULONG P11SessionListCursor;  // 0 before the first session

CK_RV P11SessionList_construct(P11SessionList** list);
CK_RV P11SessionList_destruct(P11SessionList** list);
CK_RV P11SessionList_add(P11SessionList* list, P11Session* session);
CK_RV P11SessionList_remove(P11SessionList* list, P11Session* session);
CK_RV P11SessionList_contains(P11SessionList* list, P11Session* session, CK_BBOOL* contains);
// Takes the first session out; null when the list is empty.
CK_RV P11SessionList_popSession(P11SessionList* list, P11Session** session);
CK_RV P11SessionList_findSessionHandle(P11SessionList* list, CK_SESSION_HANDLE handle, P11Session** session);
// Yields the sessions in list order, then null.
CK_RV P11SessionList_enumSessions(P11SessionList* list, P11SessionListCursor* cursor, P11Session** session);
